// Event connections under test: an agent that sends events, and handlers that write down what they are called with.
#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <kxl/KXLEvent.h>

#include "client/src/loop/Loop.h"
#include "tests/unit/client/LinkFixture.h"

namespace kx::test {

using Calls = std::vector<std::string>;

/// What several handlers were called with, in one order.
class Journal {
public:
    void add(const std::string& call) {
        const std::lock_guard guard(lock_);
        calls_.push_back(call);
    }
    Calls calls() const {
        const std::lock_guard guard(lock_);
        return calls_;
    }
    bool becomes(const Calls& expected) const {
        return eventually([&] { return calls() == expected; });
    }
    void clear() {
        const std::lock_guard guard(lock_);
        calls_.clear();
    }
    bool has(const std::string& call) const {
        const Calls now = calls();
        return std::find(now.begin(), now.end(), call) != now.end();
    }

private:
    mutable std::mutex lock_;
    Calls calls_;
};

/// Writes the texts of alerts, and what else it is called with, into a journal.
class EventHandler : public KXLTaskHandlerPrototype {
public:
    EventHandler(std::string name, Journal& journal) : name_(std::move(name)), journal_(journal) {}

    void handleMessage(KXLMessageTaskPrototype& task) override {
        std::string texts = name_ + ":";
        const auto reader = task.makeReader();
        if (reader->enterField(KXLEvent::listField) == 0) {
            for (int at = reader->firstElement(KXLEvent::eventTag); at == 0;
                 at = reader->nextElement(KXLEvent::eventTag)) {
                texts += " " + textOf(*reader);
            }
        }
        task.finish();
        thread = std::this_thread::get_id();
        journal_.add(texts);
    }
    void handleFailure() override { journal_.add(name_ + " failed"); }
    void writeFinished() override { journal_.add(name_ + " subscribed"); }

    std::atomic<std::thread::id> thread;

private:
    static std::string textOf(KXLMessageReaderPrototype& reader) {
        std::string text;
        if (reader.enterField(wire::Event::kResourceAlertFieldNumber) == 0) {
            reader.getText(wire::ResourceAlert::kTextFieldNumber, text);
            reader.leaveField();
        }
        return text;
    }

    const std::string name_;
    Journal& journal_;
};

/// The link's handler, in the same journal; may act on what it hears.
class LinkHandler : public KXLRequestHandlerAgentPrototype {
public:
    explicit LinkHandler(Journal& journal) : journal_(journal) {}
    void handleConnected() override {
        journal_.add("link up");
        if (whenUp) {
            whenUp();
        }
    }
    void handleError(int) override {
        journal_.add("link lost");
        if (whenLost) {
            whenLost();
        }
    }

    std::function<void()> whenUp;
    std::function<void()> whenLost;

private:
    Journal& journal_;
};

using ConnectionPtr = boost::intrusive_ptr<KXLAsyncConnectionPrototype>;
using EventHandlerPtr = boost::intrusive_ptr<EventHandler>;
using EventScript = std::function<void(PeerSocket&)>;

/// @brief Serves one link after the other, and runs a script for each event connection that is subscribed.
inline ScriptedAgent::Script agentWith(EventScript events) {
    return [events = std::move(events)](PeerSocket& peer) {
        wire::Frame request;
        if (!shakeHands(peer, request)) {
            return;
        }
        if (request.has_event_subscribe()) {
            acceptSubscription(peer, request);
            events(peer);
        } else if (serveFirstData(peer, {})) {
            answerUntilClosed(peer);
        }
    };
}

inline EventScript sending(std::vector<wire::Frame> frames) {
    return [frames = std::move(frames)](PeerSocket& peer) {
        for (const wire::Frame& frame : frames) {
            peer.send(frame);
        }
        peer.readUntilClosed();
    };
}

inline wire::Frame alerts(const std::vector<std::string>& texts) {
    std::vector<wire::Event> events;
    for (const std::string& text : texts) {
        events.push_back(alertEvent(kServerEidBytes, text));
    }
    return eventFrame(events);
}

class EventConnections : public LinkFixture {
protected:
    explicit EventConnections(const client::Timeouts& timeouts = patient()) : LinkFixture(timeouts) {}
    ~EventConnections() override { loop->stop(); }

    /// Connecting is not what is tested here; on a busy machine it may take its time.
    static client::Timeouts patient() {
        client::Timeouts timeouts;
        timeouts.synchronous = std::chrono::seconds(10);
        return timeouts;
    }

    int bringUp(const std::string& path) {
        KXLConnectionInfo info;
        info.connectivity.setType("NamedPipe");
        info.connectivity.setAddress(path);
        return accessPoint->initializeSync(info, linkHandler, 0);
    }
    ConnectionPtr open() { return accessPoint->getAccess()->openEventConnection(accessPoint->getEID(), ""); }
    static int subscribe(const ConnectionPtr& connection, const EventHandlerPtr& handler) {
        return connection->subscribe(KXLEvent::subscriptionName, handler);
    }
    /// @brief Opens a connection and subscribes on it while the loop waits: what comes before there is a handler is
    /// nobody's, also that it is subscribed.
    ConnectionPtr openWith(const std::vector<EventHandlerPtr>& handlers) {
        return openWith(handlers, [this] { return open(); });
    }
    ConnectionPtr openWith(const std::vector<EventHandlerPtr>& handlers, const std::function<ConnectionPtr()>& opens) {
        std::promise<ConnectionPtr> opened;
        loop->loop()->post([&] {
            const ConnectionPtr connection = opens();
            for (const EventHandlerPtr& each : handlers) {
                EXPECT_EQ(subscribe(connection, each), 0);
            }
            opened.set_value(connection);
        });
        return opened.get_future().get();
    }
    EventHandlerPtr handlerNamed(const std::string& name) { return EventHandlerPtr(new EventHandler(name, journal)); }

    Journal journal;
    boost::intrusive_ptr<LinkHandler> linkHandler{new LinkHandler(journal)};
    EventHandlerPtr first = handlerNamed("first");
};

}  // namespace kx::test
