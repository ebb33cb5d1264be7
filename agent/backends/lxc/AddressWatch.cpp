#include "agent/backends/lxc/AddressWatch.h"

#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <stdexcept>

#include "agent/backends/lxc/AddressDump.h"
#include "agent/backends/lxc/Descriptors.h"

namespace kx::agent::lxc {
namespace {

using std::chrono::milliseconds;

/// Looks in a row before orders and ended containers are attended to again.
constexpr milliseconds kPassLimit{10};

/// Before something that failed for lack of memory is tried again.
constexpr milliseconds kAfterFailure{100};

/// Tags in the poll set: two descriptors a container, and one for orders.
constexpr std::uint64_t kOrdersTag = 0;

std::uint64_t pidfdTag(std::uint64_t life) {
    return 2 * life;
}

std::uint64_t noticesTag(std::uint64_t life) {
    return 2 * life + 1;
}

AddressReport failure(std::uint64_t life, std::string problem, int error = 0) {
    AddressReport report{life, std::nullopt, std::move(problem), {}, false, false};
    if (error != 0) {
        report.problem += fmt::format(": {}", std::strerror(error));
        report.noDescriptors = error == EMFILE || error == ENFILE;
    }
    return report;
}

}  // namespace

AddressWatch::AddressWatch()
    : poll_(descriptorOrThrow(::epoll_create1(EPOLL_CLOEXEC), "epoll")),
      reportsReady_(makeEventDescriptor()),
      orders_("addresses") {
    if (!addToPoll(orders_.descriptor(), kOrdersTag, EPOLLIN)) {
        throw std::runtime_error(fmt::format("epoll: {}", std::strerror(errno)));
    }
    orders_.start([this] {
        lookAtDue();
        wait();
    });
}

AddressWatch::~AddressWatch() = default;

void AddressWatch::watch(std::uint64_t life, pid_t initPid, std::shared_ptr<const OwnedDescriptor> pidfd) {
    orders_.post([this, life, initPid, pidfd = std::move(pidfd)] { begin(life, initPid, pidfd); });
}

void AddressWatch::forget(std::uint64_t life) {
    orders_.post([this, life] { end(life); });
}

void AddressWatch::compare() {
    orders_.post([this] { compareEach(); });
}

std::vector<AddressReport> AddressWatch::takeReports() {
    eventfd_t ignored = 0;
    ::eventfd_read(reportsReady_.get(), &ignored);
    const std::lock_guard lock(mutex_);
    return std::exchange(reports_, {});
}

void AddressWatch::begin(std::uint64_t life, pid_t initPid, std::shared_ptr<const OwnedDescriptor> pidfd) {
    const auto [entry, fresh] = watched_.try_emplace(life);
    Watched& watched = entry->second;
    watched.initPid = initPid;
    watched.pidfd = std::move(pidfd);
    watched.told.life = life;
    // Without it the end would go unnoticed and the namespace would live on.
    if (!addToPoll(watched.pidfd->get(), pidfdTag(life), EPOLLIN)) {
        tell(watched, failure(life, "its end cannot be watched", errno));
        watched_.erase(entry);
        return;
    }
    setDue(life, watched, Clock::now());
}

void AddressWatch::end(std::uint64_t life) {
    const auto entry = watched_.find(life);
    if (entry == watched_.end()) {
        return;
    }
    setDue(life, entry->second, std::nullopt);
    // Others may hold this descriptor as well, so closing it here does not take it out of the set.
    ::epoll_ctl(poll_.get(), EPOLL_CTL_DEL, entry->second.pidfd->get(), nullptr);
    watched_.erase(entry);
}

void AddressWatch::compareEach() {
    const auto now = Clock::now();
    for (auto& [life, watched] : watched_) {
        if (!watched.due && networkSpaceOf(watched.initPid) != watched.space) {
            setDue(life, watched, now);
        }
    }
}

void AddressWatch::lookAtDue() {
    const auto begin = Clock::now();
    while (!orders_.isEnding() && !due_.empty() && due_.begin()->first <= begin && Clock::now() < begin + kPassLimit) {
        const std::uint64_t life = due_.begin()->second;
        Watched& watched = watched_.at(life);
        setDue(life, watched, std::nullopt);
        look(life, watched);
    }
    handOver();
}

void AddressWatch::look(std::uint64_t life, Watched& watched) {
    AddressReport report = find(life, watched, std::exchange(watched.space, {}));
    watched.pacer.looked(Clock::now());
    if (!report.addresses) {
        watched.notices.reset();
    }
    tell(watched, std::move(report));
}

/// @param before the namespace in which the socket for notices is
AddressReport AddressWatch::find(std::uint64_t life, Watched& watched, NetworkSpaceId before) {
    const OwnedDescriptor space = openNetworkSpace(watched.initPid);
    const int why = errno;
    // The number may be another process's by now; it was not if init has not ended since.
    if (hasEnded(watched.pidfd->get())) {
        return failure(life, {});
    }
    if (!space) {
        return failure(life, "its network namespace cannot be opened", why);
    }
    const NetworkSpaceId id = idOf(space.get());
    if (id != before) {
        watched.notices.reset();
    }
    if (traveller_.isHost(id)) {
        watched.space = id;
        return {life, std::vector<Address>(), {}, {}, false, false};
    }
    OwnedDescriptor question;
    if (const int error = openSockets(watched, space.get(), question)) {
        return failure(life, "its network namespace cannot be entered", error);
    }
    // What changes from here on makes the socket readable again, so nothing is missed.
    dropNotices(watched.notices.get());
    if (!addToPoll(watched.notices.get(), noticesTag(life), EPOLLIN | EPOLLONESHOT)) {
        return failure(life, "changes of its addresses cannot be watched", errno);
    }
    AddressList list = readAddresses(question.get());
    if (!list.problem.empty()) {
        return failure(life, "its addresses cannot be read: " + list.problem);
    }
    watched.space = id;
    return {life, std::move(list.addresses), {}, std::move(list.inet6Addresses), list.cut, false};
}

/// @return 0, or the error number why there are not both sockets
int AddressWatch::openSockets(Watched& watched, int space, OwnedDescriptor& question) {
    int error = 0;
    const int noEntry = traveller_.inside(space, [&] {
        if (!watched.notices) {
            watched.notices = openNoticeSocket();
        }
        question = watched.notices ? openRouteSocket() : OwnedDescriptor();
        error = question ? 0 : errno;
    });
    return noEntry != 0 ? noEntry : error;
}

/// Adds a descriptor, or arms it again.
bool AddressWatch::addToPoll(int descriptor, std::uint64_t tag, std::uint32_t events) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = tag;
    return ::epoll_ctl(poll_.get(), EPOLL_CTL_ADD, descriptor, &event) == 0 ||
           (errno == EEXIST && ::epoll_ctl(poll_.get(), EPOLL_CTL_MOD, descriptor, &event) == 0);
}

