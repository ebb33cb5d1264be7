// The worker of the LXC backend: watches the containers of one LXC path and tells when something has changed.
//
// How a change is noticed:
//   created, renamed, deleted, config or kx.toml edited   inotify on LXC's path and on each container's folder
//   files         read on helper threads (DetachedCalls): a file system that does not answer costs its container only
//   started       inotify where cgroups of containers appear; then short rechecks, for LXC reports "running" some
//                 5-20 ms later. A start that waits in its first hook has no cgroup yet, and a configuration may put
//                 the cgroups elsewhere: a look at the kernel's list of sockets, twice a second, finds those
//   stopped       a pidfd on the container's init process, then short rechecks until LXC is through
//   frozen        inotify on the files of its freezer, then short rechecks while it is on the way
//   addresses     netlink inside each running container (AddressWatch)
//   anything else, and whatever a full queue of notices lost      a full comparison every 5 s
//
// A container that is found running is published together with its addresses: the worker does not wait for them, it
// holds back what is new of that container until they have been read, or a moment has passed (LxcWatcherAddresses.cpp).
//
// Threads: the constructor and the destructor belong to the main thread. Between them one worker thread owns all
// the state; the functions handed in are called on it.
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "agent/backends/lxc/AddressWatch.h"
#include "agent/backends/lxc/CgroupTree.h"
#include "agent/backends/lxc/CommandSocket.h"
#include "agent/backends/lxc/ContainerFiles.h"
#include "agent/backends/lxc/ContainerProbe.h"
#include "agent/backends/lxc/ContainerRecord.h"
#include "agent/backends/lxc/CounterThread.h"
#include "agent/backends/lxc/Inotify.h"
#include "agent/backends/lxc/LogSink.h"
#include "agent/backends/lxc/LxcBackend.h"
#include "agent/backends/lxc/RecheckList.h"
#include "agent/backends/lxc/StuckCallBreaker.h"
#include "agent/backends/lxc/VeIdStore.h"
#include "agent/base/DetachedCalls.h"
#include "agent/base/Worker.h"
#include "agent/inventory/HostImage.h"

namespace kx::agent::lxc {

/// Takes all containers, in the order of their names, whenever one has changed. Called on the worker thread.
using ContainersSink = std::function<void(std::vector<Environment>)>;

/// Takes those that run, whenever one has started or ended, or is known by another number. Called on the worker thread.
using RunningSink = std::function<void(std::vector<CounterTarget>)>;

/// Watches from its construction to its destruction.
class LxcWatcher {
public:
    /// @brief Starts the worker; the first list follows soon, also when there is no container.
    /// @param settings see LxcSettings
    /// @param sink gets the containers
    /// @param running gets those that run
    /// @param log gets log lines, on the worker and in the constructor
    /// @throws std::runtime_error when neither LXC's path nor its parent folder can be watched
    LxcWatcher(LxcSettings settings, ContainersSink sink, RunningSink running, LogSink log);

    /// @brief Stops and joins the worker; it waits for no container's files or monitor, but may wait for a file system
    /// that holds LXC's path itself.
    ~LxcWatcher();

    /// @return how long ago everything was compared; any thread
    Freshness freshness() const;

    LxcWatcher(const LxcWatcher&) = delete;
    LxcWatcher& operator=(const LxcWatcher&) = delete;

private:
    // The loop: LxcWatcher.cpp
    void run();
    void runOnce();
    void handleEvents();
    void addToPoll(int descriptor, std::uint64_t tag);
    void notice(const Inotify::Notice& notice);
    void pathNotice(const Inotify::Notice& notice);
    void folderNotice(const Inotify::Notice& notice);
    void lifeEnded(std::uint64_t id);
    void publish();
    void publishContainers();
    void publishRunning();
    void assignVeIds();

    // Comparing everything: LxcWatcherResync.cpp
    bool watchPath();
    void watchCgroups();
    void watchCgroupFolder(const std::string& folder);
    void compareAll();
    void listFolders();
    void compare(ContainerRecord& record, const std::set<std::string, std::less<>>& sockets);
    void askForStarts();

