#include "ctl/doctor/FirstReport.h"

namespace kx::ctl {

void FirstReport::handleError(int) {
    const std::lock_guard guard(mutex_);
    hasFailed_ = true;
    changed_.notify_all();
}

void FirstReport::handleData(const std::vector<KXLMonitorData>& data) {
    const std::lock_guard guard(mutex_);
    if (!report_) {
        report_ = data;
    }
    changed_.notify_all();
}

std::optional<std::vector<KXLMonitorData>> FirstReport::wait(std::chrono::milliseconds deadline) {
    std::unique_lock guard(mutex_);
    changed_.wait_for(guard, deadline, [this] { return report_ || hasFailed_; });
    return report_;
}

}  // namespace kx::ctl
