// Tells when containers' disk quotas run out (see QuotaAlarms.h). The kernel tells nobody but the process that it
// refuses, so the quotas are looked at every few seconds; one that thousands of containers have costs some
// milliseconds.
//
// Threads: setTargets() by the owner, one thread, at once. A thread of this object's own calls the sink; the reader is
// called on those of DetachedCalls, several at once, since a disk may keep it waiting, perhaps for ever.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "agent/alerts/Alert.h"
#include "agent/backends/lxc/DiskQuota.h"
#include "agent/backends/lxc/QuotaAlarms.h"
#include "agent/base/DetachedCalls.h"
#include "agent/base/Worker.h"

namespace kx::agent::lxc {

/// Containers' root folders, seen from the host, by their EIDs; empty: there is none.
using QuotaTargets = std::map<Eid, std::string>;

/// Watches from its construction to its destruction.
class QuotaWatch {
public:
    using Reader = std::function<QuotaReading(const std::string& rootFolder)>;

    /// @param sink gets the signals, on this object's thread
    /// @param reader readDiskQuota(), but in tests
    /// @param period between looks
    /// @throws std::system_error when there can be no thread
    explicit QuotaWatch(std::function<void(AlertSignal)> sink, Reader reader = readDiskQuota,
                        std::chrono::milliseconds period = std::chrono::seconds(5));

    /// @brief Stops and joins the thread. What is raised stays raised.
    ~QuotaWatch();

    QuotaWatch(const QuotaWatch&) = delete;
    QuotaWatch& operator=(const QuotaWatch&) = delete;

    /// @brief Says which containers run. One that no longer does is looked at until nothing is raised about it: its
    /// files still use what they use, and may be deleted.
    void setTargets(QuotaTargets targets);

private:
    struct Watched {
        std::string rootFolder;
        QuotaAlarms alarms;
    };

    void run();
    bool isEndingWithin(std::unique_lock<std::mutex>& lock, std::chrono::milliseconds time);
    void take();
    void lookAtAll();
    QuotaTargets copyOfTargets();
    void look(const Eid& eid, const QuotaReading& reading);

    const std::function<void(AlertSignal)> sink_;
    const Reader reader_;
    const std::chrono::milliseconds period_;

    std::mutex mutex_;  ///< over the next three, held for moments
    std::condition_variable changed_;
    QuotaTargets targets_;
    bool ending_ = false;

    std::map<Eid, Watched> watched_;    ///< the thread's own
    DetachedCalls readings_{"quotas"};  ///< likewise

    Worker thread_;
};

}  // namespace kx::agent::lxc