    // One container: LxcWatcherLook.cpp
    void ensureRecord(const std::string& name, Clock::duration delay);
    void dropRecord(const std::string& name);
    void stir(ContainerRecord& record);
    void attend(ContainerRecord& record, unsigned needs);
    void look(ContainerRecord& record);
    bool isTrusted(ContainerRecord& record, const MonitorConnection& connection);
    void waitForMonitor(ContainerRecord& record, OwnedDescriptor connection);
    void monitorAnswers(std::uint64_t id);
    void forgetMonitor(ContainerRecord& record);
    void setDefined(ContainerRecord& record, bool defined);
    void takeState(ContainerRecord& record, const MonitorAnswer& answer);
    void takeNoAnswer(ContainerRecord& record);
    bool watchLife(ContainerRecord& record, pid_t initPid);
    void watchFreezer(ContainerRecord& record);
    void forgetLife(ContainerRecord& record);
    void lookAtFreezer(ContainerRecord& record);
    void scheduleNext(ContainerRecord& record, bool answered);
    void refresh(ContainerRecord& record);
    bool hasPayloadCgroup(const std::string& name) const;
    void logOnChange(std::string& last, Severity severity, const std::string& line);

    // Files of a container: LxcWatcherFiles.cpp
    void readFolder(ContainerRecord& record, unsigned needs);
    void takeFolder(const std::string& name, const FolderFiles& files);
    void watchFolder(ContainerRecord& record);
    void takeConfig(ContainerRecord& record, const ConfigText& read);
    void takeValues(ContainerRecord& record, const ContainerConfig& config);
    void complainOfConfig(ContainerRecord& record, const std::string& fault);
    void readRoot(ContainerRecord& record, unsigned needs);
    void takeOs(const std::string& name, const std::optional<OsReleaseFile>& found);
    void complainOfFiles(ContainerRecord& record);
    bool isBeingRead(const ContainerRecord& record) const;

    // Addresses of running containers: LxcWatcherAddresses.cpp
    void watchAddresses(ContainerRecord& record);
    void compareAddresses();
    void takeAddressReports();
    void takeAddresses(ContainerRecord& record, AddressReport report);
    void complainOfAddresses(ContainerRecord& record, const AddressReport& report);
    bool isHeld(const ContainerRecord& record) const;
    bool isAnyUnknown() const;

    /// How long what is new of a container is held back for its addresses and its os-release. Reading them takes well
    /// under a millisecond; where the kernel or a disk is held up, the container appears with its configured addresses
    /// and gets its own later.
    static constexpr std::chrono::milliseconds kHold{100};

    const LxcSettings settings_;
    const ContainersSink sink_;
    const RunningSink running_;
    const LogSink log_;
    VeIdStore veIds_;
    StuckCallBreaker breaker_;
    AddressWatch addressWatch_;
    DetachedCalls files_{"files"};
    Inotify inotify_;
    OwnedDescriptor poll_;
    OwnedDescriptor stopEvent_;

    std::map<std::string, ContainerRecord> records_;
    std::map<std::uint64_t, std::string> nameOfLife_;     ///< whose init process a pidfd in the poll set is
    std::map<std::uint64_t, std::string> nameOfMonitor_;  ///< whose monitor a connection in the poll set waits for
    std::uint64_t lastLifeId_;                            ///< last number given to either
    RecheckList rechecks_;
    CgroupTree cgroups_;
    std::map<std::string, int> cgroupWatches_;
    int pathWatch_ = -1;
    int parentWatch_ = -1;
    FileStamp pathStamp_;

    const Clock::time_point begunAt_;
    Clock::time_point compareAllAt_;
    Clock::time_point askForStartsAt_;
    std::atomic<Clock::rep> comparedAt_{0};  ///< when the last comparison ended; 0: none has
    std::atomic<std::uint32_t> silent_{0};   ///< containers that did not answer then
    unsigned comparisons_ = 0;
    bool changed_ = true;        ///< something is to be published; the first list always is
    bool begun_ = false;         ///< the first list has been published
    bool livesChanged_ = false;  ///< containers have started or ended since those that run were told
    bool veIdsStale_ = false;    ///< the set of containers has changed since ids were assigned

    std::string pathProblem_;  ///< these hold the last line logged of a kind, to log changes only
    std::string watchProblem_;
    std::string descriptorProblem_;

    std::atomic<bool> ending_{false};
    Worker thread_;
};

}  // namespace kx::agent::lxc
