// The loop-thread half of a session: beginning, failing, trying again, and the end.
#include <malloc.h>

#include "client/src/session/Session.h"
#include "client/src/values/Deliveries.h"
#include "client/src/values/Log.h"

namespace kx::client {

// ---- beginning and ending ---------------------------------------------------------------------------------

void Session::begin(const KXLConnectionInfo& info, const HandlerPtr& handler,
                    std::shared_ptr<InitializeAttempt> attempt) {
    const bool takesOver = canTakeOver(info);
    if (!takesOver) {
        reset();
    }
    adopt(handler, std::move(attempt));
    if (!takesOver) {
        info_ = info;
        backoff_.reset();
        connect();
    } else if (phase_ == Phase::Filled) {
        becomeUp();
    }
}

bool Session::canTakeOver(const KXLConnectionInfo& info) const {
    return isKept_ && (isMoving_ || phase_ == Phase::Filled) &&
           info.connectivity.getAddress() == info_.connectivity.getAddress() &&
           info.connectivity.getType() == info_.connectivity.getType();
}

void Session::adopt(const HandlerPtr& handler, std::shared_ptr<InitializeAttempt> attempt) {
    isKept_ = false;
    isFilled_ = false;
    stopTimer();
    handler_ = handler;
    handlerContext_ = handler->getContext();
    if (handlerContext_) {
        handlerContext_->setConnection(peer_);
    }
    attempt_ = std::move(attempt);
}

void Session::giveUp(const std::shared_ptr<InitializeAttempt>& attempt) {
    if (attempt_ == attempt) {
        keepForNext();
    }
}

void Session::keepForNext() {
    attempt_.reset();
    dropHandler();
    isKept_ = true;
    isMoving_ = false;
    isFilled_ = phase_ == Phase::Filled;
    setTimer(loop_->timeouts().adoption, &Session::reset);
}

void Session::release(const std::shared_ptr<InitializeAttempt>& attempt) {
    if (heldFor_ != attempt) {
        return;
    }
    heldFor_.reset();
    while (!deferred_.empty()) {
        const auto delivery = std::move(deferred_.front());
        deferred_.pop_front();
        delivery();
    }
}

void Session::deliver(std::function<void()> delivery) {
    if (heldFor_) {
        deferred_.push_back(std::move(delivery));
    } else {
        delivery();
    }
}

void Session::cancelRequest() {
    if (!handler_) {
        return;
    }
    if (attempt_) {
        fail(KXL_ERROR_CANCEL);  // initialize() delivers it on its caller's thread
        return;
    }
    const HandlerPtr handler = handler_;
    const auto links = takeEventLinks();
    reset();
    handler->handleCancel();
    for (const auto& link : links) {
        link->tellFailure();
    }
}

void Session::loopStopping() {
    reset();
}

void Session::reset() {
    closeConnection();
    if (const auto attempt = std::exchange(attempt_, nullptr)) {
        attempt->fail(KXL_ERROR_STOPPED);
    }
    dropHandler();
    heldFor_.reset();
    deferred_.clear();
    for (const auto& link : takeEventLinks()) {
        link->close();
    }
    monitors_.drop();
    phase_ = Phase::Idle;
}

void Session::closeConnection() {
    isUp_ = false;
    isFilled_ = false;
    stopTimer();
    if (const auto socket = std::exchange(connecting_, nullptr)) {
        boost::system::error_code ignored;
        socket->close(ignored);
    }
    const auto connection = std::exchange(connection_, nullptr);
    dropQuestions();
    feed_ = EnvFeed();  // a list that is not complete may be large
    newVocabularies_.Clear();
    if (connection) {
        connection->close();
        malloc_trim(0);
    }
    peer_.reset();
    if (handlerContext_) {
        handlerContext_->setConnection(nullptr);
    }
    patience_.heard();  // whoever comes next gets another connection
}

void Session::dropHandler() {
    if (const HandlerPtr handler = std::exchange(handler_, nullptr)) {
        handler->setContext(nullptr);
    }
    handlerContext_.reset();
}

// ---- failing and trying again -------------------------------------------------------------------------------

void Session::fail(int code) {
    const bool wasUp = phase_ == Phase::Up;
    closeConnection();
    if (const auto attempt = std::exchange(attempt_, nullptr)) {
        // Never up so far: the handler is dropped and nothing is tried in the background.
        dropHandler();
        phase_ = Phase::Idle;
        attempt->fail(code);
        return;
    }
    if (std::exchange(isKept_, false)) {
        phase_ = Phase::Idle;
        return;
    }
    waitBeforeReconnecting();
    if (wasUp) {
        deliver([handler = handler_, code] { deliverFailure(*handler, code); });
        monitors_.endAll(code);
        // After the handler, which may have unsubscribed some of them.
        for (const auto& link : takeEventLinks()) {
            link->fail();
            tellEventFailure(link);
        }
    }
}

void Session::waitBeforeReconnecting() {
    phase_ = Phase::Waiting;
    setTimer(backoff_.next(), &Session::connect);
}

void Session::setTimer(std::chrono::milliseconds delay, void (Session::*then)()) {
    timer_.expires_after(delay);
    timer_.async_wait([weak = weak_from_this(), then, ticket = ++timerTicket_](boost::system::error_code error) {
        const auto self = weak.lock();
        if (!error && self && self->timerTicket_ == ticket) {
            (self.get()->*then)();
        }
    });
}

void Session::stopTimer() {
    ++timerTicket_;
    timer_.cancel();
}

void Session::askForSignOfLife() {
    heardSinceCheck_ = false;
    wire::Frame frame;
    frame.mutable_ping();
    connection_->send(frame);
}

void Session::checkStability() {
    if (heardSinceCheck_) {
        becomeStable();
    }
    setTimer(loop_->timeouts().keepAlive - loop_->timeouts().stable, &Session::checkKeepAlive);
}

void Session::checkKeepAlive() {
    if (!heardSinceCheck_) {
        fail(KXL_ERROR_TIMEOUT);
        return;
    }
    becomeStable();
    askForSignOfLife();
    setTimer(loop_->timeouts().keepAlive, &Session::checkKeepAlive);
}

// Not as soon as it is up: an agent that breaks right after the handshake would be reconnected to, and logged, ten
// times a second.
void Session::becomeStable() {
    backoff_.reset();
    lastLogged_.clear();
}

// ---- the peer's errors ------------------------------------------------------------------------------------------

void Session::handleError(const wire::Error& error) {
    if (error.code() == wire::ERROR_SHUTTING_DOWN) {
        fail(KXL_ERROR_DISCONNECT);
        return;
    }
    logOnChange("it refused the connection: " + wire::printable(error.text()));
    fail(KXL_ERROR_REFUSED);
}

void Session::connectionEnded(const FrameConnection& connection) {
    if (&connection == connection_.get()) {
        fail(KXL_ERROR_DISCONNECT);
    }
}

void Session::connectionMalformed(const FrameConnection& connection, const std::string& reason) {
    if (&connection == connection_.get()) {
        protocolError(reason);
    }
}

void Session::protocolError(const std::string& reason) {
    logOnChange(reason + "; connection closed");
    fail(KXL_ERROR_BROKEN);
}

void Session::logOnChange(const std::string& line) {
    if (line != lastLogged_) {
        lastLogged_ = line;
        logWarning("management agent at " + info_.connectivity.getAddress() + ": " + line);
    }
}

}  // namespace kx::client
