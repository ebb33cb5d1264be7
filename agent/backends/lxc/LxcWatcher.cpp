#include "agent/backends/lxc/LxcWatcher.h"

#include <fmt/format.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "agent/backends/lxc/Descriptors.h"
#include "agent/backends/lxc/RootfsPath.h"

namespace kx::agent::lxc {
namespace {

/// A question to a monitor that has just taken up a connection.
constexpr std::chrono::milliseconds kAnswerLimit{100};

/// The first list is not waited for any longer; a host of 10,000 containers takes a second.
constexpr std::chrono::milliseconds kFirstListLimit{2500};

/// After a file was written or its folder changed: editors and tools do several things in a row.
constexpr std::chrono::milliseconds kFileQuiet{20};

/// After a file was made, when it is most likely still being written; its closing is noticed by itself.
constexpr std::chrono::milliseconds kNewFileQuiet{100};

constexpr std::uint64_t kStopTag = 1;
constexpr std::uint64_t kInotifyTag = 2;
constexpr std::uint64_t kAddressTag = 3;
constexpr std::uint64_t kFilesTag = 4;
constexpr std::uint64_t kFirstLifeId = 16;

}  // namespace

LxcWatcher::LxcWatcher(LxcSettings settings, ContainersSink sink, RunningSink running, LogSink log)
    : settings_(std::move(settings)),
      sink_(std::move(sink)),
      running_(std::move(running)),
      log_(std::move(log)),
      veIds_(settings_.stateDirectory, log_),
      breaker_(kAnswerLimit),
      poll_(descriptorOrThrow(::epoll_create1(EPOLL_CLOEXEC), "epoll")),
      stopEvent_(makeEventDescriptor()),
      lastLifeId_(kFirstLifeId),
      begunAt_(Clock::now()),
      thread_("containers") {
    if (!watchPath()) {
        throw std::runtime_error(
            fmt::format("neither {} nor the folder above it can be watched: {}", settings_.path, pathProblem_));
    }
    addToPoll(stopEvent_.get(), kStopTag);
    addToPoll(inotify_.descriptor(), kInotifyTag);
    addToPoll(addressWatch_.descriptor(), kAddressTag);
    addToPoll(files_.descriptor(), kFilesTag);
    thread_.start([this] { run(); });
}

LxcWatcher::~LxcWatcher() {
    ending_ = true;
    ::eventfd_write(stopEvent_.get(), 1);
    thread_.join();
}

void LxcWatcher::addToPoll(int descriptor, std::uint64_t tag) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = tag;
    if (::epoll_ctl(poll_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
        throw std::runtime_error(fmt::format("epoll: {}", std::strerror(errno)));
    }
}

void LxcWatcher::run() {
    while (!ending_) {
        runOnce();
        handleEvents();
    }
}

void LxcWatcher::runOnce() {
    const auto now = Clock::now();
    if (now >= compareAllAt_) {
        compareAll();
    }
    if (now >= askForStartsAt_) {
        askForStarts();
    }
    for (const auto& [name, needs] : rechecks_.takeDue(Clock::now())) {
        const auto record = records_.find(name);
        if (ending_) {
            return;
        }
        if (record != records_.end()) {
            attend(record->second, needs);
        }
    }
    publish();
}

void LxcWatcher::handleEvents() {
    const auto until = std::min({rechecks_.earliest().value_or(compareAllAt_), compareAllAt_, askForStartsAt_});
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now());
    std::array<epoll_event, 64> events{};
    const int timeoutMs = static_cast<int>(std::max<std::int64_t>(left.count(), 0));
    const int count = waitForEvents(poll_.get(), events, timeoutMs);
    for (int i = 0; i < count; ++i) {
        const std::uint64_t tag = events[static_cast<std::size_t>(i)].data.u64;
        if (tag >= kFirstLifeId) {
            lifeEnded(tag);
            monitorAnswers(tag);
        }
        if (tag == kInotifyTag && !inotify_.take([this](const Inotify::Notice& one) { notice(one); })) {
            compareAllAt_ = Clock::now();
        }
        if (tag == kAddressTag) {
            takeAddressReports();
        }
        if (tag == kFilesTag) {
            files_.finish();
        }
    }
}

