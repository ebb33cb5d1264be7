// Looking at one container, and when to look again.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/inotify.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "agent/backends/lxc/Descriptors.h"
#include "agent/backends/lxc/LxcWatcher.h"
#include "wire/Protocol.h"

namespace kx::agent::lxc {
namespace {

using std::chrono::milliseconds;

/// Rechecks after a sign of a change: a start takes 5-20 ms, a kill some 60 ms, a busy host more.
constexpr milliseconds kSettleDelays[] = {milliseconds(5),  milliseconds(10),  milliseconds(20),  milliseconds(40),
                                          milliseconds(80), milliseconds(160), milliseconds(320), milliseconds(640)};
constexpr unsigned kSettleSteps = std::size(kSettleDelays);

/// While a transition lasts longer than that: hooks, a shutdown that takes its time.
constexpr milliseconds kTransitionDelay{250};

/// Where the last look cost the whole time limit. Leaves most of the time to the other containers; much longer, and
/// the end of a long start would be seen late, for nothing tells of it. A cgroup that appears cuts it short.
constexpr milliseconds kNoAnswerDelay{400};

/// Many notices come with one start; they are one look.
constexpr milliseconds kBetweenLooks{3};

/// Unanswered looks in a row before it is worth a log line.
constexpr unsigned kUnansweredTriesLogged = 10;

constexpr std::uint32_t kContainerEvents =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ONLYDIR;

}  // namespace

void LxcWatcher::ensureRecord(const std::string& name, Clock::duration delay) {
    // LXC passes over hidden folders too.
    if (name.empty() || name.front() == '.' || records_.count(name) != 0) {
        return;
    }
    const int watch = watchFolder(name);
    if (watch < 0 && (errno == ENOENT || errno == ENOTDIR)) {
        return;
    }
    if (watch < 0) {
        logOnChange(watchProblem_, Severity::Warning,
                    fmt::format("not every container can be watched: {} (see fs.inotify.max_user_watches); changes of "
                                "the others are noticed every few seconds only",
                                std::strerror(errno)));
    }
    ContainerRecord& record = records_[name];
    record.name = name;
    record.folderWatch = watch;
    record.eid = Eid::fromName(settings_.machineId, "lxc/" + name);
    rechecks_.add(name, kNeedAll, Clock::now() + delay);
}

int LxcWatcher::watchFolder(const std::string& name) {
    const std::string folder = fmt::format("{}/{}", settings_.path, name);
    return inotify_.add(Inotify::Kind::Container, name, folder, kContainerEvents);
}

void LxcWatcher::dropRecord(const std::string& name) {
    const auto record = records_.find(name);
    if (record == records_.end()) {
        return;
    }
    setDefined(record->second, false);
    forgetLife(record->second);
    inotify_.remove(record->second.folderWatch);
    rechecks_.remove(name);
    records_.erase(record);
}

void LxcWatcher::stir(ContainerRecord& record) {
    record.settling = true;
    record.settleStep = 0;
    rechecks_.add(record.name, kNeedLook, std::max(Clock::now(), record.lastLook + kBetweenLooks));
}

void LxcWatcher::attend(ContainerRecord& record, unsigned needs) {
    if ((needs & kNeedLook) != 0) {
        look(record);
    }
    // A look that LXC does not answer says nothing of the freezer, and one notice must not swallow the other.
    if ((needs & kNeedFreezer) != 0) {
        lookAtFreezer(record);
    }
    if ((needs & kNeedNotes) != 0) {
        readNotes(record, settings_.path, log_);
    }
    if ((needs & kNeedOs) != 0) {
        readOs(record);
    }
    if (record.defined) {
        refresh(record);
    }
}

void LxcWatcher::look(ContainerRecord& record) {
    const FileStamp stamp = stampAt(AT_FDCWD, fmt::format("{}/{}/config", settings_.path, record.name).c_str());
    const bool fresh = stamp != record.configStamp;
    // liblxc complains on standard error each time it opens a configuration that it cannot read.
    if (record.malformed && !fresh) {
        if (!record.life.watched()) {
            record.status = {};
        }
        return;
    }
    const ContainerProbe probe = probeContainer(settings_.path, record.name, breaker_);
    record.lastLook = Clock::now();
    if (probe.result != ProbeResult::Busy) {
        record.configStamp = stamp;
    }
    switch (probe.result) {
        case ProbeResult::Gone:
            setDefined(record, false);
            forgetLife(record);
            break;
        case ProbeResult::Malformed:
            takeMalformed(record, fresh);
            break;
        case ProbeResult::Busy:
            break;
        case ProbeResult::NoAnswer:
            takeConfiguration(record, probe);
            takeNoAnswer(record);
            break;
        case ProbeResult::Done:
            takeConfiguration(record, probe);
            takeState(record, probe);
            break;
    }
    scheduleNext(record, probe.result);
}

void LxcWatcher::setDefined(ContainerRecord& record, bool defined) {
    if (record.defined == defined) {
        return;
    }
    record.defined = defined;
    changed_ = veIdsStale_ = true;
}

void LxcWatcher::takeConfiguration(ContainerRecord& record, const ContainerProbe& probe) {
    if (record.malformed) {
        log_(Severity::Info, fmt::format("container {}: its config can be read again", wire::printable(record.name)));
    }
    record.malformed = false;
    record.hostname = probe.hostname;
    record.rootfs = probe.rootfs;
    record.configured = probe.addresses;
    logOnChange(record.configProblem, Severity::Warning,
                probe.networksLeftOut == 0
                    ? ""
                    : fmt::format("container {}: {} of its networks have a number above {} in their keys; their "
                                  "addresses are not published while it is stopped",
                                  wire::printable(record.name), probe.networksLeftOut, kMaxNetworks - 1));
    setDefined(record, true);
}

void LxcWatcher::takeMalformed(ContainerRecord& record, bool fresh) {
    if (!record.malformed || fresh) {
        log_(Severity::Error,
             fmt::format("container {}: liblxc cannot read {}/{}/config; its state is unknown until that is mended",
                         wire::printable(record.name), settings_.path, wire::printable(record.name)));
    }
    record.malformed = true;
    if (!record.life.watched()) {
        record.status = {};
    }
    setDefined(record, true);
}

void LxcWatcher::takeNoAnswer(ContainerRecord& record) {
    if (++record.unansweredTries == kUnansweredTriesLogged) {
        log_(Severity::Warning,
             fmt::format("container {}: its monitor is there but does not answer", wire::printable(record.name)));
    }
    if (record.life.watched()) {
        return;
    }
    // A monitor answers only when its start hooks are through. One that is met for the first time with the
    // container's cgroup in place may as well be hanging.
    const bool mayHang = record.status.state != State::Stopped && hasPayloadCgroup(record.name);
    record.status = mayHang ? Status{} : Status{State::Stopped, Transition::Starting};
}

void LxcWatcher::takeState(ContainerRecord& record, const ContainerProbe& probe) {
    record.unansweredTries = 0;
    record.status = statusOf(probe.lxcState);
    if (!isAlive(probe.lxcState)) {
        forgetLife(record);
        if (record.status.transition == Transition::None) {
            record.endedPid = -1;
        }
        return;
    }
    if (watchLife(record, probe.initPid)) {
        lookAtFreezer(record);
    } else {
        record.status = {State::Running, Transition::Stopping};
    }
}

/// @return false when the init process has ended, though LXC has not noticed it yet
bool LxcWatcher::watchLife(ContainerRecord& record, pid_t initPid) {
    if (initPid == record.life.initPid && record.life.watched()) {
        return true;
    }
    forgetLife(record);
    if (initPid <= 0 || initPid == record.endedPid) {
        return false;
    }
    OwnedDescriptor pidfd = openPidfd(initPid);
    if (!pidfd) {
        return false;
    }
    ContainerLife& life = record.life;
    life.initPid = initPid;
    life.id = ++lastLifeId_;
    life.pidfd = std::make_shared<const OwnedDescriptor>(std::move(pidfd));
    addToPoll(life.pidfd->get(), life.id);
    nameOfLife_[life.id] = record.name;
    livesChanged_ = true;
    watchAddresses(record);
    life.freezer = cgroups_.freezerOf(initPid);
    if (life.freezer) {
        watchCgroupFolder(life.freezer->parent);
        const bool v1 = !life.freezer->state.empty();
        const auto watch = [&](const std::string& file) {
            return inotify_.add(Inotify::Kind::Freezer, record.name, file, IN_MODIFY);
        };
        life.freezerWatches[0] = watch(v1 ? life.freezer->state : life.freezer->events);
        life.freezerWatches[1] = v1 ? -1 : watch(life.freezer->freeze);
    }
    // It may have been upgraded, and it may be within reach only now.
    readOs(record);
    return true;
}

void LxcWatcher::forgetLife(ContainerRecord& record) {
    for (const int watch : record.life.freezerWatches) {
        inotify_.remove(watch);
    }
    if (record.life.watched()) {
        livesChanged_ = true;
        // The address watch may hold it for a moment longer, so it does not leave the poll set by being closed.
        ::epoll_ctl(poll_.get(), EPOLL_CTL_DEL, record.life.pidfd->get(), nullptr);
        addressWatch_.forget(record.life.id);
    }
    nameOfLife_.erase(record.life.id);
    record.life = ContainerLife{};
}

void LxcWatcher::lookAtFreezer(ContainerRecord& record) {
    if (!record.life.watched() || !record.life.freezer) {
        return;
    }
    record.status = statusOf(readFreezer(*record.life.freezer), record.status);
    if (record.status.transition != Transition::None) {
        const auto delay = kSettleDelays[std::min(record.settleStep++, kSettleSteps - 1)];
        rechecks_.add(record.name, kNeedFreezer, Clock::now() + std::min(delay, kTransitionDelay));
    } else {
        record.settleStep = 0;
    }
}

void LxcWatcher::scheduleNext(ContainerRecord& record, ProbeResult result) {
    if (result == ProbeResult::Gone || result == ProbeResult::Malformed || record.life.watched()) {
        record.settling = false;
        return;
    }
    const bool underWay = record.status.transition != Transition::None || result != ProbeResult::Done;
    std::optional<milliseconds> delay;
    if (result == ProbeResult::NoAnswer) {
        delay = kNoAnswerDelay;
    } else if ((record.settling || underWay) && record.settleStep < kSettleSteps) {
        delay = kSettleDelays[record.settleStep++];
    } else if (underWay) {
        delay = kTransitionDelay;
    }
    if (delay) {
        rechecks_.add(record.name, kNeedLook, Clock::now() + *delay);
    } else {
        record.settling = false;
    }
}

void LxcWatcher::refresh(ContainerRecord& record) {
    if (isHeld(record)) {
        rechecks_.add(record.name, kNeedNothing, record.life.heldUntil);
        return;
    }
    Environment fresh = environmentOf(record);
    if (fresh == record.published) {
        return;
    }
    record.published = std::move(fresh);
    changed_ = true;
}

bool LxcWatcher::hasPayloadCgroup(const std::string& name) const {
    const auto& parents = cgroups_.containerParents();
    return std::any_of(parents.begin(), parents.end(), [&](const std::string& parent) {
        return stampAt(AT_FDCWD, fmt::format("{}/lxc.payload.{}", parent, name).c_str()).size >= 0;
    });
}

}  // namespace kx::agent::lxc
