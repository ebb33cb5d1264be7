// The public half of a session: what runs on the threads of its callers.
#include "client/src/session/Session.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <random>

#include "client/src/loop/Timeouts.h"
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
      timer_(loop_->context()),
      backoff_(kBackoffFirst, kBackoffLongest, std::random_device()()) {}

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
    if (!initializing_.take(start + kInitializeDeadline)) {
        return KXL_ERROR_TIMEOUT;
    }
    const int code = attemptWithin(info, handler, attempt, start);
    // Given back before the handler is called, so that no lock of the handler's owner is ever waited for with it.
    initializing_.giveBack();
    return code;
}

int Session::attemptWithin(const KXLConnectionInfo& info, const HandlerPtr& handler,
                           const std::shared_ptr<InitializeAttempt>& attempt, Clock::time_point start) {
    const bool followUp = start - lastFullTimeout_ < kFollowUpWindow;
    handler->setContext(makeContext());
    if (!loop_->post([self = shared_from_this(), info, handler, attempt] { self->begin(info, handler, attempt); })) {
        return KXL_ERROR_STOPPED;
    }
    const int code = attempt->wait(start + (followUp ? kFollowUpDeadline : kInitializeDeadline));
    if (code == KXL_ERROR_TIMEOUT) {
        loop_->post([self = shared_from_this(), attempt] { self->giveUp(attempt); });
        if (!followUp) {
            lastFullTimeout_ = Clock::now();
        }
    }
    return code;
}

boost::intrusive_ptr<KXLRequestContext> Session::makeContext() {
    return new KXLRequestContext([weak = weak_from_this()] {
        const auto self = weak.lock();
        if (self) {
            self->loop_->post([self] { self->cancelRequest(); });
        }
    });
}

namespace {

/// One call and its caller. The caller waits on its own thread; the answer comes from the loop thread.
class PendingCall {
public:
    /// @param frame null: the connection was lost
    /// @return false when the caller has given up
    bool finish(const wire::Frame* frame) {
        const std::lock_guard guard(mutex_);
        if (state_ != State::Waiting) {
            return false;
        }
        if (frame != nullptr) {
            answer_ = *frame;
        }
        code_ = frame != nullptr ? 0 : static_cast<int>(KXL_ERROR_DISCONNECT);
        state_ = State::Finished;
        changed_.notify_all();
        return true;
    }

    int wait(std::chrono::steady_clock::time_point deadline, wire::Frame& answer) {
        std::unique_lock guard(mutex_);
        if (!changed_.wait_until(guard, deadline, [this] { return state_ == State::Finished; })) {
            state_ = State::GivenUp;
            return KXL_ERROR_TIMEOUT;
        }
        answer = std::move(answer_);
        return code_;
    }

private:
    enum class State { Waiting, Finished, GivenUp };

    std::mutex mutex_;
    std::condition_variable changed_;
    State state_ = State::Waiting;
    int code_ = 0;
    wire::Frame answer_;
};

}  // namespace

int Session::call(wire::Frame request, wire::Frame& answer, std::chrono::milliseconds deadline,
                  std::function<void(const wire::Frame&)> late) {
    if (loop_->onLoopThread()) {
        return KXL_ERROR_STOPPED;  // it would wait for itself
    }
    if (request.ByteSizeLong() > wire::kMaxFrameBytes - kNumberBytes) {
        return KXL_ERROR_REFUSED;  // no agent would take it
    }
    const auto wait = patience(deadline);
    const auto until = Clock::now() + wait;
    const auto pending = std::make_shared<PendingCall>();
    auto answered = [pending, late = std::move(late)](std::uint64_t, const wire::Frame* frame) {
        if (!pending->finish(frame) && frame != nullptr && late) {
            late(*frame);
        }
    };
    const bool runs = loop_->post([self = shared_from_this(), request = std::move(request), answered] {
        if (self->phase_ == Phase::Up) {
            self->ask(request, answered);
        } else {
            answered(0, nullptr);
        }
    });
    const int code = runs ? pending->wait(until, answer) : static_cast<int>(KXL_ERROR_STOPPED);
    if (code == KXL_ERROR_TIMEOUT && wait == deadline) {
        lastCallTimeout_ = Clock::now().time_since_epoch().count();
    }
    return code;
}

// As after an initialisation that timed out: one SNMP request may lead to many calls, and all of them together must
// stay within its second.
std::chrono::milliseconds Session::patience(std::chrono::milliseconds deadline) const {
    const Clock::time_point last{Clock::duration(lastCallTimeout_.load())};
    const bool followsUp = last != Clock::time_point() && Clock::now() - last < kFollowUpWindow;
    return followsUp ? std::min(kFollowUpDeadline, deadline) : deadline;
}

std::shared_ptr<EventLink> Session::openEventLink(const KXLConnectivityInfo* info) {
    const auto link = std::make_shared<EventLink>(loop_, weak_from_this());
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
