#include "client/src/events/EventLink.h"

#include <algorithm>
#include <utility>

#include "client/src/events/MessageReader.h"
#include "client/src/transport/Handshake.h"

namespace kx::client {

namespace {

/// The message of one frame, as its handlers see it.
class MessageTask : public KXLMessageTaskPrototype {
public:
    explicit MessageTask(std::shared_ptr<const std::string> message) : message_(std::move(message)) {}

    std::unique_ptr<KXLMessageReaderPrototype> makeReader() const override {
        return std::make_unique<MessageReader>(message_);
    }
    void finish() override { isFinished_ = true; }
    bool isFinished() const { return isFinished_; }

private:
    const std::shared_ptr<const std::string> message_;
    bool isFinished_ = false;
};

wire::Frame subscribeFrame(const std::string& consumer, std::uint64_t sinceMs) {
    wire::Frame frame;
    frame.set_request_id(1);
    frame.mutable_event_subscribe()->set_name(std::string(wire::kEventsName));
    frame.mutable_event_subscribe()->set_consumer(consumer);
    frame.mutable_event_subscribe()->set_since_ms(sinceMs);
    return frame;
}

}  // namespace

EventLink::EventLink(std::shared_ptr<Loop> loop, std::weak_ptr<EventLinkOwner> owner, std::string consumer)
    : loop_(std::move(loop)),
      owner_(std::move(owner)),
      consumer_(std::move(consumer)),
      deadline_(loop_->context()),
      gateTimer_(loop_->context()) {}

// ---- any thread -----------------------------------------------------------------------------------------------

bool EventLink::subscribe(const TaskHandlerPtr& handler) {
    {
        const std::lock_guard guard(mutex_);
        handlers_.push_back(handler);
        hadHandlers_ = true;
    }
    const bool runs = loop_->post([self = shared_from_this()] {
        if (self->phase_ >= Phase::Failed) {
            self->failed();  // once more, for the newcomer
        }
    });
    if (!runs) {
        unsubscribe(handler);
    }
    return runs;
}

bool EventLink::unsubscribe(const TaskHandlerPtr& handler) {
    TaskHandlerPtr removed;  // let go of after the lock: it may be the last reference
    {
        const std::lock_guard guard(mutex_);
        const auto found = std::find(handlers_.begin(), handlers_.end(), handler);
        if (found == handlers_.end()) {
            return false;
        }
        removed = std::move(*found);
        handlers_.erase(found);
        if (!handlers_.empty()) {
            return true;
        }
    }
    // Whoever subscribes from now on comes too late, and is called by its own task, which runs after this one.
    loop_->post([self = shared_from_this()] { self->closeNow(); });
    return true;
}

void EventLink::close() {
    takeHandlers();
    if (loop_->onLoopThread()) {
        closeNow();  // a loop that is being stopped takes nothing more, and must not be kept from ending
    } else {
        loop_->post([self = shared_from_this()] { self->closeNow(); });
    }
}

std::vector<TaskHandlerPtr> EventLink::handlers() const {
    const std::lock_guard guard(mutex_);
    return handlers_;
}

std::vector<TaskHandlerPtr> EventLink::takeHandlers() {
    const std::lock_guard guard(mutex_);
    return std::exchange(handlers_, {});
}

// ---- connecting -----------------------------------------------------------------------------------------------

void EventLink::connect(const KXLConnectivityInfo& info, std::chrono::milliseconds pause) {
    if (phase_ != Phase::Made) {
        return;  // closed before its turn came
    }
    phase_ = Phase::Connecting;
    if (pause == pause.zero()) {
        open(info);
        return;
    }
    deadline_.expires_after(pause);
    deadline_.async_wait([weak = weak_from_this(), info](boost::system::error_code cancelled) {
        const auto self = weak.lock();
        if (!cancelled && self && self->phase_ == Phase::Connecting) {
            self->open(info);
        }
    });
}

void EventLink::open(const KXLConnectivityInfo& info) {
    const auto transport = findTransport(info.getType());
    if (!transport) {
        failed();
        return;
    }
    connecting_ = transport->connect(
        loop_->context(), info,
        [weak = weak_from_this()](boost::system::error_code error, const std::shared_ptr<StreamSocket>& socket) {
            if (const auto self = weak.lock()) {
                self->connected(error, socket);
            }
        });
    deadline_.expires_after(loop_->timeouts().reconnect);
    deadline_.async_wait([weak = weak_from_this()](boost::system::error_code cancelled) {
        const auto self = weak.lock();
        if (!cancelled && self && self->phase_ < Phase::Subscribed) {
            self->failed("its event connection was not answered in time");
        }
    });
}

void EventLink::connected(boost::system::error_code error, const std::shared_ptr<StreamSocket>& socket) {
    if (socket != connecting_) {
        return;  // closed meanwhile
    }
    if (error) {
        failed();
        return;
    }
    connecting_.reset();
    connection_ = std::make_shared<FrameConnection>(socket, weak_from_this());
    connection_->start();
    phase_ = Phase::Handshake;
    connection_->send(helloFrame());
}

void EventLink::takeHello(const wire::Frame& frame) {
    const std::string problem = helloProblem(frame);
    if (!problem.empty()) {
        failed(problem);
        return;
    }
    if (!wire::hasCapability(frame.hello(), wire::kCapabilityEvents)) {
        failed("it does not offer events");
        return;
    }
    phase_ = Phase::Subscribing;
    const bool keeps = wire::hasCapability(frame.hello(), wire::kCapabilityEventAcks);
    connection_->send(subscribeFrame(keeps ? consumer_ : std::string(), sinceMs_));
}

// ---- messages ---------------------------------------------------------------------------------------------------

void EventLink::frameReceived(const FrameConnection& connection, const wire::Frame& frame) {
    if (&connection != connection_.get()) {
        return;
    }
    if (frame.has_error() && frame.error().code() == wire::ERROR_SHUTTING_DOWN) {
        failed();
    } else if (frame.has_error()) {
        failed("it ended the event connection: " + wire::printable(frame.error().text()));
    } else if (phase_ == Phase::Handshake) {
        takeHello(frame);
    } else {
        takeData(frame);
    }
}

void EventLink::takeData(const wire::Frame& frame) {
    switch (frame.body_case()) {
        case wire::Frame::kDone:
            takeSubscribed();
            break;
        case wire::Frame::kRefusal:
            failed("it refused the event subscription: " + wire::printable(frame.refusal().text()));
            break;
        case wire::Frame::kPing:
            answerPing(frame);
            break;
        default:  // what a newer agent says
            break;
    }
}

void EventLink::takeSubscribed() {
    if (phase_ == Phase::Subscribing) {
        phase_ = Phase::Subscribed;
        deadline_.cancel();
        deliver(&EventLink::handSubscribed);
    }
}

void EventLink::answerPing(const wire::Frame& ping) {
    wire::Frame answer;
    answer.set_request_id(ping.request_id());
    answer.mutable_pong();
    connection_->send(answer);
}

void EventLink::deliver(void (EventLink::*delivery)()) {
    if (const auto owner = owner_.lock()) {
        owner->deliver([self = shared_from_this(), delivery] { (self.get()->*delivery)(); });
    }
}

void EventLink::handSubscribed() {
    for (const TaskHandlerPtr& handler : handlers()) {
        handler->writeFinished();
    }
}

// ---- messages, in parts -----------------------------------------------------------------------------------------

bool EventLink::payloadReceived(const FrameConnection& connection, std::string_view payload) {
    if (&connection != connection_.get() || phase_ < Phase::Subscribing) {
        return false;
    }
    const auto message = MessageParts::inFrame(payload);
    if (message) {
        takeMessage(*message);
    }
    return message.has_value();
}

void EventLink::takeMessage(std::string_view message) {
    message_ = std::make_unique<MessageParts>(message);
    if (!message_->isWellFormed()) {
        connectionMalformed(*connection_, "a frame that is not a message");
        return;
    }
    connection_->pause();
    deliver(&EventLink::deliverParts);
}

bool EventLink::mayDeliver() const {
    {
        const std::lock_guard guard(mutex_);
        if (!hadHandlers_) {
            return false;
        }
    }
    return loop_->eventGateIsOpen();
}

void EventLink::deliverParts() {
    if (!message_) {
        return;  // closed meanwhile
    }
    if (!mayDeliver()) {
        waitForGate();
        return;
    }
    deliverPart();
    if (!message_) {
        return;  // closed by a handler
    }
    // In a task of its own: others have their turn between two parts, and reading on is not for a callback of the
    // connection.
    if (message_->isAtEnd()) {
        acknowledge();
        message_.reset();
        loop_->post([self = shared_from_this()] { self->readOn(); });
    } else {
        loop_->post([self = shared_from_this()] { self->deliverParts(); });
    }
}

void EventLink::deliverPart() {
    const std::shared_ptr<const std::string> part = message_->next();
    const auto receivers = handlers();
    isFinished_ = isFinished_ && !receivers.empty();
    for (const TaskHandlerPtr& handler : receivers) {
        MessageTask task(part);
        handler->handleMessage(task);
        isFinished_ = isFinished_ && task.isFinished();
    }
}

void EventLink::waitForGate() {
    gateTimer_.expires_after(loop_->timeouts().eventGate);
    gateTimer_.async_wait([weak = weak_from_this()](boost::system::error_code cancelled) {
        const auto self = weak.lock();
        if (!cancelled && self) {
            self->deliverParts();
        }
    });
}

void EventLink::acknowledge() {
    if (isFinished_ && message_->sequence() != 0) {
        wire::Frame frame;
        frame.mutable_event_ack()->set_sequence(message_->sequence());
        connection_->send(frame);
    }
}

void EventLink::readOn() {
    if (connection_) {
        connection_->resume();
    }
}

// ---- ending -----------------------------------------------------------------------------------------------------

void EventLink::connectionEnded(const FrameConnection& connection) {
    if (&connection == connection_.get()) {
        failed();
    }
}

void EventLink::connectionMalformed(const FrameConnection& connection, const std::string& reason) {
    if (&connection == connection_.get()) {
        failed(reason + "; event connection closed");
    }
}

void EventLink::closeSocket() {
    deadline_.cancel();
    gateTimer_.cancel();
    message_.reset();  // what is left of it is not acknowledged, and comes again where the agent keeps it
    if (const auto socket = std::exchange(connecting_, nullptr)) {
        boost::system::error_code ignored;
        socket->close(ignored);
    }
    if (const auto connection = std::exchange(connection_, nullptr)) {
        connection->close();
    }
}

void EventLink::closeNow() {
    phase_ = Phase::Closed;
    closeSocket();
}

void EventLink::fail() {
    if (phase_ != Phase::Closed) {
        phase_ = Phase::Failed;
        closeSocket();
    }
}

void EventLink::tellFailure() {
    fail();
    for (const TaskHandlerPtr& handler : takeHandlers()) {
        handler->handleFailure();
    }
}

void EventLink::failed() {
    fail();
    if (const auto owner = owner_.lock()) {
        owner->eventLinkFailed(shared_from_this());
    } else {
        tellFailure();
    }
}

void EventLink::failed(const std::string& reason) {
    if (const auto owner = owner_.lock()) {
        owner->logEventTrouble(reason);
    }
    failed();
}

}  // namespace kx::client
