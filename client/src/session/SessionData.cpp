// The loop-thread half of a session: connecting, handshake, and the data that make it up.
#include "client/src/cache/EnvDecoder.h"
#include "client/src/session/Session.h"
#include "client/src/transport/Handshake.h"
#include "client/src/values/Limits.h"

namespace kx::client {

namespace {

std::size_t countParameters(const wire::VocabularySet& set) {
    std::size_t count = 0;
    for (const wire::Vocabulary& vocabulary : set.vocabularies()) {
        count += 1 + static_cast<std::size_t>(vocabulary.parameters_size());
        for (const wire::Category& category : vocabulary.categories()) {
            count += 1 + static_cast<std::size_t>(category.parameters_size());
        }
    }
    return count;
}

}  // namespace

// ---- connecting and shaking hands -----------------------------------------------------------------------------

void Session::connect() {
    phase_ = Phase::Connecting;
    feed_ = EnvFeed(cache_->store().current());
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
    limitReconnection();
}

void Session::limitReconnection() {
    if (!attempt_ && !isKept_) {  // the first time its caller keeps the time
        setTimer(loop_->timeouts().reconnect, &Session::deadlinePassed);
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
    peer_ = new KXLConnectionPrototype(wire::printable(hello.program()));
    if (handlerContext_) {
        handlerContext_->setConnection(peer_);
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
    // An agent may have no vocabularies to offer. Those of an earlier connection, to another agent perhaps, go with it.
    haveVocabularies_ = !wire::hasCapability(hello, wire::kCapabilityVocabulary);
    if (haveVocabularies_) {
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
    isMoving_ = true;
    heardSinceCheck_ = true;
    if (phase_ == Phase::Up) {
        patience_.heard();  // data of an attempt that goes on come for a while: nobody is to wait for each of them
    }
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
        case EnvFeed::Outcome::Pending:
            if (phase_ == Phase::Filling) {
                limitReconnection();  // anew: a large host takes its time
            }
            break;
        case EnvFeed::Outcome::Ignored:
            break;
    }
}

void Session::handleVocabularies(const wire::VocabularySet& set) {
    if (set.ByteSizeLong() > kMaxVocabularyBytes || countParameters(set) > kMaxParameters) {
        protocolError("vocabularies that are too large");
        return;
    }
    if (phase_ == Phase::Up) {
        vocabularies_.replace(set);
        return;
    }
    newVocabularies_ = set;
    haveVocabularies_ = true;
    becomeUpWhenFilled();
}

void Session::publish() {
    cache_->store().publish(feed_.current());
}

void Session::becomeUpWhenFilled() {
    if (phase_ != Phase::Filling || !haveSnapshot_ || !haveVocabularies_) {
        return;
    }
    phase_ = Phase::Filled;
    if (isKept_) {
        isFilled_ = true;
    } else {
        becomeUp();
    }
}

void Session::becomeUp() {
    const auto attempt = std::exchange(attempt_, nullptr);
    if (!attempt) {
        goUp();
        deliver([handler = handler_] { handler->handleConnected(); });
        return;
    }
    // Held before the caller is woken: it may return, and the link be lost, at any moment after that.
    heldFor_ = attempt;
    if (!attempt->succeed([this] { goUp(); })) {
        heldFor_.reset();
        keepForNext();  // its caller gave up in the last moment
    }
}

void Session::goUp() {
    serverEid_.store(helloEid_);
    vocabularies_.replace(newVocabularies_);
    newVocabularies_.Clear();
    publish();
    phase_ = Phase::Up;
    isUp_ = true;
    askForSignOfLife();
    setTimer(loop_->timeouts().stable, &Session::checkStability);
}

}  // namespace kx::client
