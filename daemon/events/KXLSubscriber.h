// Keeps a subscription to the agent's events alive, and passes what arrives to receivers.
//
// Threads: any may call start() and stop(); the client library calls the rest on its loop thread. A subscriber is used
// for one connection to the agent. The next one gets its receivers.
//
// Locking: start() and stop() may run on different threads, so `stopped` and `connection` are changed under `lock`
// there. The exception is handleFailure(), which must not wait: a connection fails on the loop thread, and whoever
// holds `lock` may be in a call of the library. No other callback can run at that time.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <boost/shared_ptr.hpp>
#include <ctime>
#include <memory>
#include <mutex>

#include "events/KXLDispatcher.h"

#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLAsyncConnectionPrototype.h>
#include <kxl/KXLClock.h>
#include <kxl/KXLConnectionInfo.h>
#include <kxl/KXLDerivedParserFactory.h>
#include <kxl/KXLTaskHandlerPrototype.h>
#include <kxl/KXLTimeoutHandlerPrototype.h>

/// @brief The agent whose events are wanted, and the way to it. The order of the virtual functions is part of the
/// contract.
class KXLSubscriberBase : public virtual KXLRefCounter {
public:
    /// See KXLSubscriber.
    virtual void stop() = 0;
    virtual int start() = 0;

    KXLSubscriberBase(const KXLEID& subscribedEid, boost::intrusive_ptr<KXLAccessProviderPrototype> accessProvider)
        : eid(subscribedEid), provider(std::move(accessProvider)) {}

    const KXLEID& getEID() const { return eid; }

protected:
    const KXLEID eid;
    const boost::intrusive_ptr<KXLAccessProviderPrototype> provider;
};

/// @brief Subscribes to events of type T, again and again: a connection that worked is replaced as soon as it fails,
/// one that never delivered a message after twice the time since the attempt before, 30 s at most. The order of the
/// virtual functions is part of the contract.
template <typename T>
class KXLSubscriber : public KXLSubscriberBase, public KXLTaskHandlerPrototype, public virtual KXLDispatcher<T> {
public:
    /// @brief The end of that pause.
    class RestartTimeoutHandlerPrototype : public KXLTimeoutHandlerPrototype {
    public:
        explicit RestartTimeoutHandlerPrototype(boost::intrusive_ptr<KXLSubscriber> restarted)
            : subscriber(std::move(restarted)) {}

        void handleTimeout() override { subscriber->start(true); }

    private:
        const boost::intrusive_ptr<KXLSubscriber> subscriber;
    };

    /// @param subscribedEid the agent; KXLEID::EID_INVALID where nothing will be subscribed to, only receivers kept
    /// @param accessProvider null in that case
    /// @param opensOwnConnection true: do not share the agent's event connection, open one to `info`
    /// @param info may be null
    KXLSubscriber(const KXLEID& subscribedEid, boost::intrusive_ptr<KXLAccessProviderPrototype> accessProvider,
                  bool opensOwnConnection, const KXLConnectivityInfo* info)
        : KXLSubscriberBase(subscribedEid, std::move(accessProvider)), ownConnection(opensOwnConnection) {
        if (info != nullptr) {
            connectivity = *info;
        }
    }

    /// @brief Unsubscribes, for good as far as pending restarts are concerned.
    void stop() override;

    /// @brief start(false)
    int start() override { return start(false); }

    /// @brief Subscribes, on a connection that it opens first where there is none. Where the connection stands but the
    /// subscription was refused, only the connection's failure leads to another attempt.
    /// @param restart an automatic attempt, which does nothing after stop(); false revokes stop()
    /// @return 0, or -1 when it could not subscribe
    int start(bool restart);

    void handleMessage(KXLMessageTaskPrototype& task) override;
    void handleFailure() override;

    /// @return whether no subscription is wanted at present
    bool isStopped() const {
        const std::lock_guard guard(lock);
        return stopped;
    }

private:
    static constexpr std::time_t longestDelaySeconds = 30;

    boost::intrusive_ptr<KXLTaskHandlerPrototype> self() { return boost::intrusive_ptr<KXLTaskHandlerPrototype>(this); }
    boost::intrusive_ptr<KXLAccessPrototype> access() const { return provider ? provider->getAccess() : nullptr; }

