// The library's event loop.
//
// Thread promise: runs on one thread of its own, with every signal blocked, so that a signal always interrupts
// the program's own threads. start() and stop() belong to one owning thread.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <memory>

#include <kxl/KXLRefCounter.h>

namespace kx::client {
class Loop;
}

/// @brief Decides when events are delivered: back-pressure of a consumer that cannot always take them.
class KXLEventGatePrototype : public virtual KXLRefCounter {
public:
    /// @brief Asked on the loop's thread before events are delivered; must not wait.
    /// @return false: not now. Event connections are not read until it returns true; it is asked again every 20 ms.
    virtual bool isOpen() = 0;
};

/// @brief Delivers every callback of the library, save those inside KXLAccessPointPrototype::initializeSync.
class KXLEventLoopPrototype : public KXLRefCounter {
public:
    KXLEventLoopPrototype();
    /// Stops the loop if stop() was not called; nothing is delivered afterwards.
    ~KXLEventLoopPrototype() override;

    /// @brief Starts the loop's thread. A second call, or one after stop(), does nothing.
    virtual void start();

    /// @brief Stops the loop and waits for its thread; nothing is delivered once it has returned. It waits for a
    /// callback in progress, so the caller must hold no lock that a callback takes. Called on the loop's own
    /// thread it only asks the loop to end.
    virtual void stop();

    /// @brief Sets the gate that all event connections of this loop ask, in place of the one before. Any thread.
    /// @param gate null: events are always delivered
    virtual void setEventGate(boost::intrusive_ptr<KXLEventGatePrototype> gate);

    /// @brief Whether a thread is waiting for the loop: in a ...Sync call, in a counter query, or in stop(). A callback
    /// that waits for something itself polls this, and ends its wait as soon as it returns true. Any thread; at once.
    virtual bool isWaitedFor() const;

    /// @brief The loop behind this object, shared with the sessions that run on it.
    const std::shared_ptr<kx::client::Loop>& loop() const { return loop_; }

private:
    std::shared_ptr<kx::client::Loop> loop_;
};
