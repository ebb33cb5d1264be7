// The public half of a session: what runs on the threads of its callers.
#include "client/src/session/Session.h"

#include <random>

#include "client/src/values/Deliveries.h"
#include "wire/Framing.h"

namespace kx::client {
namespace {

/// What the request's number may add to it.
constexpr std::size_t kNumberBytes = 16;

}  // namespace

std::shared_ptr<Session> Session::create(std::shared_ptr<Loop> loop, boost::intrusive_ptr<KXLEnvCache> cache) {
    std::shared_ptr<Session> session(new Session(std::move(loop), std::move(cache)));
    session->loop_->attach(session);
    return session;
}

Session::Session(std::shared_ptr<Loop> loop, boost::intrusive_ptr<KXLEnvCache> cache)
    : loop_(std::move(loop)),
      cache_(std::move(cache)),
      patience_(loop_->timeouts().synchronous, loop_->timeouts().silence),
      eventBackoff_(loop_->timeouts().backoffFirst, loop_->timeouts().backoffLongest, std::random_device()()),
      timer_(loop_->context()),
      backoff_(loop_->timeouts().backoffFirst, loop_->timeouts().backoffLongest, std::random_device()()) {}

Session::~Session() = default;

int Session::initialize(const KXLConnectionInfo& info, const HandlerPtr& handler) {
    const auto attempt = std::make_shared<InitializeAttempt>();
    // On the loop thread the wait below would be for itself.
    const int code = loop_->onLoopThread() ? static_cast<int>(KXL_ERROR_STOPPED) : takeTurn(info, handler, attempt);
    if (code == 0) {
        handler->handleConnected();
        // Only now may anything of the new connection be delivered on the loop thread.
        loop_->post([self = shared_from_this(), attempt] { self->release(attempt); });
    } else {
        handler->setContext(nullptr);
        deliverFailure(*handler, code);
    }
    return code;
}

int Session::takeTurn(const KXLConnectionInfo& info, const HandlerPtr& handler,
                      const std::shared_ptr<InitializeAttempt>& attempt) {
    const Clock::time_point start = Clock::now();
    if (!initializing_.take(start + loop_->timeouts().synchronous)) {
        return KXL_ERROR_TIMEOUT;
    }
    const int code = attemptWithin(info, handler, attempt, start);
    // Given back before the handler is called, so that no lock of the handler's owner is ever waited for with it.
    initializing_.giveBack();
    return code;
}

int Session::attemptWithin(const KXLConnectionInfo& info, const HandlerPtr& handler,
                           const std::shared_ptr<InitializeAttempt>& attempt, Clock::time_point start) {
    // An earlier attempt that is complete by now is only to be taken over.
    const auto patience = isFilled_ ? loop_->timeouts().synchronous : patience_.left(start);
    if (patience == patience.zero()) {
        return KXL_ERROR_TIMEOUT;
    }
    handler->setContext(makeContext());
    if (!loop_->post([self = shared_from_this(), info, handler, attempt] { self->begin(info, handler, attempt); })) {
        return KXL_ERROR_STOPPED;
    }
    const Loop::Wait waits(*loop_);
    const int code = attempt->wait(start + patience);
    if (code == KXL_ERROR_TIMEOUT) {
        loop_->post([self = shared_from_this(), attempt] { self->giveUp(attempt); });
    }
    spendPatience(start, code);
    return code;
}

void Session::spendPatience(Clock::time_point start, int code) {
    const auto now = Clock::now();
    const auto outcome = code == KXL_ERROR_TIMEOUT ? Patience::Outcome::TimedOut
                         : code == 0               ? Patience::Outcome::Answered
                                                   : Patience::Outcome::Failed;
    patience_.spend(std::chrono::duration_cast<Patience::Span>(now - start), outcome, now);
}

boost::intrusive_ptr<KXLRequestContext> Session::makeContext() {
    return new KXLRequestContext([weak = weak_from_this()] {
        const auto self = weak.lock();
        if (self) {
            self->loop_->post([self] { self->cancelRequest(); });
        }
    });
}

int Session::call(wire::Frame request, wire::Frame& answer, std::function<void(const wire::Frame&)> late) {
    if (loop_->onLoopThread()) {
        return KXL_ERROR_STOPPED;  // it would wait for itself
    }
    if (request.ByteSizeLong() > wire::kMaxFrameBytes - kNumberBytes) {
        return KXL_ERROR_REFUSED;  // no agent would take it
    }
    const auto start = Clock::now();
    const auto patience = patience_.left(start);
    if (patience == patience.zero()) {
        return KXL_ERROR_TIMEOUT;
    }
    const auto pending = std::make_shared<PendingCall>();
    if (!post(std::move(request), pending, std::move(late))) {
        return KXL_ERROR_STOPPED;
    }
    const Loop::Wait waits(*loop_);
    const int code = pending->wait(start + patience, answer);
    spendPatience(start, code);
    if (pending->isFinished()) {
        patience_.heard();  // also where the answer came between the deadline and here
    }
    return code;
}

bool Session::post(wire::Frame request, const std::shared_ptr<PendingCall>& pending,
                   std::function<void(const wire::Frame&)> late) {
    auto answered = [this, pending, late = std::move(late)](std::uint64_t, const wire::Frame* frame) {
        if (!pending->finish(frame)) {
            patience_.heard();
            if (frame != nullptr && late) {
                late(*frame);
            }
        }
    };
    return loop_->post([self = shared_from_this(), request = std::move(request), answered = std::move(answered)] {
        if (self->phase_ == Phase::Up) {
            self->ask(request, answered);
        } else {
            answered(0, nullptr);
        }
    });
}

std::shared_ptr<EventLink> Session::openEventLink(const KXLConnectivityInfo* info, const std::string& consumer) {
    const auto link = std::make_shared<EventLink>(loop_, weak_from_this(), consumer);
    const auto own = info == nullptr ? std::nullopt : std::optional(*info);
    return loop_->post([self = shared_from_this(), link, own] { self->beginEventLink(link, own); }) ? link : nullptr;
}

void Session::shutDown() {
    if (!loop_->post([self = shared_from_this()] { self->reset(); })) {
        // No loop thread, or one on its way out: once it has ended this thread may touch its state.
        loop_->join();
        reset();
    }
}

}  // namespace kx::client
