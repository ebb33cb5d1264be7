// Lists that the kernel sends of a network namespace when it is asked for them (netlink(7), rtnetlink(7)).
//
// Nothing here waits: the kernel has its answer ready when it is asked. Who is root in the namespace decides how long a
// list is and how often it changes, so what is read at once is bounded. What is not understood fails the answer as a
// whole, so that half a list is never taken for a whole one. Any thread, one socket one thread at a time.
#pragma once

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {

/// What a list is asked for with.
struct DumpRequest {
    std::uint16_t type = 0;     ///< RTM_GETLINK, RTM_GETADDR
    std::size_t headBytes = 0;  ///< of the head that follows the message's: all zero asks for everything
    unsigned maxDatagrams = 0;  ///< read at most, 32 KiB each
};

/// Collects a list.
class DumpReader {
public:
    virtual ~DumpReader() = default;

    /// @brief A list begins; what was collected before was interrupted by a change.
    virtual void begin() = 0;

    /// @brief Takes the next message of the list, of any type but those that netlink itself has.
    /// @return whether it could be understood
    virtual bool take(const nlmsghdr& message) = 0;

    /// @return whether the rest of the list is not wanted
    virtual bool isFull() const = 0;
};

/// How far an answer has come.
enum class DumpState { Unfinished, Complete, Failed };

/// An answer, growing datagram by datagram.
struct DumpAnswer {
    std::uint32_t number = 0;  ///< of the request; messages with another number are passed over
    DumpState state = DumpState::Unfinished;
    bool interrupted = false;  ///< the list changed meanwhile: an element may be missing
    std::string problem;       ///< in words, when it has failed
};

/// @param headBytes of the head that follows the message's
/// @return the last attribute of a type; null when there is none
const nlattr* findAttribute(const nlmsghdr& message, std::size_t headBytes, std::uint16_t type);

/// @brief Takes one datagram of an answer. Does nothing once that is complete or has failed.
/// @param bytes aligned as a nlmsghdr is
void takeDatagram(DumpAnswer& answer, const char* bytes, std::size_t count, DumpReader& reader);

/// What has become of a request.
struct DumpResult {
    std::string problem;  ///< in words; not empty: the list is not known
    bool cut = false;     ///< there is more than the reader has
};

/// @brief Opens a socket for one dump, in the calling thread's namespace.
/// @return none, with errno set, when it cannot be opened
OwnedDescriptor openRouteSocket();

/// @brief Reads a list. One that changes meanwhile is read again, a few times; after that it may lack an element.
/// @param socket see openRouteSocket(); spent afterwards
DumpResult readDump(int socket, const DumpRequest& request, DumpReader& reader);

}  // namespace kx::agent::lxc
