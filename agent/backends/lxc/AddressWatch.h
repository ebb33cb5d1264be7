// Which addresses the kernel has for running containers, and every change of them. A container that shares the host's
// network namespace has none: the host's are not its own.
//
// One thread for all containers enters each one's network namespace for a moment, opens a socket there that tells of
// changes, and reads the list. It starts no process and needs nothing of the container: a frozen one is read like any
// other. A notice leads to a fresh reading of the whole list some 20 ms later, more seldom where changes never end
// (LookPacer); how much is read at once is bounded too (AddressDump). So no container keeps others from being seen.
//
// The socket keeps the namespace alive, and with it the container's interfaces. It is closed as soon as the
// container's init process has ended, which this thread sees by itself.
//
// Threads: all functions are called by the owner, one thread; between construction and destruction a thread of this
// object's own, with every signal blocked, does the work. The owner never waits for it, except in the destructor,
// which waits for one look to end. What was found out waits for the owner to take it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "agent/backends/lxc/LookPacer.h"
#include "agent/backends/lxc/NetworkSpace.h"
#include "agent/backends/lxc/OrderThread.h"
#include "agent/base/OwnedDescriptor.h"
#include "agent/inventory/Environment.h"

namespace kx::agent::lxc {

/// What has been found out of one container. A new one replaces all former ones.
struct AddressReport {
    std::uint64_t life = 0;                         ///< see AddressWatch::watch()
    std::optional<std::vector<Address>> addresses;  ///< absent: they cannot be read
    std::string problem;                            ///< why they cannot, in words
    std::vector<Inet6Address> inet6Addresses;       ///< as long as `addresses` is there
    bool cut = false;                               ///< there are more addresses; see kMaxAddresses
    bool noDescriptors = false;                     ///< the problem is the process's: it has too many files open
    bool operator==(const AddressReport&) const = default;
};

/// Watches from its construction to its destruction.
class AddressWatch {
public:
    /// @brief Starts the thread. The network namespace of the calling thread is where it stays between visits.
    /// @throws std::runtime_error when the system has not what it needs
    AddressWatch();

    /// @brief Stops and joins the thread, and closes all sockets.
    ~AddressWatch();

    AddressWatch(const AddressWatch&) = delete;
    AddressWatch& operator=(const AddressWatch&) = delete;

    /// @return a descriptor that is readable while there are reports to be taken
    int descriptor() const { return reportsReady_.get(); }

    /// @brief Begins to watch a container; a report follows at once, and another with every change.
    /// @param life the owner's number for this run of the container, from 1, never used again
    /// @param initPid its init process, seen from here
    /// @param pidfd descriptor of that process; when it ends, watching ends
    void watch(std::uint64_t life, pid_t initPid, std::shared_ptr<const OwnedDescriptor> pidfd);

    /// @brief Ends watching. A report may still be on its way.
    void forget(std::uint64_t life);

    /// @brief Looks whether each init process still is in the namespace that is being watched, and looks again where
    /// the last look failed. Nothing tells of either; costs a lookup a container.
    void compare();

    /// @return what was found out since the last time, in order
    std::vector<AddressReport> takeReports();

private:
    /// A container under watch. Belongs to the thread.
    struct Watched {
        pid_t initPid;
        std::shared_ptr<const OwnedDescriptor> pidfd;
        NetworkSpaceId space;     ///< as the last look found it; none when that has failed
        OwnedDescriptor notices;  ///< tells of changes; none until a look has succeeded
        LookPacer pacer;
        std::optional<Clock::time_point> due;  ///< of the next look; none: nothing has happened
        AddressReport told;                    ///< the last report
    };

    void begin(std::uint64_t life, pid_t initPid, std::shared_ptr<const OwnedDescriptor> pidfd);
    void end(std::uint64_t life);
    void compareEach();
    void lookAtDue();
    void look(std::uint64_t life, Watched& watched);
    AddressReport find(std::uint64_t life, Watched& watched, NetworkSpaceId before);
    int openSockets(Watched& watched, int space, OwnedDescriptor& question);
    bool addToPoll(int descriptor, std::uint64_t tag, std::uint32_t events);
    void tell(Watched& watched, AddressReport report);
    void handOver();
    void wait();
    void noticed(std::uint64_t tag);
    void setDue(std::uint64_t life, Watched& watched, std::optional<Clock::time_point> due);

    OwnedDescriptor poll_;
    OwnedDescriptor reportsReady_;

    std::mutex mutex_;  ///< over reports_, held for moments
    std::vector<AddressReport> reports_;

    // The thread's own.
    NetworkTraveller traveller_;
    std::map<std::uint64_t, Watched> watched_;
    std::set<std::pair<Clock::time_point, std::uint64_t>> due_;
    std::vector<AddressReport> found_;  ///< not yet handed over

    OrderThread orders_;  ///< ends before the rest does
};

}  // namespace kx::agent::lxc
