// The loop-thread half of a session: requests and their answers, and its event connections.
#include <algorithm>

#include "client/src/session/Session.h"
#include "client/src/values/Limits.h"

namespace kx::client {

// ---- questions and answers --------------------------------------------------------------------------------------

std::uint64_t Session::ask(wire::Frame request, Answered answered) {
    const std::uint64_t number = ++lastRequest_;
    request.set_request_id(number);
    questions_[number] = std::move(answered);
    connection_->send(request);
    if (questions_.size() == kMaxQuestions + 1) {
        // Not in here: who asks goes on with a link that is up.
        loop_->post([self = shared_from_this(), connection = connection_] {
            if (self->connection_ == connection) {
                self->protocolError(std::to_string(kMaxQuestions) + " requests without an answer");
            }
        });
    }
    return number;
}

bool Session::handleAnswer(const wire::Frame& frame) {
    const std::uint64_t number = frame.request_id();
    if (questions_.find(number) == questions_.end()) {
        return false;
    }
    if (!frame.has_counter_sample()) {
        answer(number, frame);
        return true;
    }
    // Only these are large enough to come in several frames. Their number is no monitor's: those are requests too.
    wire::Frame whole = frame;
    switch (samples_.take(number, *whole.mutable_counter_sample())) {
        case SampleAssembler::Outcome::Complete:
            answer(number, whole);
            break;
        case SampleAssembler::Outcome::Pending:
            break;
        case SampleAssembler::Outcome::TooLarge:
            logTooLarge();
            whole.mutable_refusal();
            answer(number, whole);
            break;
        case SampleAssembler::Outcome::Endless:
            protocolError("an answer with counters in too many frames");
            break;
    }
    return true;
}

void Session::answer(std::uint64_t number, const wire::Frame& frame) {
    const auto question = questions_.find(number);
    const Answered answered = std::move(question->second);
    questions_.erase(question);
    answered(number, &frame);
}

void Session::dropQuestions() {
    samples_.clear();
    for (const auto& [number, answered] : std::exchange(questions_, {})) {
        answered(number, nullptr);
    }
}

// ---- event connections ------------------------------------------------------------------------------------------

void Session::beginEventLink(const std::shared_ptr<EventLink>& link, const std::optional<KXLConnectivityInfo>& info) {
    std::erase_if(eventLinks_, [](const auto& known) { return known.expired(); });
    if (phase_ != Phase::Up) {
        link->fail();
        tellEventFailure(link);
        return;
    }
    eventLinks_.push_back(link);
    const auto pause = std::chrono::duration_cast<std::chrono::milliseconds>(nextEventLink_ - Clock::now());
    link->connect(info ? *info : info_.connectivity, std::max(pause, pause.zero()));
}

// Whoever subscribes again does so at once, and at first again and again: connections that fail one after the other are
// damped here. One that fails after a while is replaced without a pause.
void Session::noteEventFailure() {
    const auto now = Clock::now();
    if (now - nextEventLink_ > loop_->timeouts().stable) {
        eventBackoff_.reset();
        nextEventLink_ = now;
    } else {
        nextEventLink_ = now + eventBackoff_.next();
    }
}

// An agent that goes away closes all its connections, in no particular order as seen from here. Whoever relies on both
// must hear of the link's loss first. A sign of life on the link shows that only the event connection was lost.
void Session::eventLinkFailed(const std::shared_ptr<EventLink>& link) {
    noteEventFailure();
    if (phase_ != Phase::Up) {
        tellEventFailure(link);
        return;
    }
    wire::Frame frame;
    frame.mutable_ping();
    ask(frame, [this, link](std::uint64_t, const wire::Frame* alive) {
        if (alive != nullptr) {
            tellEventFailure(link);
        }
    });
}

void Session::tellEventFailure(const std::shared_ptr<EventLink>& link) {
    deliver([link] { link->tellFailure(); });
}

std::vector<std::shared_ptr<EventLink>> Session::takeEventLinks() {
    std::vector<std::shared_ptr<EventLink>> links;
    for (const auto& weak : std::exchange(eventLinks_, {})) {
        if (auto link = weak.lock()) {
            links.push_back(std::move(link));
        }
    }
    return links;
}

}  // namespace kx::client
