// Looking at one container, and when to look again.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/inotify.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "agent/backends/lxc/CommandSocket.h"
#include "agent/backends/lxc/ContainerProbe.h"
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

/// A monitor that works answers within a millisecond; one that sets a container up within 20.
constexpr milliseconds kAnswerLimit{100};

/// Between looks at one that does not; the end of its silence is seen at once.
constexpr milliseconds kNoAnswerDelay{400};

/// Many notices come with one start; they are one look.
constexpr milliseconds kBetweenLooks{3};

/// Unanswered looks in a row before it is worth a log line.
constexpr unsigned kUnansweredTriesLogged = 10;

}  // namespace

void LxcWatcher::ensureRecord(const std::string& name, Clock::duration delay) {
    // LXC passes over hidden folders too.
    if (name.empty() || name.front() == '.' || records_.count(name) != 0) {
        return;
    }
    ContainerRecord& record = records_[name];
    record.name = name;
    record.eid = Eid::fromName(settings_.machineId, "lxc/" + name);
    rechecks_.add(name, kNeedConfig | kNeedNotes, Clock::now() + delay);
}

void LxcWatcher::dropRecord(const std::string& name) {
    const auto record = records_.find(name);
    if (record == records_.end()) {
        return;
    }
    setDefined(record->second, false);
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
    if ((needs & kNeedFiles) != 0) {
        readFolder(record, needs & kNeedFiles);
    }
    if ((needs & (kNeedOs | kNeedOsCheck)) != 0) {
        readRoot(record, needs & (kNeedOs | kNeedOsCheck));
    }
    if (record.defined && (needs & kNeedLook) != 0) {
        look(record);
    }
    // A look that LXC does not answer says nothing of the freezer, and one notice must not swallow the other.
    if ((needs & kNeedFreezer) != 0) {
        lookAtFreezer(record);
    }
    if (record.defined) {
        refresh(record);
    }
}

/// Connects to the container's monitor; it is asked once it has shown that it answers, so that nobody waits for one
/// that does not. A connection that is not taken up is kept: its end tells that the monitor answers again, or has gone.
void LxcWatcher::look(ContainerRecord& record) {
    record.lastLook = Clock::now();
    if (record.monitor && record.lastLook < record.monitorDue) {
        rechecks_.add(record.name, kNeedLook, record.monitorDue);
        return;
    }
    if (record.monitor) {
        takeNoAnswer(record);
        return;
    }
    MonitorConnection connection = connectToMonitor(commandSocketName(settings_.path, record.name));
    if (connection.isFull) {
        takeNoAnswer(record);
    } else if (isTrusted(record, connection)) {
        waitForMonitor(record, std::move(connection.socket));
    } else {
        takeState(record, {});
    }
}

/// Any local user may take the name of a stopped container's socket, and say that it runs.
bool LxcWatcher::isTrusted(ContainerRecord& record, const MonitorConnection& connection) {
    const bool trusted = connection.owner == 0 || connection.owner == record.owner;
    logOnChange(
        record.monitorProblem, Severity::Warning,
        trusted ? ""
                : fmt::format("container {}: its command socket belongs to a process of uid {}, which is neither root "
                              "nor the owner of its folder; it is taken for stopped",
                              wire::printable(record.name), connection.owner));
    return trusted && connection.socket;
}

void LxcWatcher::waitForMonitor(ContainerRecord& record, OwnedDescriptor connection) {
    record.monitor = std::move(connection);
    record.monitorId = ++lastLifeId_;
    record.monitorDue = Clock::now() + kAnswerLimit;
    nameOfMonitor_[record.monitorId] = record.name;
    addToPoll(record.monitor.get(), record.monitorId);
    rechecks_.add(record.name, kNeedLook, record.monitorDue);
}

