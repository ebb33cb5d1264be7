// The library's event loop.
//
// Thread promise: runs on one thread of its own, with every signal blocked, so that a signal always interrupts
// the program's own threads. start() and stop() belong to one owning thread.
#pragma once

#include <memory>

#include <kxl/KXLRefCounter.h>

namespace kx::client {
class Loop;
}

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

    /// @brief The loop behind this object, shared with the sessions that run on it.
    const std::shared_ptr<kx::client::Loop>& loop() const { return loop_; }

private:
    std::shared_ptr<kx::client::Loop> loop_;
};
