// Collects what is logged through the agent library.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "mib/NetSnmp.h"

namespace kx::test {

/// @brief While it lives, log lines come here and go nowhere else. One at a time.
class LogCapture {
public:
    using Line = std::pair<int, std::string>;

    LogCapture() {
        snmp_disable_log();
        snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, &LogCapture::take, this);
        snmp_enable_calllog();
    }
    ~LogCapture() {
        snmp_disable_calllog();
        snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, &LogCapture::take, this, 1);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// Priority and text of each line, in order.
    const std::vector<Line>& lines() const { return lines_; }

private:
    static int take(int, int, void* message, void* self) {
        const auto* const entry = static_cast<const snmp_log_message*>(message);
        static_cast<LogCapture*>(self)->lines_.emplace_back(entry->priority, entry->msg);
        return 0;
    }

    std::vector<Line> lines_;
};

}  // namespace kx::test
