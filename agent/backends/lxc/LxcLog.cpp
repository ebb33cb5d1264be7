#include "agent/backends/lxc/LxcLog.h"

#include "agent/base/Log.h"

namespace kx::agent::lxc {

LogSink agentLog() {
    return [](Severity severity, const std::string& line) {
        switch (severity) {
            case Severity::Info:
                log::info("lxc: " + line);
                break;
            case Severity::Warning:
                log::warning("lxc: " + line);
                break;
            case Severity::Error:
                log::error("lxc: " + line);
                break;
        }
    };
}

}  // namespace kx::agent::lxc
