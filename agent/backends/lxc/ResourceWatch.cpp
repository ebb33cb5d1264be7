#include "agent/backends/lxc/ResourceWatch.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <stdexcept>

#include "agent/backends/lxc/Descriptors.h"

namespace kx::agent::lxc {
namespace {

using std::chrono::milliseconds;
using Look = WatchedContainer::Look;

/// Containers looked at before notices are attended to again: a kill must be told within some milliseconds.
constexpr int kLooksPerTurn = 32;

/// Regular looks are taken together, so that the thread does not wake up for each.
constexpr milliseconds kGrid{100};

/// After a notice of v1 the count grows within a moment: the process is chosen and killed right then. Each look is
/// twice as late as the one before.
constexpr milliseconds kFirstRecheck{1};
constexpr unsigned kRechecks = 10;

constexpr std::uint64_t kOrdersTag = 0;
constexpr std::uint64_t kInotifyTag = 1;
constexpr std::uint64_t kFirstTag = 16;

bool addToPoll(int poll, int descriptor, std::uint64_t tag) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = tag;
    return ::epoll_ctl(poll, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

std::chrono::steady_clock::time_point onGrid(std::chrono::steady_clock::time_point time) {
    return std::chrono::steady_clock::time_point((time.time_since_epoch() + kGrid - std::chrono::nanoseconds(1)) /
                                                 kGrid * kGrid);
}

}  // namespace

ResourceWatch::ResourceWatch(ResourceWatchSettings settings, SignalSink sink, LogSink log)
    : settings_(std::move(settings)),
      sink_(std::move(sink)),
      log_(std::move(log)),
      poll_(descriptorOrThrow(::epoll_create1(EPOLL_CLOEXEC), "epoll")),
      inotify_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)),
      lastId_(kFirstTag),
      hostKills_(settings_.times.quietAfterKill),
      limitKills_(settings_.memoryRoot),
      orders_("resources") {
    const bool added = addToPoll(poll_.get(), orders_.descriptor(), kOrdersTag) &&
                       (!inotify_ || addToPoll(poll_.get(), inotify_.get(), kInotifyTag));
    if (!added) {
        throw std::runtime_error(fmt::format("epoll: {}", std::strerror(errno)));
    }
    // Before any container's count is read: a kill in between would be taken for one outside of them.
    lookAtHost(std::chrono::steady_clock::now());
    orders_.start([this] {
        lookAtDue();
        wait();
    });
}

ResourceWatch::~ResourceWatch() = default;

void ResourceWatch::track(const Eid& eid, ResourceFolders folders) {
    orders_.post([this, eid, folders = std::move(folders)] { begin(eid, folders); });
}

void ResourceWatch::untrack(const Eid& eid) {
    orders_.post([this, eid] { end(eid); });
}

void ResourceWatch::begin(const Eid& eid, ResourceFolders folders) {
    end(eid);
    if (folders == ResourceFolders()) {
        return;
    }
    const auto place = entries_.try_emplace(eid, eid, settings_.times).first;
    Entry& entry = place->second;
    entry.id = ++lastId_;
    entry.container.begin(std::move(folders));
    entry.running = true;
    entry.oomPending = false;
    entry.lastRegular = std::chrono::steady_clock::now();
    watchEvents(eid, entry);
    // What has happened before it was told of changes, and after the counts were read, is found now.
    look(place, Look::Kills);
}

/// The cgroup is often still there: what has happened in it last is looked at once more.
void ResourceWatch::end(const Eid& eid) {
    const auto place = entries_.find(eid);
    if (place == entries_.end() || !place->second.running) {
        return;
    }
    noteOomNotice(place->second);  // told since the last wait
    look(place, Look::Kills);
    Entry& entry = place->second;
    forgetEvents(entry);
    entry.container.end();
    entry.running = false;
    entry.endedAt = std::chrono::steady_clock::now();
    setDue(place, onGrid(entry.endedAt + settings_.times.look));
}

void ResourceWatch::watchEvents(const Eid& eid, Entry& entry) {
    const auto& [memory, pids] = entry.container.folders();
    if (!memory.path.empty() && !memory.v2) {
        watchOom(eid, entry);
    }
    const bool memoryIsTold =
        memory.path.empty() || (memory.v2 && watchFile(eid, entry, memory.path + "/memory.events"));
    const bool pidsAreTold = pids.path.empty() || (pids.v2 && watchFile(eid, entry, pids.path + "/pids.events"));
    entry.toldOfChanges = memoryIsTold && pidsAreTold;
}

