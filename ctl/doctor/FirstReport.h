// Waiting for a monitor's first report.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <vector>

#include <kxl/KXLMonitorAgent.h>

namespace kx::ctl {

/// @brief The handler of a monitor that is started for its first report. Called on the client library's thread.
class FirstReport : public KXLMonitorAgent::Handler {
public:
    void handleConnected() override {}
    void handleError(int) override;
    void handleData(const std::vector<KXLMonitorData>& data) override;

    /// @brief Waits on the main thread.
    /// @return the report; nothing when none has come in time, or none will
    std::optional<std::vector<KXLMonitorData>> wait(std::chrono::milliseconds deadline);

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<std::vector<KXLMonitorData>> report_;
    bool hasFailed_ = false;
};

}  // namespace kx::ctl
