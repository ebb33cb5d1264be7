// The subscription to the agent's events, and the dispatcher that its receivers are registered in.
//
// Thread promise: start() and stop() from any thread. handleMessage(), handleFailure() and the restart timer run on the
// event loop's thread. The link replaces a subscriber with each connection and carries the receivers over, so a
// receiver outlives every subscriber it was registered in.
//
// Locks: `lock` guards `stopped` and `connection` in start() and stop(). handleFailure() clears `connection` without
// it: it runs on the loop's thread, where all else that could touch the connection of a started subscriber runs too,
// and a start() that is waiting for the loop would otherwise wait for itself.
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

/// @brief Whose events are subscribed to, and through what.
class KXLSubscriberBase : public virtual KXLRefCounter {
public:
    KXLSubscriberBase(const KXLEID& subscribedEid, boost::intrusive_ptr<KXLAccessProviderPrototype> accessProvider)
        : eid(subscribedEid), provider(std::move(accessProvider)) {}

    const KXLEID& getEID() const { return eid; }

protected:
    const KXLEID eid;
    const boost::intrusive_ptr<KXLAccessProviderPrototype> provider;
};

/// @brief A subscription to events of type T. It restarts itself when its connection fails: at once when a message has
/// come since the last restart, after twice the time since then otherwise, never later than after 30 seconds. The order
/// of the virtual functions is part of the contract.
template <typename T>
class KXLSubscriber : public KXLSubscriberBase, public KXLTaskHandlerPrototype, public virtual KXLDispatcher<T> {
public:
    /// @brief Starts a subscriber again when its time has come.
    class RestartTimeoutHandlerPrototype : public KXLTimeoutHandlerPrototype {
    public:
        explicit RestartTimeoutHandlerPrototype(boost::intrusive_ptr<KXLSubscriber> restarted)
            : subscriber(std::move(restarted)) {}

        /// A subscriber that was stopped meanwhile stays stopped.
        void handleTimeout() override { subscriber->start(true); }

    private:
        const boost::intrusive_ptr<KXLSubscriber> subscriber;
    };

    /// @param subscribedEid whose events; KXLEID::EID_INVALID in the placeholder that only carries receivers
    /// @param accessProvider null in the placeholder
    /// @param opensOwnConnection whether the subscription gets a connection of its own, with `info`
    /// @param info null: none
    KXLSubscriber(const KXLEID& subscribedEid, boost::intrusive_ptr<KXLAccessProviderPrototype> accessProvider,
                  bool opensOwnConnection, const KXLConnectivityInfo* info)
        : KXLSubscriberBase(subscribedEid, std::move(accessProvider)), ownConnection(opensOwnConnection) {
        if (info != nullptr) {
            connectivity = *info;
        }
    }

    /// @brief The subscription is not wanted any more; a later restart does not undo this.
    virtual void stop();

    /// @brief The subscription is wanted.
    /// @return see start(bool)
    virtual int start() { return start(false); }

    /// @brief Opens the connection and subscribes on it, unless there is one already. A refused subscription leaves the
    /// connection: it is not tried again before that has failed.
    /// @param restart true: only if stop() was not called
    /// @return 0, also when there was nothing to do; -1 when the provider has no access, or no connection came about
    int start(bool restart);

    void handleMessage(KXLMessageTaskPrototype& task) override;
    void handleFailure() override;

    /// @return true before the first start() and after stop()
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
            // A parser that succeeds without an event breaks its promise: the pointer's own assertion ends the process.
            this->handleEvent(*event);
        }
    }
}

// The default parser is not used here: an event of an unknown type is nothing that a receiver could have asked for.
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
    connection.reset();  // without the lock, see above
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
    // A clock that was set back gives a delay of 0 or less, which is passed on: that restarts at once.
    if (delay > longestDelaySeconds) {
        delay = longestDelaySeconds;
    }
    lastRestart = now;
    const auto accessObject = access();
    if (!accessObject) {
        return;  // the link installs a new subscriber when there is access again
    }
    const boost::intrusive_ptr<RestartTimeoutHandlerPrototype> timeout(
        new RestartTimeoutHandlerPrototype(boost::intrusive_ptr<KXLSubscriber>(this)));
    timeout->set(static_cast<long>(delay), 0);
    accessObject->registerTimeout(timeout);
}