    void dispatch(KXLMessageReaderPrototype& reader);
    static int parse(KXLMessageReaderPrototype& reader, boost::shared_ptr<const T>& event);
    void scheduleRestart(std::time_t now);

    const bool ownConnection;
    bool stopped = true;
    mutable KXLLock lock;
    std::time_t lastRestart = 0;  ///< 0: none since the last message; the loop thread's
    boost::intrusive_ptr<KXLAsyncConnectionPrototype> connection;
    KXLConnectivityInfo connectivity;
};

template <typename T>
int KXLSubscriber<T>::start(bool restart) {
    const std::lock_guard guard(lock);
    if (!restart) {
        stopped = false;
    }
    if (connection || stopped) {
        return 0;
    }
    const auto accessObject = access();
    if (!accessObject) {
        return -1;
    }
    if (ownConnection) {
        const bool hasAddress = !connectivity.getAddress().empty();
        connection =
            accessObject->openDedicatedConnection(eid, KXLEID::EID_INVALID, hasAddress ? &connectivity : nullptr);
    } else {
        connection = accessObject->openEventConnection(eid, "");
    }
    return connection && connection->subscribe(T::subscriptionName, self()) == 0 ? 0 : -1;
}

template <typename T>
void KXLSubscriber<T>::stop() {
    std::unique_lock guard(lock);
    stopped = true;
    const boost::intrusive_ptr<KXLAsyncConnectionPrototype> closed = std::move(connection);
    connection.reset();
    guard.unlock();
    if (!closed) {
        return;
    }
    closed->unsubscribe(T::subscriptionName, self());
    if (ownConnection) {
        closed->close();
    }
}

template <typename T>
void KXLSubscriber<T>::handleMessage(KXLMessageTaskPrototype& task) {
    lastRestart = 0;
    const std::unique_ptr<KXLMessageReaderPrototype> reader = task.makeReader();
    if (reader->enterField(T::listField) == 0) {
        dispatch(*reader);
    }
    task.finish();
}

template <typename T>
void KXLSubscriber<T>::dispatch(KXLMessageReaderPrototype& reader) {
    for (int found = reader.firstElement(T::eventTag); found == 0; found = reader.nextElement(T::eventTag)) {
        boost::shared_ptr<const T> event;
        if (parse(reader, event) == 0) {
            // Null only if a parser is broken; boost then aborts on the dereference.
            this->handleEvent(*event);
        }
    }
}

// Types without a parser are skipped, not passed to the factory's default: no receiver knows what to do with them.
template <typename T>
int KXLSubscriber<T>::parse(KXLMessageReaderPrototype& reader, boost::shared_ptr<const T>& event) {
    const auto& parsers = KXLDerivedParserFactory<T, T>::factoryInternalData().parsers;
    const auto parser = parsers.find(reader.getTypeName());
    if (parser == parsers.end()) {
        return -1;
    }
    T* raw = nullptr;
    const int result = parser->second->parse(reader, raw);
    event.reset(raw);
    return result;
}

template <typename T>
void KXLSubscriber<T>::handleFailure() {
    connection.reset();  // unlocked: see Locking
    for (const auto& [key, receiver] : this->copyReceivers()) {
        receiver->subscriptionLost(eid);
    }
    const std::time_t now = kxlTime();
    if (lastRestart == 0) {
        lastRestart = now;
        start(true);
        return;
    }
    scheduleRestart(now);
}

template <typename T>
void KXLSubscriber<T>::scheduleRestart(std::time_t now) {
    std::time_t delay = 2 * (now - lastRestart);
    // May be negative after the clock was set back. A timeout in the past fires at once, which is fine.
    if (delay > longestDelaySeconds) {
        delay = longestDelaySeconds;
    }
    lastRestart = now;
    const auto accessObject = access();
    if (!accessObject) {
        return;  // the agent is gone; with its return comes a new subscriber
    }
    const boost::intrusive_ptr<RestartTimeoutHandlerPrototype> timeout(
        new RestartTimeoutHandlerPrototype(boost::intrusive_ptr<KXLSubscriber>(this)));
    timeout->set(static_cast<long>(delay), 0);
    accessObject->registerTimeout(timeout);
}
