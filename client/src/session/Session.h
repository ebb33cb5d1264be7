// The life of one access point's connection: connecting, handshake, first data, keeping it up.
//
// Thread promise: initialize(), shutDown() and the getters may be called from any thread; everything else, and all
// state below the line in the class, belongs to the loop thread.
//
//   Idle ──begin──► Connecting ─► Handshake ─► Filling ─► Up
//    ▲                  ▲  └──────────┴───────────┘ │      │
//    │ failed before    │ pause over      failed    ▼      │ lost
//    │ the first Up     └──────────────────────── Waiting ◄┘
//    └── cancelled, shut down
//
//   An attempt whose initialize() has given up goes on without a handler (isKept_), up to Filled: whatever it has
//   received so far serves the next initialize(). It ends when none comes in time, or when it fails.
#pragma once

#include <atomic>
#include <boost/asio/steady_timer.hpp>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include <kxl/KXLConnectionInfo.h>
#include <kxl/KXLEnvCache.h>
#include <kxl/KXLRequestHandlerPrototype.h>

#include "client/src/cache/EnvFeed.h"
#include "client/src/cache/Guarded.h"
#include "client/src/cache/VocabularyStore.h"
#include "client/src/counters/CounterRequest.h"
#include "client/src/counters/Monitors.h"
#include "client/src/events/EventLink.h"
#include "client/src/loop/Loop.h"
#include "client/src/session/InitializeAttempt.h"
#include "client/src/session/Patience.h"
#include "client/src/session/PendingCall.h"
#include "client/src/session/ReconnectBackoff.h"
#include "client/src/session/Turn.h"
#include "client/src/transport/FrameConnection.h"

