// One event connection to the agent: its socket, its handshake, and whom it delivers to.
//
// Thread promise: subscribe(), unsubscribe() and close() from any thread, at once; everything else, and all state below
// the line in the class, belongs to the loop thread. The lock guards the list of handlers only and is never held while
// one of them runs.
//
//   Made ──connect──► Connecting ─► Handshake ─► Subscribing ─► Subscribed
//                         └──────────────┴────────────┴─────────────┴─ failed ─► Failed
//   A message is delivered in parts, each when the loop's event gate is open; its connection is not read meanwhile, so
//   that an agent whose events are not taken sees its own buffer fill. It is acknowledged when every handler has
//   finished every part of it and of those before. What comes before the first handler waits for it.
//
//   close() leads to Closed from everywhere. A link is never connected twice: who wants another one opens it.
#pragma once

#include <boost/asio/steady_timer.hpp>
#include <boost/intrusive_ptr.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <kxl/KXLConnectionInfo.h>
#include <kxl/KXLTaskHandlerPrototype.h>

#include "client/src/events/MessageParts.h"
#include "client/src/loop/Loop.h"
#include "client/src/transport/FrameConnection.h"

namespace kx::client {

class EventLink;
using TaskHandlerPtr = boost::intrusive_ptr<KXLTaskHandlerPrototype>;

/// @brief Whose access point a link belongs to. Loop thread.
class EventLinkOwner {
public:
    virtual ~EventLinkOwner() = default;

    /// @brief Runs a delivery in its turn.
    virtual void deliver(std::function<void()> delivery) = 0;
    /// @brief The link has failed; the owner calls tellFailure() when it is its turn.
    virtual void eventLinkFailed(const std::shared_ptr<EventLink>& link) = 0;
    /// @brief Logs a line about the agent, once until another is logged.
    virtual void logEventTrouble(const std::string& line) = 0;
};

class EventLink : public std::enable_shared_from_this<EventLink>, public FrameListener {
public:
    /// @param consumer under what name the agent keeps alerts that are not acknowledged, if it can; empty: it keeps
    /// none
    EventLink(std::shared_ptr<Loop> loop, std::weak_ptr<EventLinkOwner> owner, std::string consumer);

    /// @brief Adds a handler. One that comes after the failure is told of it at once, on the loop.
    /// @return false when the loop does not run
    bool subscribe(const TaskHandlerPtr& handler);
    /// @brief Removes a handler; the link closes with its last.
    /// @return false when it was not there
    bool unsubscribe(const TaskHandlerPtr& handler);
    /// @brief Closes the socket and forgets the handlers.
    void close();
    /// @brief See KXLAsyncConnectionPrototype. Loop thread, before the link has connected.
    void includeSince(std::uint64_t sinceMs) { sinceMs_ = sinceMs; }

    /// @brief Connects and subscribes to the agent's events.
    /// @param pause waits this long first
    void connect(const KXLConnectivityInfo& info, std::chrono::milliseconds pause);
    /// @brief Closes the socket of a link that is of no use any more. The handlers stay for tellFailure().
    void fail();
    /// @brief Tells the handlers that are still there that the link has failed, and forgets them.
    void tellFailure();

private:
    enum class Phase { Made, Connecting, Handshake, Subscribing, Subscribed, Failed, Closed };

    std::vector<TaskHandlerPtr> handlers() const;
    std::vector<TaskHandlerPtr> takeHandlers();

    void frameReceived(const FrameConnection& connection, const wire::Frame& frame) override;
    bool payloadReceived(const FrameConnection& connection, std::string_view payload) override;
    void connectionEnded(const FrameConnection& connection) override;
    void connectionMalformed(const FrameConnection& connection, const std::string& reason) override;

    void open(const KXLConnectivityInfo& info);
    void connected(boost::system::error_code error, const std::shared_ptr<StreamSocket>& socket);
    void takeHello(const wire::Frame& frame);
    void takeData(const wire::Frame& frame);
    void takeSubscribed();
    void answerPing(const wire::Frame& ping);
    void deliver(void (EventLink::*delivery)());
    void handSubscribed();
    void takeMessage(std::string_view message);
    bool mayDeliver() const;
    void deliverParts();
    void deliverPart();
    void waitForGate();
    void acknowledge();
    void readOn();
    void closeNow();
    void closeSocket();
    void failed();
    void failed(const std::string& reason);

    const std::shared_ptr<Loop> loop_;
    const std::weak_ptr<EventLinkOwner> owner_;
    const std::string consumer_;

    mutable std::mutex mutex_;
    std::vector<TaskHandlerPtr> handlers_;  ///< guarded by mutex_
    bool hadHandlers_ = false;              ///< likewise

    // ---- loop thread only ----
    Phase phase_ = Phase::Made;
    std::uint64_t sinceMs_ = 0;
    std::shared_ptr<StreamSocket> connecting_;
    std::shared_ptr<FrameConnection> connection_;
    boost::asio::steady_timer deadline_;     ///< from connect() to Subscribed
    std::unique_ptr<MessageParts> message_;  ///< that is being delivered
    bool isFinished_ = true;                 ///< every handler has finished whatever was delivered so far
    boost::asio::steady_timer gateTimer_;
};

}  // namespace kx::client
