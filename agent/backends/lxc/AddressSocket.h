// Sockets to the kernel's addresses (rtnetlink(7)) in the network namespace in which they were made.
//
// None of these functions waits: the kernel has its answer ready when it is asked. Who is root in the namespace
// decides what there is to be told and how often it changes, so what is taken at once is bounded. Any thread, one
// socket one thread at a time.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "agent/base/OwnedDescriptor.h"
#include "agent/inventory/Environment.h"

namespace kx::agent::lxc {

/// Most addresses of a container that are published.
inline constexpr std::size_t kMaxAddresses = 1024;

/// @brief Opens a socket that becomes readable when an IPv4 address comes or goes, in the thread's namespace.
/// Its queue holds a few notices only: that there is one says enough.
/// @return none, with errno set, when it cannot be opened
OwnedDescriptor openNoticeSocket();

/// @brief Throws away the notices that wait.
void dropNotices(int socket);

/// @brief Opens a socket for readAddresses(), in the thread's namespace.
/// @return none, with errno set, when it cannot be opened
OwnedDescriptor openQuestionSocket();

/// The addresses of a namespace, as far as they were taken.
struct AddressList {
    std::vector<Address> addresses;  ///< in publishing order, see publishable()
    bool cut = false;                ///< there are more
    std::string problem;             ///< in words; not empty: the addresses are not known
};

/// @brief Asks for all addresses. A list that changes while it is being read is read again, a few times; after that it
/// may lack an address, of whose change there is a notice.
/// @param socket see openQuestionSocket(); spent afterwards
AddressList readAddresses(int socket);

}  // namespace kx::agent::lxc
