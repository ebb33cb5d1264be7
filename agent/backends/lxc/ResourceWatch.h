// Tells when containers, or the host, run out of memory or processes.
//
//   memory.oom     processes were killed for lack of memory. Under cgroup v1 an eventfd on memory.oom_control
//                  (Documentation/admin-guide/cgroup-v1/memory.rst) tells right before it happens, so the count is
//                  looked at until it has grown; it tells of a cgroup's removal too, and then no count has grown. Under
//                  v2 inotify on memory.events (cgroup-v2.rst) tells.
//   memory.limit   the limit of memory was hit, and there is nothing left that could be dropped
//   pids.limit     a process could not be made because of the limit
//   host.oom       processes outside of containers were killed, and not for a limit of their cgroup
//
// v1 does not tell of hits: each container is looked at once a second, at a cost of a few small files.
//
// Threads: all functions are called by the owner, one thread; between construction and destruction a thread of this
// object's own, with every signal blocked, does the work, so that an alert does not wait for anything else that the
// owner does. The sinks are called on that thread. The owner never waits for it, except in the destructor, which waits
// for a look to end.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "agent/backends/lxc/LimitKills.h"
#include "agent/backends/lxc/LogSink.h"
#include "agent/backends/lxc/OrderThread.h"
#include "agent/backends/lxc/ResourceWatchContainer.h"
#include "agent/backends/lxc/ResourceWatchHost.h"
#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {

/// Takes what is to be told, on the watch's thread.
using SignalSink = std::function<void(AlertSignal)>;

/// What a watch needs to know.
struct ResourceWatchSettings {
    Eid host;  ///< whom alerts of the host are about
    ResourceTimes times{};
    std::string vmstat = "/proc/vmstat";  ///< where the kernel counts for the whole host (proc(5))
    ResourceFolder memoryRoot{};          ///< see memoryRootOf()
};

/// Watches from its construction to its destruction.
class ResourceWatch {
public:
    /// @brief Starts the thread.
    /// @throws std::runtime_error when the system has not what it needs
    ResourceWatch(ResourceWatchSettings settings, SignalSink sink, LogSink log);

    /// @brief Stops and joins the thread. What is raised stays raised.
    ~ResourceWatch();

    ResourceWatch(const ResourceWatch&) = delete;
    ResourceWatch& operator=(const ResourceWatch&) = delete;

    /// @brief Begins to watch a container that runs. What has happened before is no alert.
    /// @param eid whom alerts are about; one that is watched already is watched anew
    /// @param folders see resourceFoldersOf()
    void track(const Eid& eid, ResourceFolders folders);

    /// @brief The container has stopped. What is raised is cleared in its time.
    void untrack(const Eid& eid);

private:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// A container that runs, or that something is raised about.
    struct Entry {
        Entry(const Eid& eid, const ResourceTimes& times) : container(eid, times) {}

        WatchedContainer container;
        std::uint64_t id = 0;  ///< of this run: the eventfd's tag in the poll set
        bool running = false;
        OwnedDescriptor oomEvent;    ///< v1
        std::set<int> watches;       ///< v2
        bool toldOfChanges = false;  ///< the kernel tells of all that there is to be seen
        bool oomPending = false;     ///< it has told that it is going to kill, and no kill has been seen since
        bool wantsKills = false;     ///< the next look is for kills
        unsigned recheck = 0;
        TimePoint lastRegular;
        TimePoint endedAt;
        TimePoint due;
    };
    using Entries = std::map<Eid, Entry>;

    void begin(const Eid& eid, ResourceFolders folders);
    void end(const Eid& eid);
    void watchEvents(const Eid& eid, Entry& entry);
    void complain(const Entry& entry, int error);
    void watchOom(const Eid& eid, Entry& entry);
    bool watchFile(const Eid& eid, Entry& entry, const std::string& path);
    void forgetEvents(Entry& entry);
    void lookAtDue();
    void look(Entries::iterator place, WatchedContainer::Look what);
    void planNext(Entries::iterator place, WatchedContainer::Look what, TimePoint now);
    void setDue(Entries::iterator place, TimePoint due);
    void hasten(Entries::iterator place, TimePoint due);
    void lookAtHost(TimePoint now);
    void explainByTheDead(TimePoint now);
    void explainByLimits();
    void lookForKillsEverywhere(TimePoint now);
    void wait();
    void oomNoticed(std::uint64_t tag);
    void noteOomNotice(Entry& entry);
    void filesNoticed();
    std::set<Eid> ownersOfNotices();
    void tell(std::vector<AlertSignal> signals);

    const ResourceWatchSettings settings_;
    const SignalSink sink_;
    const LogSink log_;
    OwnedDescriptor poll_;
    OwnedDescriptor inotify_;  ///< none where the system has none left

    // The thread's own.
    Entries entries_;
    std::set<std::pair<TimePoint, Eid>> due_;
    std::map<std::uint64_t, Eid> byTag_;  ///< whose eventfd a tag of the poll set is
    std::map<int, Eid> byWatch_;
    std::uint64_t lastId_;
    HostKills hostKills_;
    LimitKills limitKills_;
    std::uint64_t explainedKills_ = 0;  ///< known so far to be of containers, or for other cgroups' limits
    TimePoint hostDue_;
    std::string problem_;  ///< last complaint, to make it once a change

    OrderThread orders_;  ///< ends before the rest does
};

}  // namespace kx::agent::lxc
