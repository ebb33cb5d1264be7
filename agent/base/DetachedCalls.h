// Calls that may never return: reading a file on a dead network file system, or on one that a hung process serves.
//
// A thread that waits in the kernel for such a file system cannot be interrupted. So each call is made on a helper
// thread that can be abandoned: another takes its place, and neither the caller nor the end of the process waits for
// it. There is one call of a key at a time, so that one key costs one thread at most.
//
// Threads: one thread owns an object. Calls are made on helper threads, what they leave to be done is run by the owner.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace kx::agent {

/// Makes calls from its construction to its destruction.
class DetachedCalls {
public:
    /// What a call leaves to be done on the owner's thread.
    using Finish = std::function<void()>;

    /// Made on a helper thread. It may outlive its maker, so it owns all it uses; the Finish may refer to the owner.
    using Call = std::function<Finish()>;

    /// How long a call may take before others need not wait for it.
    static constexpr std::chrono::milliseconds kPatience{100};

    /// Most helper threads at a time. When each has a call that hangs further calls wait.
    static constexpr std::size_t kMaxThreads = 256;

    /// @param name of the helper threads, see startThread()
    /// @throws std::runtime_error, std::system_error when the system has no descriptor or thread left
    explicit DetachedCalls(const std::string& name);

    /// @brief Waits for kPatience at most; drops calls that were not begun, and what others leave to be done.
    ~DetachedCalls();

    DetachedCalls(const DetachedCalls&) = delete;
    DetachedCalls& operator=(const DetachedCalls&) = delete;

    /// @brief Makes a call as soon as a thread is free.
    /// @return false, and nothing is done, when the previous call of that key has not been finished
    bool start(const std::string& key, Call call);

    /// @brief Runs what calls that have returned left to be done.
    void finish();

    /// @brief Waits until every call has returned that has not been under way for kPatience, then finish().
    /// @param limit how long at most
    void finishAll(std::chrono::milliseconds limit);

    /// @return for how long the call of a key has been under way on a thread; 0: it is not
    std::chrono::milliseconds timeOf(const std::string& key) const;

    /// @return a descriptor that is readable while there is something to finish
    int descriptor() const;

private:
    struct Shared;
    const std::shared_ptr<Shared> shared_;
};

}  // namespace kx::agent