/// Without it kills are found by the regular looks.
void ResourceWatch::watchOom(const Eid& eid, Entry& entry) {
    const std::string& folder = entry.container.folders().memory.path;
    OwnedDescriptor event(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    const OwnedDescriptor subject(::open((folder + "/memory.oom_control").c_str(), O_RDONLY | O_CLOEXEC));
    const OwnedDescriptor control(::open((folder + "/cgroup.event_control").c_str(), O_WRONLY | O_CLOEXEC));
    const std::string words = fmt::format("{} {}", event.get(), subject.get());
    if (!event || !subject || !control ||
        ::write(control.get(), words.data(), words.size()) != static_cast<ssize_t>(words.size()) ||
        !addToPoll(poll_.get(), event.get(), entry.id)) {
        complain(entry, errno);
        return;
    }
    byTag_[entry.id] = eid;
    entry.oomEvent = std::move(event);
    entry.container.setKillsAreTold();
}

bool ResourceWatch::watchFile(const Eid& eid, Entry& entry, const std::string& path) {
    const int watch = ::inotify_add_watch(inotify_.get(), path.c_str(), IN_MODIFY);
    if (watch < 0) {
        complain(entry, errno);
        return false;
    }
    byWatch_[watch] = eid;
    entry.watches.insert(watch);
    return true;
}

void ResourceWatch::complain(const Entry& entry, int error) {
    // A container that has stopped meanwhile is none to complain of.
    if (!entry.container.tellsOfKills()) {
        return;
    }
    std::string problem = fmt::format(
        "the kernel cannot be asked to tell at once when every container is short of memory or processes: {}; some "
        "are looked at every {} ms",
        std::strerror(error), settings_.times.look.count());
    if (problem != problem_) {
        log_(Severity::Warning, problem);
    }
    problem_ = std::move(problem);
}

void ResourceWatch::forgetEvents(Entry& entry) {
    byTag_.erase(entry.id);
    entry.oomEvent.reset();
    for (const int watch : entry.watches) {
        if (byWatch_.erase(watch) != 0) {
            ::inotify_rm_watch(inotify_.get(), watch);
        }
    }
    entry.watches.clear();
}

void ResourceWatch::lookAtDue() {
    const TimePoint now = std::chrono::steady_clock::now();
    if (now >= hostDue_) {
        lookAtHost(now);
    }
    for (int looks = 0; looks < kLooksPerTurn && !due_.empty() && due_.begin()->first <= now; ++looks) {
        const auto place = entries_.find(due_.begin()->second);
        look(place, place->second.wantsKills ? Look::Kills : Look::Regular);
    }
}

void ResourceWatch::look(Entries::iterator place, Look what) {
    Entry& entry = place->second;
    const TimePoint now = std::chrono::steady_clock::now();
    tell(entry.container.look(what, now));
    const std::uint64_t kills = entry.container.takeNewKills();
    explainedKills_ += kills;
    if (kills > 0) {
        entry.oomPending = false;
    }
    planNext(place, what, now);
}

void ResourceWatch::planNext(Entries::iterator place, Look what, TimePoint now) {
    Entry& entry = place->second;
    const ResourceTimes& times = settings_.times;
    const bool waits = !entry.running && entry.oomPending && now - entry.endedAt < 3 * times.look;
    if (!entry.running && !waits && !entry.container.isUnderWay()) {
        due_.erase({entry.due, place->first});
        entries_.erase(place);
        return;
    }
    if (what == Look::Regular) {
        entry.lastRegular = now;
    }
    // A process that is not dead by now was not killed.
    entry.oomPending = entry.oomPending && (entry.recheck < kRechecks || !entry.running);
    const bool calm = entry.toldOfChanges && !entry.container.isUnderWay();
    const TimePoint regular = onGrid(entry.lastRegular + (calm ? times.calmLook : times.look));
    entry.wantsKills = entry.running && entry.oomPending;
    if (entry.wantsKills) {
        setDue(place, now + kFirstRecheck * (1U << entry.recheck++));
    } else {
        setDue(place, std::max(regular, now));
    }
}

void ResourceWatch::setDue(Entries::iterator place, TimePoint due) {
    due_.erase({place->second.due, place->first});
    place->second.due = due;
    due_.insert({due, place->first});
}

void ResourceWatch::hasten(Entries::iterator place, TimePoint due) {
    if (due < place->second.due) {
        setDue(place, due);
    }
}

void ResourceWatch::lookAtHost(TimePoint now) {
    hostDue_ = onGrid(now + settings_.times.look);
    const auto memory = readHostMemory(settings_.vmstat);
    if (!memory) {
        return;
    }
    const AlarmTurn turn = hostKills_.look(*memory, explainedKills_, now);
    if (turn != AlarmTurn::None) {
        const std::int32_t code = turn == AlarmTurn::Clear ? kAlertClear : kAlertCritical;
        sink_(resourceSignal(settings_.host, kHostOomSource, code, hostKills_.total()));
    }
    if (hostKills_.unexplained() > 0) {
        explainByTheDead(now);
        explainByLimits();
        lookForKillsEverywhere(now);
    }
}

/// A container that was about to lose a process and ended before that could be seen has most likely ended by it.
void ResourceWatch::explainByTheDead(TimePoint now) {
    for (auto& [eid, entry] : entries_) {
        if (!entry.running && entry.oomPending) {
            entry.oomPending = false;
            explainedKills_ += hostKills_.unexplained();
            tell(entry.container.takeKills(hostKills_.unexplained(), now));
            return;
        }
    }
}

void ResourceWatch::explainByLimits() {
    std::set<std::string> containers;
    for (const auto& [eid, entry] : entries_) {
        containers.insert(entry.container.folders().memory.path);
    }
    explainedKills_ += limitKills_.takeNew(containers);
}

/// Kills in cgroups of a container's own making, and those for the whole host's sake, are not told of under v1.
void ResourceWatch::lookForKillsEverywhere(TimePoint now) {
    for (auto place = entries_.begin(); place != entries_.end(); ++place) {
        if (place->second.running) {
            place->second.wantsKills = true;
            hasten(place, now);
        }
    }
}

void ResourceWatch::wait() {
    TimePoint until = hostDue_;
    if (!due_.empty()) {
        until = std::min(until, due_.begin()->first);
    }
    const auto left = std::chrono::ceil<milliseconds>(until - std::chrono::steady_clock::now());
    std::array<epoll_event, 64> events{};
    const int timeoutMs = static_cast<int>(std::max<std::int64_t>(left.count(), 0));
    const int count = waitForEvents(poll_.get(), events, timeoutMs);
    for (int i = 0; i < count; ++i) {
        const std::uint64_t tag = events[static_cast<std::size_t>(i)].data.u64;
        if (tag >= kFirstTag) {
            oomNoticed(tag);
        }
        if (tag == kInotifyTag) {
            filesNoticed();
        }
    }
}

void ResourceWatch::oomNoticed(std::uint64_t tag) {
    const auto eid = byTag_.find(tag);
    if (eid == byTag_.end()) {
        return;
    }
    const auto place = entries_.find(eid->second);
    noteOomNotice(place->second);
    look(place, Look::Kills);
}

void ResourceWatch::noteOomNotice(Entry& entry) {
    eventfd_t ignored = 0;
    if (!entry.oomEvent || ::eventfd_read(entry.oomEvent.get(), &ignored) != 0) {
        return;
    }
    // It is the cgroup's removal that is told where there is nothing left to be read.
    entry.oomPending = entry.oomPending || entry.container.tellsOfKills();
    entry.recheck = 0;
}

void ResourceWatch::filesNoticed() {
    for (const Eid& eid : ownersOfNotices()) {
        const auto place = entries_.find(eid);
        look(place, Look::Kills);
        hasten(place, std::max(std::chrono::steady_clock::now(), place->second.lastRegular + settings_.times.look));
    }
}

std::set<Eid> ResourceWatch::ownersOfNotices() {
    alignas(inotify_event) std::array<char, std::size_t{16} * 1024> buffer{};
    std::set<Eid> owners;
    ssize_t count = 0;
    while ((count = ::read(inotify_.get(), buffer.data(), buffer.size())) > 0) {
        for (const char* place = buffer.data(); place < buffer.data() + count;) {
            const auto* event = reinterpret_cast<const inotify_event*>(place);
            place += sizeof(inotify_event) + event->len;
            const auto owner = byWatch_.find(event->wd);
            if ((event->mask & IN_Q_OVERFLOW) != 0) {
                // Whose notices were lost is not known.
                std::transform(byWatch_.begin(), byWatch_.end(), std::inserter(owners, owners.end()),
                               [](const auto& entry) { return entry.second; });
            } else if (owner != byWatch_.end()) {
                owners.insert(owner->second);
            }
            if ((event->mask & IN_IGNORED) != 0) {
                byWatch_.erase(event->wd);
            }
        }
    }
    return owners;
}

void ResourceWatch::tell(std::vector<AlertSignal> signals) {
    for (AlertSignal& signal : signals) {
        sink_(std::move(signal));
    }
}

}  // namespace kx::agent::lxc
