// The loop-thread half of a session: its states and what moves it between them.
#include "client/src/cache/EnvDecoder.h"
#include "client/src/loop/Timeouts.h"
#include "client/src/session/Session.h"
#include "client/src/transport/Handshake.h"
#include "client/src/values/Deliveries.h"
#include "client/src/values/Log.h"

namespace kx::client {

// ---- beginning and ending ---------------------------------------------------------------------------------

void Session::begin(const KXLConnectionInfo& info, const HandlerPtr& handler,
                    std::shared_ptr<InitializeAttempt> attempt) {
    reset();
    info_ = info;
    handler_ = handler;
    handlerContext_ = handler->getContext();
    attempt_ = std::move(attempt);
    backoff_.reset();
    connect();
}

void Session::giveUp(const std::shared_ptr<InitializeAttempt>& attempt) {
    if (attempt_ == attempt) {
        reset();
    }
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
    ++timerTicket_;
    timer_.cancel();
    if (const auto socket = std::exchange(connecting_, nullptr)) {
        boost::system::error_code ignored;
        socket->close(ignored);
    }
    if (const auto connection = std::exchange(connection_, nullptr)) {
        connection->close();
    }
    dropQuestions();
    if (handlerContext_) {
        handlerContext_->setConnection(nullptr);
    }
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

void Session::startKeepAlive() {
    heardSinceCheck_ = true;
    checkKeepAlive();
}

void Session::checkKeepAlive() {
    if (!heardSinceCheck_) {
        fail(KXL_ERROR_TIMEOUT);
        return;
    }
    heardSinceCheck_ = false;
    wire::Frame frame;
    frame.mutable_ping();
    connection_->send(frame);
    setTimer(kKeepAliveInterval, &Session::checkKeepAlive);
}

// ---- connecting and shaking hands -----------------------------------------------------------------------------

void Session::connect() {
    phase_ = Phase::Connecting;
    feed_ = EnvFeed();
    haveSnapshot_ = false;
    haveVocabularies_ = false;
    const auto transport = findTransport(info_.connectivity.getType());
    if (!transport) {
        fail(KXL_ERROR_NO_TRANSPORT);
        return;
    }
    connecting_ = transport->connect(
        loop_->context(), info_.connectivity,
        [weak = weak_from_this()](boost::system::error_code error, const std::shared_ptr<StreamSocket>& socket) {
            if (const auto self = weak.lock()) {
                self->connected(error, socket);
            }
        });
    if (!attempt_) {
        setTimer(kReconnectDeadline, &Session::deadlinePassed);  // the first time its caller keeps the time
    }
}

void Session::connected(boost::system::error_code error, const std::shared_ptr<StreamSocket>& socket) {
    if (socket != connecting_) {
        return;  // of an attempt that was given up meanwhile
    }
    if (error) {
        fail(KXL_ERROR_DISCONNECT);
        return;
    }
    connecting_.reset();
    connection_ = std::make_shared<FrameConnection>(socket, weak_from_this());
    connection_->start();
    phase_ = Phase::Handshake;
    connection_->send(helloFrame());
}

void Session::handleHello(const wire::Frame& frame) {
    const std::string problem = helloProblem(frame);
    if (!problem.empty()) {
        protocolError(problem);
        return;
    }
    const wire::Hello& hello = frame.hello();
    if (!decodeEid(hello.server_eid(), helloEid_)) {
        protocolError("its identifier is not 16 bytes long");
        return;
    }
    if (handlerContext_) {
        handlerContext_->setConnection(new KXLConnectionPrototype(wire::printable(hello.program())));
    }
    requestData(hello);
}

void Session::requestData(const wire::Hello& hello) {
    if (!wire::hasCapability(hello, wire::kCapabilitySnapshot)) {
        protocolError("it does not offer its environments");
        return;
    }
    phase_ = Phase::Filling;
    requestSnapshot();
    // An agent may have no vocabularies to offer. Those of an earlier connection, to another agent perhaps, must go.
    haveVocabularies_ = !wire::hasCapability(hello, wire::kCapabilityVocabulary);
    if (haveVocabularies_) {
        vocabularies_.replace(wire::VocabularySet());
        return;
    }
    wire::Frame request;
    request.mutable_vocabulary_request();
    connection_->send(request);
}

void Session::requestSnapshot() {
    feed_.expectSnapshot();
    wire::Frame frame;
    frame.mutable_snapshot_request();
    connection_->send(frame);
}

// ---- data -----------------------------------------------------------------------------------------------------

void Session::frameReceived(const FrameConnection& connection, const wire::Frame& frame) {
    if (&connection != connection_.get()) {
        return;
    }
    heardSinceCheck_ = true;
    if (frame.has_error()) {
        handleError(frame.error());
    } else if (phase_ == Phase::Handshake) {
        handleHello(frame);
    } else {
        handleData(frame);
    }
}

void Session::handleData(const wire::Frame& frame) {
    // Either side numbers its own pings, so one may have the number of an open question.
    if (!frame.has_ping() && handleAnswer(frame)) {
        return;
    }
    switch (frame.body_case()) {
        case wire::Frame::kSnapshotChunk:
            handleEnvironments(feed_.take(frame.snapshot_chunk()));
            break;
        case wire::Frame::kDelta:
            handleEnvironments(feed_.take(frame.delta()));
            break;
        case wire::Frame::kVocabularySet:
            handleVocabularies(frame.vocabulary_set());
            break;
        case wire::Frame::kCounterSample:
            takeSample(frame.counter_sample());
            break;
        case wire::Frame::kPing: {
            wire::Frame pong;
            pong.set_request_id(frame.request_id());
            pong.mutable_pong();
            connection_->send(pong);
            break;
        }
        default:  // what a newer agent says
            break;
    }
}

void Session::handleEnvironments(EnvFeed::Outcome outcome) {
    switch (outcome) {
        case EnvFeed::Outcome::Updated:
            haveSnapshot_ = true;
            if (phase_ == Phase::Up) {
                publish();
            }
            becomeUpWhenFilled();
            break;
        case EnvFeed::Outcome::Gap:
            requestSnapshot();
            break;
        case EnvFeed::Outcome::Malformed:
            protocolError(feed_.reason());
            break;
        case EnvFeed::Outcome::Ignored:
        case EnvFeed::Outcome::Pending:
            break;
    }
}

void Session::handleVocabularies(const wire::VocabularySet& set) {
    vocabularies_.replace(set);
    haveVocabularies_ = true;
    becomeUpWhenFilled();
}

void Session::publish() {
    cache_->store().publish(feed_.current());
}

void Session::becomeUpWhenFilled() {
    if (phase_ == Phase::Filling && haveSnapshot_ && haveVocabularies_) {
        becomeUp();
    }
}

void Session::becomeUp() {
    serverEid_.store(helloEid_);
    publish();
    phase_ = Phase::Up;
    isUp_ = true;
    backoff_.reset();
    lastLogged_.clear();
    startKeepAlive();
    const auto attempt = std::exchange(attempt_, nullptr);
    if (!attempt) {
        deliver([handler = handler_] { handler->handleConnected(); });
        return;
    }
    // Held before the caller is woken: it may return, and the link be lost, at any moment after that.
    heldFor_ = attempt;
    if (!attempt->succeed()) {
        reset();  // its caller gave up in the last moment, and does not want the link
    }
}

// ---- questions and answers --------------------------------------------------------------------------------------

std::uint64_t Session::ask(wire::Frame request, Answered answered) {
    const std::uint64_t number = ++lastRequest_;
    request.set_request_id(number);
    questions_[number] = std::move(answered);
    connection_->send(request);
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
    link->connect(info ? *info : info_.connectivity);
}

// An agent that goes away closes all its connections, in no particular order as seen from here. Whoever relies on both
// must hear of the link's loss first. A sign of life on the link shows that only the event connection was lost.
void Session::eventLinkFailed(const std::shared_ptr<EventLink>& link) {
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
