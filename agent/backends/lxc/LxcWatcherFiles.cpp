// A container's files: read on threads of DetachedCalls, for any of them may be on a file system that does not answer.

#include <fmt/format.h>
#include <sys/inotify.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "agent/backends/lxc/ContainerProbe.h"
#include "agent/backends/lxc/LxcWatcher.h"
#include "wire/Protocol.h"

namespace kx::agent::lxc {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

/// While another program holds a container's lock.
constexpr milliseconds kBusyDelay{250};

/// A configuration that is not taken is read again even if it looks unchanged, each time twice as late.
constexpr seconds kFirstRetry{5};
constexpr seconds kLongestRetry{300};

/// A call that takes longer is worth a log line.
constexpr seconds kHangs{1};

constexpr std::uint32_t kContainerEvents =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ONLYDIR;

/// Keys of calls: a folder's own files, and those below its root, which most often is another file system's.
std::string rootKey(const std::string& name) {
    return name + "/rootfs";
}

}  // namespace

void LxcWatcher::readFolder(ContainerRecord& record, unsigned needs) {
    FolderQuery query{settings_.path, record.name,      (needs & kNeedConfig) != 0, (needs & kNeedNotes) != 0,
                      record.config,  record.notesStamp};
    const bool started = files_.start(record.name, [this, query = std::move(query)]() -> DetachedCalls::Finish {
        auto files = std::make_shared<FolderFiles>(readContainerFolder(query));
        return [this, name = query.name, files] { takeFolder(name, *files); };
    });
    record.filesNeeded = started ? 0 : record.filesNeeded | needs;
    // The first list does not wait for one that takes longer.
    rechecks_.add(record.name, kNeedNothing, Clock::now() + DetachedCalls::kPatience);
}

void LxcWatcher::takeFolder(const std::string& name, const FolderFiles& files) {
    const auto place = records_.find(name);
    if (place == records_.end()) {
        return;
    }
    ContainerRecord& record = place->second;
    if (const unsigned needs = std::exchange(record.filesNeeded, 0)) {
        rechecks_.add(name, needs, Clock::now());
    } else if (!files.isFolder) {
        dropRecord(name);
        return;
    }
    record.filesKnown = true;
    record.owner = files.owner;
    watchFolder(record);
    if (!files.hasConfig) {
        record.config.reset();
        setDefined(record, false);
    } else if (files.isBusy) {
        rechecks_.add(name, kNeedConfig | kNeedNotes, Clock::now() + kBusyDelay);
    }
    if (files.notes) {
        takeNotes(record, settings_.path, *files.notes, log_);
    }
    if (files.config) {
        takeConfig(record, *files.config);
    }
    if (record.defined) {
        refresh(record);
    }
}

void LxcWatcher::watchFolder(ContainerRecord& record) {
    if (inotify_.has(record.folderWatch)) {
        return;
    }
    const std::string folder = fmt::format("{}/{}", settings_.path, record.name);
    record.folderWatch = inotify_.add(Inotify::Kind::Container, record.name, folder, kContainerEvents);
    if (record.folderWatch >= 0) {
        // What was written before it was watched.
        rechecks_.add(record.name, kNeedFileCheck, Clock::now());
    } else if (errno != ENOENT && errno != ENOTDIR) {
        logOnChange(watchProblem_, Severity::Warning,
                    fmt::format("not every container can be watched: {} (see fs.inotify.max_user_watches); changes of "
                                "the others are noticed every few seconds only",
                                std::strerror(errno)));
    }
}

void LxcWatcher::takeConfig(ContainerRecord& record, const ConfigText& read) {
    record.config = std::make_shared<const ConfigParts>(read.parts);
    std::string fault = read.problem;
    if (fault.empty()) {
        const auto config = parseConfig(record.name, read.text);
        if (config) {
            takeValues(record, *config);
        } else {
            fault = fmt::format("liblxc cannot read {}/{}/config", settings_.path, wire::printable(record.name));
        }
    }
    complainOfConfig(record, fault);
    setDefined(record, true);
}