void LxcWatcher::monitorAnswers(std::uint64_t id) {
    const auto name = nameOfMonitor_.find(id);
    const auto place = name != nameOfMonitor_.end() ? records_.find(name->second) : records_.end();
    if (place == records_.end()) {
        return;
    }
    ContainerRecord& record = place->second;
    forgetMonitor(record);
    const auto answer = askMonitor(settings_.path, record.name, breaker_);
    // Between the connection and the question somebody else may have taken the name.
    const bool same = !answer || !isAlive(answer->lxcState) ||
                      isTrusted(record, connectToMonitor(commandSocketName(settings_.path, record.name)));
    if (answer) {
        takeState(record, same ? *answer : MonitorAnswer());
    } else {
        takeNoAnswer(record);
    }
    if (record.defined) {
        refresh(record);
    }
}

void LxcWatcher::forgetMonitor(ContainerRecord& record) {
    nameOfMonitor_.erase(record.monitorId);
    record.monitor.reset();
}

void LxcWatcher::setDefined(ContainerRecord& record, bool defined) {
    if (record.defined == defined) {
        return;
    }
    record.defined = defined;
    changed_ = veIdsStale_ = true;
    if (defined) {
        rechecks_.add(record.name, kNeedLook, Clock::now());
    } else {
        forgetMonitor(record);
        forgetLife(record);
    }
}

void LxcWatcher::takeNoAnswer(ContainerRecord& record) {
    if (++record.unansweredTries == kUnansweredTriesLogged) {
        log_(Severity::Warning,
             fmt::format("container {}: its monitor is there but does not answer", wire::printable(record.name)));
    }
    record.answered = true;
    scheduleNext(record, false);
    if (record.life.watched()) {
        return;
    }
    // A monitor answers only when its start hooks are through. One that is met for the first time with the
    // container's cgroup in place may as well be hanging.
    const bool mayHang = record.status.state != State::Stopped && hasPayloadCgroup(record.name);
    record.status = mayHang ? Status{} : Status{State::Stopped, Transition::Starting};
}

void LxcWatcher::takeState(ContainerRecord& record, const MonitorAnswer& answer) {
    record.answered = true;
    record.unansweredTries = 0;
    record.status = statusOf(answer.lxcState);
    if (!isAlive(answer.lxcState)) {
        forgetLife(record);
    } else if (watchLife(record, answer.initPid)) {
        lookAtFreezer(record);
    } else {
        record.status = {State::Running, Transition::Stopping};
    }
    scheduleNext(record, true);
}

/// @return false when the init process has ended, though LXC has not noticed it yet
bool LxcWatcher::watchLife(ContainerRecord& record, pid_t initPid) {
    if (initPid == record.life.initPid && record.life.watched()) {
        return true;
    }
    forgetLife(record);
    OwnedDescriptor pidfd = openPidfd(initPid);
    // LXC may call it running for a moment longer than it does.
    if (!pidfd || hasEnded(pidfd.get())) {
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
    watchFreezer(record);
    // It may have been upgraded, and it may be within reach only now.
    record.lacksOs = true;
    readRoot(record, kNeedOs);
    return true;
}

/// Which cgroup is the container's depends on its config, which may be read after the container was found to run.
void LxcWatcher::watchFreezer(ContainerRecord& record) {
    ContainerLife& life = record.life;
    if (!life.watched()) {
        return;
    }
    for (int& watch : life.freezerWatches) {
        inotify_.remove(std::exchange(watch, -1));
    }
    life.freezer = cgroups_.freezerOf(life.initPid, record.cgroupFolder);
    if (!life.freezer) {
        return;
    }
    watchCgroupFolder(life.freezer->parent);
    const bool v1 = !life.freezer->state.empty();
    const auto watch = [&](const std::string& file) {
        return inotify_.add(Inotify::Kind::Freezer, record.name, file, IN_MODIFY);
    };
    life.freezerWatches[0] = watch(v1 ? life.freezer->state : life.freezer->events);
    life.freezerWatches[1] = v1 ? -1 : watch(life.freezer->freeze);
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

void LxcWatcher::scheduleNext(ContainerRecord& record, bool answered) {
    if (record.life.watched()) {
        record.settling = false;
        return;
    }
    const bool underWay = !answered || record.status.transition != Transition::None;
    std::optional<milliseconds> delay;
    if (!answered) {
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
    if (!record.answered) {
        return;
    }
    if (isHeld(record)) {
        rechecks_.add(record.name, kNeedNothing, record.heldUntil);
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
