#include "traps/UnsentAlerts.h"

#include "mib/NetSnmp.h"

UnsentAlerts& UnsentAlerts::instance() {
    static UnsentAlerts theOne;
    return theOne;
}

void UnsentAlerts::add(const char* why) {
    const std::lock_guard guard(mutex_);
    if (why != why_) {
        logCount();
        why_ = why;
        snmp_log(LOG_WARNING, "alerts are dropped until traps can be sent again: %s\n", why);
    }
    ++count_;
}

void UnsentAlerts::end() {
    const std::lock_guard guard(mutex_);
    logCount();
}

void UnsentAlerts::logCount() {
    if (why_ != nullptr) {
        snmp_log(LOG_WARNING, "%lu alerts not sent as traps: %s\n", count_, why_);
    }
    why_ = nullptr;
    count_ = 0;
}