namespace kx::client {

using HandlerPtr = boost::intrusive_ptr<KXLRequestHandlerPrototype>;

class Session : public std::enable_shared_from_this<Session>,
                public LoopClient,
                public FrameListener,
                public EventLinkOwner {
public:
    static std::shared_ptr<Session> create(std::shared_ptr<Loop> loop, boost::intrusive_ptr<KXLEnvCache> cache);
    ~Session() override;

    /// @brief What KXLAccessPointPrototype::initializeSync promises.
    int initialize(const KXLConnectionInfo& info, const HandlerPtr& handler);

    /// @brief Lets go of connection and handler. At once; a callback in progress may still end.
    void shutDown();

    /// @return KXLEID::EID_INVALID before the first connection
    KXLEID serverEid() const { return serverEid_.load(); }
    /// @return the vocabularies as last received, also while the link is down
    const VocabularyStore& vocabularies() const { return vocabularies_; }
    bool isUp() const { return isUp_; }

    /// @brief Opens an event connection. At once: whether it comes about is told to its handlers.
    /// @param info where to connect; null: where the session is connected
    /// @param consumer see EventLink
    /// @return null when the loop does not run
    std::shared_ptr<EventLink> openEventLink(const KXLConnectivityInfo* info, const std::string& consumer);

    /// @brief Sends a request and waits for its answer, not on the loop thread. Fails at once while the agent is
    /// silent.
    /// @param request its number is set here
    /// @param answer receives the frame that has the request's number
    /// @param late called on the loop thread with an answer that came after the caller had given up; may be empty
    /// @return 0, or a KXLRequestError: not connected, lost meanwhile, or no answer in time
    int call(wire::Frame request, wire::Frame& answer, std::function<void(const wire::Frame&)> late = {});

    /// @brief Starts a monitor on the present connection. At once.
    /// @param periodSeconds between two reports, above 0
    /// @return 0, or a KXLRequestError
    int startMonitor(const CounterRequest& request, int periodSeconds, const MonitorHandlerPtr& handler);
    /// @brief Asks for one report and waits for it.
    /// @return 0, or a KXLRequestError
    int queryCounters(const CounterRequest& request, std::vector<KXLMonitorData>& output);

private:
    enum class Phase { Idle, Connecting, Handshake, Filling, Filled, Up, Waiting };

    Session(std::shared_ptr<Loop> loop, boost::intrusive_ptr<KXLEnvCache> cache);

    using Clock = std::chrono::steady_clock;

    // On the threads of callers.
    void spendPatience(Clock::time_point start, int code);
    bool post(wire::Frame request, const std::shared_ptr<PendingCall>& pending,
              std::function<void(const wire::Frame&)> late);
    int takeTurn(const KXLConnectionInfo& info, const HandlerPtr& handler,
                 const std::shared_ptr<InitializeAttempt>& attempt);
    int attemptWithin(const KXLConnectionInfo& info, const HandlerPtr& handler,
                      const std::shared_ptr<InitializeAttempt>& attempt, Clock::time_point start);
    boost::intrusive_ptr<KXLRequestContext> makeContext();

    // Loop thread. ------------------------------------------------------------------------------------
    void loopStopping() override;
    void frameReceived(const FrameConnection& connection, const wire::Frame& frame) override;
    void connectionEnded(const FrameConnection& connection) override;
    void connectionMalformed(const FrameConnection& connection, const std::string& reason) override;

    void begin(const KXLConnectionInfo& info, const HandlerPtr& handler, std::shared_ptr<InitializeAttempt> attempt);
    bool canTakeOver(const KXLConnectionInfo& info) const;
    void adopt(const HandlerPtr& handler, std::shared_ptr<InitializeAttempt> attempt);
    void giveUp(const std::shared_ptr<InitializeAttempt>& attempt);
    void keepForNext();
    void release(const std::shared_ptr<InitializeAttempt>& attempt);
    void cancelRequest();

    void connect();
    void connected(boost::system::error_code error, const std::shared_ptr<StreamSocket>& socket);
    void handleHello(const wire::Frame& frame);
    void requestData(const wire::Hello& hello);
    void handleData(const wire::Frame& frame);
    void handleEnvironments(EnvFeed::Outcome outcome);
    void handleError(const wire::Error& error);
    void handleVocabularies(const wire::VocabularySet& set);
    void requestSnapshot();
    void becomeUpWhenFilled();
    void becomeUp();
    void goUp();
    void publish();
    void protocolError(const std::string& reason);
    void logOnChange(const std::string& line);

    void fail(int code);
    void reset();
    void closeConnection();
    void dropHandler();
    void waitBeforeReconnecting();
    void stopTimer();
    void limitReconnection();
    void askForSignOfLife();
    void checkStability();
    void checkKeepAlive();
    void becomeStable();
    void setTimer(std::chrono::milliseconds delay, void (Session::*then)());
    void deadlinePassed() { fail(KXL_ERROR_TIMEOUT); }

    void deliver(std::function<void()> delivery) override;

    void beginEventLink(const std::shared_ptr<EventLink>& link, const std::optional<KXLConnectivityInfo>& info);
    void eventLinkFailed(const std::shared_ptr<EventLink>& link) override;
    void logEventTrouble(const std::string& line) override { logOnChange(line); }

    /// Gets the number of the question and the answer; null when the connection was lost before that came.
    using Answered = std::function<void(std::uint64_t, const wire::Frame*)>;
    std::uint64_t ask(wire::Frame request, Answered answered);
    bool handleAnswer(const wire::Frame& frame);
    void answer(std::uint64_t number, const wire::Frame& frame);
    void dropQuestions();

    /// @return the monitor's number; 0 when the link is not up
    std::uint64_t beginMonitor(const wire::Frame& request, const std::set<std::string>& classes,
                               const MonitorHandlerPtr& handler);
    /// @param number 0: of one that was not begun
    void stopMonitor(std::uint64_t number);
    void takeSample(wire::CounterSample sample);
    void takeLateSample(const wire::CounterSample& sample);
    void logTooLarge();

    void noteEventFailure();
    void tellEventFailure(const std::shared_ptr<EventLink>& link);
    std::vector<std::shared_ptr<EventLink>> takeEventLinks();

    const std::shared_ptr<Loop> loop_;
    const boost::intrusive_ptr<KXLEnvCache> cache_;
    VocabularyStore vocabularies_;
    Guarded<KXLEID> serverEid_;

    // Written by the loop thread, for callers that must not wait.
    std::atomic<bool> isUp_{false};
    std::atomic<bool> isFilled_{false};  ///< a kept attempt is complete

    Patience patience_;
    Turn initializing_;  ///< one initialize() at a time; never taken on the loop thread

    // ---- loop thread only ----
    Phase phase_ = Phase::Idle;
    KXLConnectionInfo info_;
    HandlerPtr handler_;
    boost::intrusive_ptr<KXLRequestContext> handlerContext_;
    std::shared_ptr<InitializeAttempt> attempt_;  ///< set until the first Up
    bool isKept_ = false;                         ///< the attempt's caller has given up; it goes on for the next one
    bool isMoving_ = false;                       ///< the agent has sent something since then
    std::shared_ptr<InitializeAttempt> heldFor_;  ///< its initialize() has not returned: deliveries wait
    std::deque<std::function<void()>> deferred_;

    std::shared_ptr<StreamSocket> connecting_;
    std::shared_ptr<FrameConnection> connection_;
    EnvFeed feed_;
    bool haveSnapshot_ = false;
    bool haveVocabularies_ = false;
    wire::VocabularySet newVocabularies_;  ///< of a link that is not up yet
    boost::intrusive_ptr<KXLConnectionPrototype> peer_;
    KXLEID helloEid_;
    bool heardSinceCheck_ = false;
    std::string lastLogged_;

    std::vector<std::weak_ptr<EventLink>> eventLinks_;
    Clock::time_point nextEventLink_;  ///< no event connection is made before
    ReconnectBackoff eventBackoff_;

    std::map<std::uint64_t, Answered> questions_;  ///< by the number of the request
    std::uint64_t lastRequest_ = 0;
    Monitors monitors_{[this](std::function<void()> delivery) { deliver(std::move(delivery)); }};
    SampleAssembler samples_;  ///< by monitor, or by the number of the request that is answered

    boost::asio::steady_timer timer_;
    std::uint64_t timerTicket_ = 0;  ///< tells an expiry that was queued before the timer was set anew
    ReconnectBackoff backoff_;
};

}  // namespace kx::client
