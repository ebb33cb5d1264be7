// The part of a session that is about performance counters: monitors and one-shot queries.
#include "client/src/session/Session.h"
#include "client/src/values/Limits.h"

namespace kx::client {

namespace {

template <typename Request>
void fillRequest(const CounterRequest& from, Request& request) {
    for (const std::string& name : from.classes) {
        request.add_classes(name);
    }
    for (const KXLEID& eid : from.eids) {
        request.add_eids(std::string(eid.bytes().begin(), eid.bytes().end()));
    }
}

}  // namespace

// ---- any thread -----------------------------------------------------------------------------------------------

int Session::startMonitor(const CounterRequest& request, int periodSeconds, const MonitorHandlerPtr& handler) {
    if (!isUp_) {
        return KXL_ERROR_DISCONNECT;
    }
    wire::Frame frame;
    fillRequest(request, *frame.mutable_monitor_start());
    frame.mutable_monitor_start()->set_period_seconds(static_cast<std::uint32_t>(periodSeconds));
    // From here on the handler may be stopped, also before the loop has begun its monitor and given it a number.
    const auto number = std::make_shared<std::uint64_t>(0);
    handler->setContext(new KXLRequestContext([weak = weak_from_this(), number] {
        if (const auto self = weak.lock()) {
            self->loop_->post([self, number] { self->stopMonitor(*number); });
        }
    }));
    const bool runs = loop_->post([self = shared_from_this(), frame = std::move(frame), classes = request.classes,
                                   handler, number] { *number = self->beginMonitor(frame, classes, handler); });
    if (!runs) {
        handler->setContext(nullptr);
        return KXL_ERROR_STOPPED;
    }
    return 0;
}

int Session::queryCounters(const CounterRequest& request, std::vector<KXLMonitorData>& output) {
    wire::Frame frame;
    fillRequest(request, *frame.mutable_counter_query());
    wire::Frame answer;
    const int code = call(std::move(frame), answer, [self = shared_from_this()](const wire::Frame& late) {
        self->takeLateSample(late.counter_sample());
    });
    if (code != 0) {
        return code;
    }
    std::string reason;
    return answer.has_counter_sample() && decodeCounters(answer.counter_sample(), output, reason)
               ? 0
               : static_cast<int>(KXL_ERROR_REFUSED);
}

// ---- loop thread ------------------------------------------------------------------------------------------------

std::uint64_t Session::beginMonitor(const wire::Frame& request, const std::set<std::string>& classes,
                                    const MonitorHandlerPtr& handler) {
    if (phase_ != Phase::Up) {
        handler->setContext(nullptr);
        deliver([handler] { handler->handleDisconnect(); });
        return 0;
    }
    const std::uint64_t number = ask(request, [this](std::uint64_t asked, const wire::Frame* answer) {
        if (answer != nullptr && answer->has_done()) {
            monitors_.started(asked);
        } else if (answer != nullptr) {
            monitors_.end(asked, KXL_ERROR_REFUSED);
        }
    });
    monitors_.add(number, handler, classes);
    return number;
}

void Session::stopMonitor(std::uint64_t number) {
    if (number != 0 && phase_ == Phase::Up) {
        wire::Frame frame;
        frame.mutable_monitor_stop()->set_monitor(number);
        connection_->send(frame);
    }
    monitors_.end(number, KXL_ERROR_CANCEL);
}

void Session::takeSample(wire::CounterSample sample) {
    const std::uint64_t number = sample.monitor();
    if (!monitors_.has(number)) {
        return;  // of one that was stopped meanwhile
    }
    switch (samples_.take(number, sample)) {
        case SampleAssembler::Outcome::Endless:
            protocolError("a report of counters in too many frames");
            return;
        case SampleAssembler::Outcome::TooLarge:
            logTooLarge();
            return;
        case SampleAssembler::Outcome::Pending:
            return;
        case SampleAssembler::Outcome::Complete:
            break;
    }
    const auto data = monitors_.storageFor(number);
    std::string reason;
    if (!decodeCounters(sample, *data, reason)) {
        protocolError(reason);
        return;
    }
    monitors_.report(number, data);
}

void Session::logTooLarge() {
    logOnChange("a report of counters that would take more than " + std::to_string(kMaxReportBytes / kMebibyte) +
                " MiB is ignored");
}

void Session::takeLateSample(const wire::CounterSample& sample) {
    std::set<std::string> classes;
    for (const wire::CounterGroup& group : sample.groups()) {
        classes.insert(group.class_name());
    }
    auto data = std::make_shared<std::vector<KXLMonitorData>>();
    std::string reason;
    if (!classes.empty() && decodeCounters(sample, *data, reason)) {
        monitors_.reportLate(classes, data);
    }
}

}  // namespace kx::client