void LxcWatcher::takeValues(ContainerRecord& record, const ContainerConfig& config) {
    record.hostname = config.hostname;
    record.configured = config.addresses;
    logOnChange(record.configProblem, Severity::Warning,
                config.networksLeftOut == 0
                    ? ""
                    : fmt::format("container {}: {} of its networks have a number above {} in their keys; their "
                                  "addresses are not published while it is stopped",
                                  wire::printable(record.name), config.networksLeftOut, kMaxNetworks - 1));
    livesChanged_ = livesChanged_ || record.rootfs != config.rootfs || record.cgroupFolder != config.cgroupFolder;
    record.rootfs = config.rootfs;
    if (record.cgroupFolder != config.cgroupFolder) {
        record.cgroupFolder = config.cgroupFolder;
        watchFreezer(record);
    }
    record.lacksOs = record.lacksOs || !record.published;
    readRoot(record, kNeedOs);
}

void LxcWatcher::complainOfConfig(ContainerRecord& record, const std::string& fault) {
    const std::string name = wire::printable(record.name);
    if (fault.empty()) {
        if (!record.configFault.empty()) {
            log_(Severity::Info, fmt::format("container {}: its config can be read again", name));
        }
        record.configFault.clear();
        record.retryDelay = {};
        return;
    }
    logOnChange(
        record.configFault, Severity::Error,
        fmt::format("container {}: {}; what its config said last is published until that is fixed", name, fault));
    record.retryDelay = std::clamp<Clock::duration>(2 * record.retryDelay, kFirstRetry, kLongestRetry);
    record.retryAt = Clock::now() + record.retryDelay;
}

/// It is waited for, a moment, where nothing is known of it yet.
void LxcWatcher::readRoot(ContainerRecord& record, unsigned needs) {
    const bool anyway = (needs & kNeedOs) != 0;
    if (record.lacksOs) {
        record.heldUntil = Clock::now() + kHold;
    }
    RootQuery query{record.rootfs, record.life.initPid, record.life.pidfd,
                    anyway ? std::nullopt : std::optional(record.osStamp)};
    const bool started = files_.start(rootKey(record.name),
                                      [this, name = record.name, query = std::move(query)]() -> DetachedCalls::Finish {
                                          return [this, name, os = readContainerOs(query)] { takeOs(name, os); };
                                      });
    record.rootNeeded = started ? 0 : record.rootNeeded | needs;
}

void LxcWatcher::takeOs(const std::string& name, const std::optional<OsReleaseFile>& found) {
    const auto place = records_.find(name);
    if (place == records_.end()) {
        return;
    }
    ContainerRecord& record = place->second;
    if (found) {
        record.os = found->os;
        record.osStamp = found->stamp;
    }
    if (const unsigned needs = std::exchange(record.rootNeeded, 0)) {
        readRoot(record, needs);
        return;
    }
    record.lacksOs = false;
    if (record.defined) {
        refresh(record);
    }
}

/// Tells when a file system has stopped answering, and when it answers again.
void LxcWatcher::complainOfFiles(ContainerRecord& record) {
    const std::string name = wire::printable(record.name);
    const bool own = files_.timeOf(record.name) > kHangs;
    const bool root = files_.timeOf(rootKey(record.name)) > kHangs;
    if (!own && !root && !record.filesProblem.empty()) {
        log_(Severity::Info, fmt::format("container {}: its files can be read again", name));
    }
    logOnChange(record.filesProblem, Severity::Warning,
                own || root ? fmt::format("container {}: the file system of its {} does not answer; what was last read "
                                          "of it is published",
                                          name, own ? "folder" : "root")
                            : "");
}

/// @return whether the folder is being read, and may yet be read soon
bool LxcWatcher::isBeingRead(const ContainerRecord& record) const {
    return !record.filesKnown && files_.timeOf(record.name) < DetachedCalls::kPatience;
}

}  // namespace kx::agent::lxc
