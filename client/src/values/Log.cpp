#include "client/src/values/Log.h"

#include <syslog.h>

#include <atomic>

#include <kxl/KXLLog.h>

namespace {

// openlog() belongs to the program; without it syslog(3) uses the program's name.
void toSyslog(int priority, const char* line) {
    syslog(priority, "%s", line);
}

std::atomic<KXLLogHandler> logHandler{toSyslog};

}  // namespace

void setKXLLogHandler(KXLLogHandler handler) {
    logHandler = handler != nullptr ? handler : toSyslog;
}

void kx::client::logWarning(const std::string& line) {
    logHandler.load()(LOG_WARNING, line.c_str());
}
