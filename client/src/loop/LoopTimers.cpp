#include "client/src/loop/LoopTimers.h"

#include <algorithm>

namespace kx::client {

std::shared_ptr<LoopTimers> LoopTimers::create(std::shared_ptr<Loop> loop) {
    std::shared_ptr<LoopTimers> timers(new LoopTimers(std::move(loop)));
    timers->loop_->attach(timers);
    return timers;
}

int LoopTimers::add(boost::intrusive_ptr<KXLTimeoutHandlerPrototype> handler) {
    return loop_->post([self = shared_from_this(), handler = std::move(handler)] { self->begin(handler); }) ? 0 : -1;
}

void LoopTimers::begin(const boost::intrusive_ptr<KXLTimeoutHandlerPrototype>& handler) {
    const auto timer = std::make_shared<Timer>(loop_->context());
    pending_.insert(timer);
    // The expiry is wall-clock time; once here, setting the clock moves nothing any more.
    const std::time_t left = std::max<std::time_t>(handler->getExpiry() - kxlTime(), 0);
    timer->expires_after(std::chrono::seconds(left));
    timer->async_wait([weak = weak_from_this(), timer, handler](boost::system::error_code error) {
        const auto self = weak.lock();
        if (!self || self->pending_.erase(timer) == 0 || error) {
            return;
        }
        if (handler->isActive()) {
            handler->handleTimeout();
        }
    });
}

void LoopTimers::loopStopping() {
    for (const auto& timer : std::exchange(pending_, {})) {
        timer->cancel();
    }
}

}  // namespace kx::client