void AddressWatch::tell(Watched& watched, AddressReport report) {
    const bool ended = !report.addresses && report.problem.empty();
    if (!ended && report != watched.told) {
        watched.told = report;
        found_.push_back(std::move(report));
    }
}

void AddressWatch::handOver() {
    if (found_.empty()) {
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        std::move(found_.begin(), found_.end(), std::back_inserter(reports_));
    }
    found_.clear();
    ::eventfd_write(reportsReady_.get(), 1);
}

void AddressWatch::wait() {
    const auto now = Clock::now();
    const bool home = traveller_.comeHome();
    int timeoutMs = home ? -1 : static_cast<int>(kAfterFailure.count());
    if (!due_.empty()) {
        const auto left = std::chrono::ceil<milliseconds>(due_.begin()->first - now).count();
        const int leftMs = static_cast<int>(std::max<std::int64_t>(left, 0));
        timeoutMs = home ? leftMs : std::min(timeoutMs, leftMs);
    }
    std::array<epoll_event, 64> events{};
    const int count = waitForEvents(poll_.get(), events, timeoutMs);
    for (int i = 0; i < count; ++i) {
        noticed(events[static_cast<std::size_t>(i)].data.u64);
    }
}

void AddressWatch::noticed(std::uint64_t tag) {
    const auto entry = watched_.find(tag / 2);
    if (tag == kOrdersTag || entry == watched_.end()) {
        return;
    }
    if (tag == pidfdTag(entry->first)) {
        end(entry->first);
    } else if (!entry->second.due) {
        setDue(entry->first, entry->second, entry->second.pacer.dueAfter(Clock::now()));
    }
}

void AddressWatch::setDue(std::uint64_t life, Watched& watched, std::optional<Clock::time_point> due) {
    if (watched.due) {
        due_.erase({*watched.due, life});
    }
    watched.due = due;
    if (due) {
        due_.emplace(*due, life);
    }
}

}  // namespace kx::agent::lxc
