#include "agent/counters/CounterService.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "wire/Protocol.h"

namespace kx::agent {
namespace {

/// A request that a client makes up may name this much and no more.
constexpr int kMaxClasses = 64;
constexpr std::size_t kMaxEids = 65536;

template <typename Request>
std::string scopeOf(const Request& request, CounterScope& scope) {
    if (request.classes_size() == 0) {
        return "no counter class is named";
    }
    if (request.classes_size() > kMaxClasses) {
        return fmt::format("more than {} counter classes are named", kMaxClasses);
    }
    if (static_cast<std::size_t>(request.eids_size()) > kMaxEids) {
        return fmt::format("more than {} identifiers are named", kMaxEids);
    }
    scope.classes.insert(request.classes().begin(), request.classes().end());
    for (const std::string& bytes : request.eids()) {
        const auto eid = Eid::fromWire(bytes);
        if (!eid) {
            return fmt::format("an identifier has {} bytes, this one has {}", wire::kEidBytes, bytes.size());
        }
        scope.eids.push_back(*eid);
    }
    std::sort(scope.eids.begin(), scope.eids.end());
    return {};
}

std::uint64_t wallMs() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

CounterScope everything(const CounterImage& image) {
    CounterScope scope;
    for (const CounterTable& table : image.tables) {
        scope.classes.insert(table.className);
    }
    return scope;
}

}  // namespace

std::size_t CounterService::Client::eids() const {
    std::size_t count = 0;
    for (const auto& [number, monitor] : monitors) {
        count += monitor.scope.eids.size();
    }
    for (const auto* list : {&questions, &asked}) {
        for (const Question& question : *list) {
            count += question.scope.eids.size();
        }
    }
    return count;
}

CounterService::CounterService(boost::asio::io_context& io, CounterReader reader, double periodScale)
    : reader_(std::move(reader)), periodScale_(periodScale), timer_(io) {}

std::string CounterService::start(ClientId client, const Send& send, std::uint64_t number,
                                  const wire::MonitorStart& request) {
    Monitor monitor;
    std::string why = scopeOf(request, monitor.scope);
    if (why.empty() && (request.period_seconds() == 0 || request.period_seconds() > kMaxPeriodSeconds)) {
        why = fmt::format("a period is 1 to {} seconds, not {}", kMaxPeriodSeconds, request.period_seconds());
    }
    if (why.empty() && clients_[client].monitors.size() >= kMaxMonitors) {
        why = fmt::format("there are {} monitors on this connection already", kMaxMonitors);
    }
    if (why.empty() && clients_[client].eids() + monitor.scope.eids.size() > kMaxEids) {
        why = fmt::format("all monitors and questions of this connection name more than {} identifiers", kMaxEids);
    }
    if (!why.empty()) {
        return why;
    }
    monitor.periodSeconds = request.period_seconds();
    monitor.due = dueAfter(Clock::now(), monitor.periodSeconds);
    clients_[client].send = send;
    clients_[client].monitors[number] = std::move(monitor);
    setTimer();
    return {};
}

void CounterService::stop(ClientId client, std::uint64_t monitor) {
    const auto known = clients_.find(client);
    if (known != clients_.end()) {
        known->second.monitors.erase(monitor);
        setTimer();
    }
}

std::string CounterService::query(ClientId client, const Send& send, std::uint64_t number,
                                  const wire::CounterQuery& request) {
    Question question{number, {}};
    std::string why = scopeOf(request, question.scope);
    if (why.empty() && clients_[client].open() >= kMaxQuestions) {
        why = fmt::format("{} questions on this connection are not answered yet", kMaxQuestions);
    }
    if (why.empty() && clients_[client].eids() + question.scope.eids.size() > kMaxEids) {
        why = fmt::format("all monitors and questions of this connection name more than {} identifiers", kMaxEids);
    }
    if (!why.empty()) {
        return why;
    }
    clients_[client].send = send;
    clients_[client].questions.push_back(std::move(question));
    // What a reading under way has seen may be older than the question.
    if (reading_) {
        readAgain_ = true;
    } else {
        read();
    }
    return {};
}

void CounterService::setPeriodScale(double periodScale) {
    periodScale_ = periodScale;
    for (auto& [id, client] : clients_) {
        for (auto& [number, monitor] : client.monitors) {
            monitor.due = dueAfter(Clock::now(), monitor.periodSeconds);
        }
    }
    setTimer();
}

std::size_t CounterService::monitors() const {
    std::size_t count = 0;
    for (const auto& [id, client] : clients_) {
        count += client.monitors.size();
    }
    return count;
}

/// On a grid, so that all monitors of one period are due together.
CounterService::Clock::time_point CounterService::dueAfter(Clock::time_point now, std::uint32_t periodSeconds) const {
    const auto period = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(static_cast<double>(periodSeconds) * periodScale_));
    const auto step = std::max(period, Clock::duration(std::chrono::milliseconds(1)));
    return start_ + step * ((now - start_) / step + 1);
}

void CounterService::setTimer() {
    std::optional<Clock::time_point> earliest;
    for (const auto& [id, client] : clients_) {
        for (const auto& [number, monitor] : client.monitors) {
            earliest = std::min(earliest.value_or(monitor.due), monitor.due);
        }
    }
    timer_.cancel();
    // A reading that is under way sets the timer when it has come.
    if (!earliest || reading_) {
        return;
    }
    timer_.expires_at(*earliest);
    timer_.async_wait([this, alive = std::weak_ptr(alive_)](const boost::system::error_code& cancelled) {
        if (!cancelled && !alive.expired()) {
            timerFired();
        }
    });
}

void CounterService::timerFired() {
    // A wait that had ended before the timer was set anew is not told so by its error.
    if (!reading_ && timer_.expiry() <= Clock::now()) {
        read();
    }
}

void CounterService::read() {
    reading_ = true;
    readAgain_ = false;
    for (auto& [id, client] : clients_) {
        client.asked.insert(client.asked.end(), client.questions.begin(), client.questions.end());
        client.questions.clear();
    }
    const std::uint64_t number = ++readings_;
    reader_([this, number, alive = std::weak_ptr(alive_)](const CounterImage& image) {
        if (!alive.expired() && reading_ && number == readings_) {
            take(image);
        }
    });
}

void CounterService::readAnew() {
    if (reading_) {
        read();
    }
}

void CounterService::take(const CounterImage& image) {
    const std::uint64_t timeMs = wallMs();
    for (auto& [id, client] : clients_) {
        tell(client, image, timeMs);
    }
    remember(image);
    reading_ = false;
    if (readAgain_) {
        read();
    } else {
        setTimer();
    }
}

void CounterService::tell(Client& client, const CounterImage& image, std::uint64_t timeMs) {
    const auto report = [&](const CounterScope& scope, std::uint64_t monitor, std::uint64_t question) {
        for (const FrameBody& body : makeReport(image, scope, kinds_, before_, client.told, monitor, timeMs)) {
            client.send(question, body);
        }
    };
    for (const Question& question : std::exchange(client.asked, {})) {
        report(question.scope, 0, question.number);
    }
    const auto now = Clock::now();
    for (auto& [number, monitor] : client.monitors) {
        if (monitor.due <= now) {
            report(monitor.scope, number, 0);
            monitor.due = dueAfter(now, monitor.periodSeconds);
        }
    }
}

void CounterService::remember(const CounterImage& image) {
    for (const CounterTable& table : image.tables) {
        for (const CounterRow& row : table.rows) {
            before_.put(table.className, table.names, row, image.taken);
        }
    }
    before_.endTurn(everything(image));
}

}  // namespace kx::agent
