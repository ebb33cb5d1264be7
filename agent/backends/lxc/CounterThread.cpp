#include "agent/backends/lxc/CounterThread.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <utility>

#include "agent/backends/lxc/Descriptors.h"
#include "agent/backends/lxc/RootFile.h"
#include "agent/vocabulary/Vocabulary.h"

namespace kx::agent::lxc {
namespace {

/// The list of some thousand interfaces.
constexpr std::size_t kMaxNetDevBytes = std::size_t{1024} * 1024;

CounterNames namesOf(std::vector<std::string> names) {
    return std::make_shared<const std::vector<std::string>>(std::move(names));
}

/// For all quotas to be read; those of a file system that does not answer are not waited for so long.
constexpr std::chrono::milliseconds kQuotaLimit{1000};

/// The kernel wraps its counters around at 64 bits; so does whoever adds them up.
std::int64_t signedValue(std::uint64_t value) {
    return static_cast<std::int64_t>(value);
}

/// @param socket of the namespace that the interface is in
/// @return 0 when there is no such interface any more
int indexOf(int socket, const std::string& interface) {
    ifreq request{};
    if (interface.size() >= sizeof request.ifr_name) {
        return 0;
    }
    std::memcpy(request.ifr_name, interface.data(), interface.size());
    return ::ioctl(socket, SIOCGIFINDEX, &request) == 0 ? request.ifr_ifindex : 0;
}

}  // namespace

CounterThread::CounterThread(LogSink log)
    : log_(std::move(log)),
      networkNames_(namesOf(networkCounterNames())),
      quotaNames_(namesOf(quotaCounterNames())),
      targets_(std::make_shared<const std::vector<CounterTarget>>()),
      thread_("counters") {
    thread_.start([this] { run(); });
}

CounterThread::~CounterThread() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    changed_.notify_one();
    thread_.join();
}

void CounterThread::setTargets(std::vector<CounterTarget> targets) {
    auto fresh = std::make_shared<const std::vector<CounterTarget>>(std::move(targets));
    const std::lock_guard lock(mutex_);
    targets_ = std::move(fresh);
}

void CounterThread::read(CounterSink sink) {
    {
        const std::lock_guard lock(mutex_);
        sinks_.push_back(std::move(sink));
    }
    changed_.notify_one();
}

void CounterThread::run() {
    std::unique_lock lock(mutex_);
    while (true) {
        {
            const Worker::Pause pause;
            changed_.wait(lock, [this] { return ending_ || !sinks_.empty(); });
        }
        if (ending_) {
            return;
        }
        const std::vector<CounterSink> sinks = std::exchange(sinks_, {});
        const Targets targets = targets_;
        lock.unlock();
        answer(*targets, sinks);
        lock.lock();
    }
}

void CounterThread::answer(const std::vector<CounterTarget>& targets, const std::vector<CounterSink>& sinks) {
    if (const auto image = readAll(targets)) {
        for (const CounterSink& sink : sinks) {
            sink(*image);
        }
    }
}

/// @return nothing: this object is ending
std::optional<CounterImage> CounterThread::readAll(const std::vector<CounterTarget>& targets) {
    CounterTable network{kNetworkClass, networkNames_, {}};
    CounterTable quota{kQuotaClass, quotaNames_, {}};
    std::vector<const CounterTarget*> running;
    startQuotas(targets);
    for (const CounterTarget& target : targets) {
        if (isEnding()) {
            return std::nullopt;
        }
        auto rows = networkRows(target);
        // What was found under the number was another process's if init has ended meanwhile. One that has ended reports
        // nothing.
        if (hasEnded(target.pidfd->get())) {
            continue;
        }
        // A container that runs is in every class: clients drop one that a report lacks.
        if (rows.empty()) {
            rows.push_back({target.eid, "", std::vector<std::int64_t>(networkNames_->size(), 0)});
        }
        std::move(rows.begin(), rows.end(), std::back_inserter(network.rows));
        running.push_back(&target);
    }
    quotas_.finishAll(kQuotaLimit);
    for (const CounterTarget* target : running) {
        quota.rows.push_back(quotaRow(*target));
    }
    CounterImage image{std::chrono::steady_clock::now(), {}};
    image.tables.push_back(std::move(network));
    image.tables.push_back(std::move(quota));
    return image;
}

bool CounterThread::isEnding() {
    const std::lock_guard lock(mutex_);
    return ending_;
}

std::vector<CounterRow> CounterThread::networkRows(const CounterTarget& target) {
    const OwnedDescriptor space = openNetworkSpace(target.initPid);
    OwnedDescriptor socket;
    if (space) {
        traveller_.inside(space.get(),
                          [&] { socket = OwnedDescriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)); });
    }
    std::vector<CounterRow> rows;
    const FileText list =
        readFile(AT_FDCWD, fmt::format("/proc/{}/net/dev", target.initPid).c_str(), Bounds::Host, kMaxNetDevBytes);
    if (!socket || !list.text) {
        return rows;
    }
    for (const InterfaceCounters& interface : parseNetDev(*list.text)) {
        if (const int index = indexOf(socket.get(), interface.name)) {
            rows.push_back({target.eid,
                            std::to_string(index),
                            {signedValue(interface.bytesIn), signedValue(interface.packetsIn),
                             signedValue(interface.bytesOut), signedValue(interface.packetsOut)}});
        }
    }
    return rows;
}

/// One whose file system does not answer keeps its last reading.
void CounterThread::startQuotas(const std::vector<CounterTarget>& targets) {
    auto known = std::exchange(readings_, {});
    for (const CounterTarget& target : targets) {
        const auto before = known.find(target.eid);
        readings_[target.eid] = before != known.end() ? before->second : QuotaReading{{}, ENOENT};
        quotas_.start(
            target.eid.toWire(),
            [this, eid = target.eid, folder = target.rootFolder, veid = target.veid]() -> DetachedCalls::Finish {
                return [this, eid, reading = readDiskQuota(folder, veid)] { readings_[eid] = reading; };
            });
    }
}

CounterRow CounterThread::quotaRow(const CounterTarget& target) {
    const QuotaReading& reading = readings_[target.eid];
    complainOfQuota(reading.error);
    const DiskQuota& quota = reading.quota;
    return {target.eid,
            "",
            {quota.spaceUsed, quota.spaceSoftLimit, quota.spaceHardLimit, quota.spaceGrace, quota.inodesUsed,
             quota.inodesSoftLimit, quota.inodesHardLimit, quota.inodesGrace}};
}

void CounterThread::complainOfQuota(int error) {
    // A root folder that is out of reach says nothing of the kernel. Where quotas are not turned on, they are for none
    // of thousands of containers, so that is said once.
    if (error == 0 || error == ENOENT || quotaIsMissed_) {
        return;
    }
    quotaIsMissed_ = true;
    log_(Severity::Info, fmt::format("there are no project quotas where containers are kept ({}): their limits are "
                                     "published as 0",
                                     error == ESRCH ? "they are not turned on" : std::strerror(error)));
}

}  // namespace kx::agent::lxc