void LxcWatcher::notice(const Inotify::Notice& notice) {
    const auto record = records_.find(notice.owner);
    switch (notice.kind) {
        case Inotify::Kind::Path:
            pathNotice(notice);
            break;
        case Inotify::Kind::PathParent:
            if (notice.name == std::filesystem::path(settings_.path).filename()) {
                compareAllAt_ = Clock::now();
            }
            break;
        case Inotify::Kind::Container:
            folderNotice(notice);
            break;
        case Inotify::Kind::Cgroup:
            for (const std::string& name : containersOfCgroup(notice.name)) {
                const auto owner = records_.find(name);
                // While init lives, a cgroup that comes or goes beside it is another's.
                if (owner != records_.end() && !owner->second.life.watched()) {
                    stir(owner->second);
                }
            }
            break;
        case Inotify::Kind::Freezer:
            if (record != records_.end()) {
                rechecks_.add(notice.owner, kNeedFreezer, Clock::now());
            }
            break;
    }
}

void LxcWatcher::pathNotice(const Inotify::Notice& notice) {
    if (notice.name.empty()) {
        // The path itself went away or was replaced.
        compareAllAt_ = Clock::now();
        return;
    }
    if ((notice.mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
        dropRecord(notice.name);
    }
    // A folder that is renamed comes complete; in a new one the files follow.
    ensureRecord(notice.name, (notice.mask & IN_MOVED_TO) != 0 ? Clock::duration(0) : kFileQuiet);
}

void LxcWatcher::folderNotice(const Inotify::Notice& notice) {
    const auto due = Clock::now() + ((notice.mask & IN_CREATE) != 0 ? kNewFileQuiet : kFileQuiet);
    if (notice.name == "config" || notice.name == "partial") {
        rechecks_.add(notice.owner, kNeedConfig, due);
    }
    if (notice.name == "kx.toml") {
        rechecks_.add(notice.owner, kNeedNotes, due);
    }
}

void LxcWatcher::lifeEnded(std::uint64_t id) {
    const auto name = nameOfLife_.find(id);
    const auto record = name != nameOfLife_.end() ? records_.find(name->second) : records_.end();
    if (record == records_.end()) {
        return;
    }
    forgetLife(record->second);
    stir(record->second);
}

void LxcWatcher::assignVeIds() {
    std::vector<std::string> names;
    for (const auto& [name, record] : records_) {
        if (record.defined) {
            names.push_back(name);
        }
    }
    const auto ids = veIds_.assign(names);
    veIdsStale_ = false;
    for (auto& [name, record] : records_) {
        const auto id = ids.find(name);
        record.veid = id != ids.end() ? std::optional(id->second) : std::nullopt;
        if (record.defined) {
            refresh(record);
        }
    }
}

void LxcWatcher::publish() {
    // Looks may have taken longer than containers are held; what has been found out meanwhile is to be in it.
    takeAddressReports();
    // The first list waits for every container that has not been silent yet; later ones show a held container as it
    // was.
    if (!begun_ && isAnyUnknown() && Clock::now() < begunAt_ + kFirstListLimit) {
        return;
    }
    if (veIdsStale_) {
        assignVeIds();
    }
    // What could not be published, for lack of memory, is so with the next change.
    if (changed_) {
        publishContainers();
        changed_ = false;
        livesChanged_ = true;
    }
    // After the containers: what happens to those that run is told of containers that are known.
    if (livesChanged_) {
        publishRunning();
        livesChanged_ = false;
    }
}

void LxcWatcher::publishContainers() {
    std::vector<Environment> containers;
    for (const auto& [name, record] : records_) {
        if (record.defined && record.published) {
            containers.push_back(*record.published);
        }
    }
    begun_ = true;
    sink_(std::move(containers));
}

void LxcWatcher::publishRunning() {
    std::vector<CounterTarget> running;
    for (const auto& [name, record] : records_) {
        // One that clients do not know yet would be told for nothing: what they drop is not told again.
        if (record.defined && record.published && record.life.watched() && record.veid) {
            running.push_back({record.eid, name, *record.veid, record.life.initPid, record.life.pidfd,
                               rootfsFolder(record.rootfs).value_or(""), record.cgroupFolder});
        }
    }
    running_(std::move(running));
}

void LxcWatcher::logOnChange(std::string& last, Severity severity, const std::string& line) {
    if (line != last && !line.empty()) {
        log_(severity, line);
    }
    last = line;
}

}  // namespace kx::agent::lxc
