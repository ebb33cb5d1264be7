// The full comparison behind the notices: finds what they cannot tell or have lost, at a cost of a few lookups a
// container.

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/inotify.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>

#include "agent/backends/lxc/CommandSocket.h"
#include "agent/backends/lxc/LxcWatcher.h"

namespace kx::agent::lxc {
namespace {

constexpr std::chrono::seconds kCompareEvery{5};

/// How soon a start is noticed that makes no cgroup where one is expected. A look costs some 10 us and more where
/// the host has thousands of sockets.
constexpr std::chrono::milliseconds kAskEvery{500};

/// Nothing tells of a new os-release; each container's is compared once in so many comparisons, once a minute.
constexpr unsigned kOsRounds = 12;

constexpr std::uint32_t kPathEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR;

/// A slash at the end of the path does not make it another folder.
std::filesystem::path withoutLastSlash(const std::string& path) {
    const std::filesystem::path plain(path);
    return plain.has_filename() ? plain : plain.parent_path();
}

}  // namespace

bool LxcWatcher::watchPath() {
    const std::filesystem::path plain = withoutLastSlash(settings_.path);
    if (!inotify_.has(parentWatch_)) {
        parentWatch_ = inotify_.add(Inotify::Kind::PathParent, "", plain.parent_path().string(), kPathEvents);
    }
    const FileStamp stamp = stampAt(AT_FDCWD, settings_.path.c_str());
    const bool same = stamp.inode == pathStamp_.inode && stamp.device == pathStamp_.device;
    pathStamp_ = stamp;
    if (inotify_.has(pathWatch_) && same) {
        return true;
    }
    // Something else may be mounted there now; what is watched would be hidden below it.
    inotify_.remove(pathWatch_);
    pathWatch_ =
        inotify_.add(Inotify::Kind::Path, settings_.path, settings_.path, kPathEvents | IN_DELETE_SELF | IN_MOVE_SELF);
    const std::string problem = pathWatch_ > 0 ? "" : std::strerror(errno);
    logOnChange(pathProblem_, Severity::Warning,
                problem.empty() ? "" : fmt::format("{} cannot be watched yet: {}", settings_.path, problem));
    return pathWatch_ > 0 || inotify_.has(parentWatch_);
}

void LxcWatcher::watchCgroups() {
    cgroups_ = CgroupTree::read();
    for (const std::string& folder : cgroups_.containerParents()) {
        watchCgroupFolder(folder);
    }
}

void LxcWatcher::watchCgroupFolder(const std::string& folder) {
    const auto known = cgroupWatches_.find(folder);
    if (known != cgroupWatches_.end() && inotify_.has(known->second)) {
        return;
    }
    cgroupWatches_[folder] =
        inotify_.add(Inotify::Kind::Cgroup, folder, folder, IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_ONLYDIR);
}

void LxcWatcher::compareAll() {
    compareAllAt_ = Clock::now() + kCompareEvery;
    ++comparisons_;
    watchPath();
    watchCgroups();
    listFolders();
    const auto sockets = presentCommandSockets();
    std::uint32_t silent = 0;
    for (auto& [name, record] : records_) {
        compare(record, sockets);
        silent += record.unansweredTries > 0 || !record.filesProblem.empty() ? 1 : 0;
    }
    compareAddresses();
    silent_ = silent;
    comparedAt_ = Clock::now().time_since_epoch().count();
    veIdsStale_ = veIdsStale_ || veIds_.hasUnsaved();
}

Freshness LxcWatcher::freshness() const {
    const Clock::rep at = comparedAt_;
    const Clock::duration age =
        at == 0 ? Clock::now() - begunAt_ : Clock::now().time_since_epoch() - Clock::duration(at);
    return {std::chrono::duration_cast<std::chrono::milliseconds>(age), silent_};
}

void LxcWatcher::listFolders() {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(settings_.path.c_str()), ::closedir);
    std::set<std::string> present;
    while (const dirent* entry = folder ? ::readdir(folder.get()) : nullptr) {
        present.insert(entry->d_name);
    }
    std::vector<std::string> gone;
    for (const auto& [name, record] : records_) {
        if (present.count(name) == 0) {
            gone.push_back(name);
        }
    }
    for (const std::string& name : gone) {
        dropRecord(name);
    }
    for (const std::string& name : present) {
        ensureRecord(name, Clock::duration(0));
    }
}

void LxcWatcher::compare(ContainerRecord& record, const std::set<std::string, std::less<>>& sockets) {
    unsigned needs = kNeedFileCheck;
    complainOfFiles(record);
    if (!record.configFault.empty() && Clock::now() >= record.retryAt) {
        needs |= kNeedConfig;
    }
    const bool mayRun = sockets.count(commandSocketName(settings_.path, record.name)) != 0;
    if (record.defined && mayRun != record.life.watched()) {
        needs |= kNeedLook;
    }
    if (record.life.watched()) {
        needs |= kNeedFreezer;
    }
    const bool turn = std::hash<std::string>()(record.name) % kOsRounds == comparisons_ % kOsRounds;
    if (record.defined && turn) {
        needs |= kNeedOsCheck;
    }
    rechecks_.add(record.name, needs, Clock::now());
}

/// The monitor's socket is there before the container's first hook runs and before there is a cgroup.
void LxcWatcher::askForStarts() {
    askForStartsAt_ = Clock::now() + kAskEvery;
    const auto sockets = presentCommandSockets();
    if (sockets.empty()) {
        return;
    }
    for (const auto& [name, record] : records_) {
        // The end of a monitor's silence is seen without asking.
        const bool resting =
            record.defined && !record.life.watched() && !record.settling && record.unansweredTries == 0;
        if (resting && sockets.count(commandSocketName(settings_.path, name)) != 0) {
            rechecks_.add(name, kNeedLook, Clock::now());
        }
    }
}

}  // namespace kx::agent::lxc
