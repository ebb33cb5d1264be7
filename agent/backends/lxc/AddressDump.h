// The addresses of the network namespace in which a socket was made (rtnetlink(7), RTM_GETADDR), and notices of their
// changes.
//
// None of these functions waits; see NetlinkDump.h. Any thread, one socket one thread at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "agent/backends/lxc/NetlinkDump.h"
#include "agent/base/OwnedDescriptor.h"
#include "agent/inventory/Environment.h"

namespace kx::agent::lxc {

/// Most addresses of each family that are published of a container.
inline constexpr std::size_t kMaxAddresses = 1024;

/// An address as the kernel has it.
struct KernelAddress {
    std::uint32_t interface = 0;           ///< index of the interface that has it
    std::array<std::uint8_t, 16> bytes{};  ///< the interface's own address, not that of a peer; IPv4: the first four
    unsigned prefix = 0;                   ///< 0 to 32 or 128
    bool operator==(const KernelAddress&) const = default;
};

/// The addresses of a namespace, as far as they were taken: ordered by interface index, as the kernel has them within
/// one; of an address that is there twice the first.
struct AddressList {
    std::vector<Address> addresses;  ///< IPv4
    std::vector<Inet6Address> inet6Addresses;
    bool cut = false;     ///< there are more
    std::string problem;  ///< in words; not empty: the addresses are not known
    bool operator==(const AddressList&) const = default;
};

/// Collects addresses: IPv4 but for those of scope host (127.0.0.1); IPv6 but for those of scope host and link, for
/// each interface makes one of these by itself and it means nothing without the interface.
class AddressDump : public DumpReader {
public:
    void begin() override;
    bool take(const nlmsghdr& message) override;
    bool isFull() const override;

    /// @return what was collected, as it is published
    AddressList list() const;

private:
    std::vector<KernelAddress> inet_;
    std::vector<KernelAddress> inet6_;
};

/// @brief Opens a socket that becomes readable when an address comes or goes, in the thread's namespace. Its queue
/// holds a few notices only: that there is one says enough.
/// @return none, with errno set, when it cannot be opened
OwnedDescriptor openNoticeSocket();

/// @brief Throws away the notices that wait.
void dropNotices(int socket);

/// @brief Asks for all addresses.
/// @param socket see openRouteSocket(); spent afterwards
AddressList readAddresses(int socket);

}  // namespace kx::agent::lxc
