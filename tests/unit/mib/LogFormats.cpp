#include "LogFormats.h"

#include <atomic>
#include <cstdarg>

#include "mib/NetSnmp.h"

namespace {

std::atomic<kx::test::LogFormats*> current{nullptr};

}  // namespace

/// Stands before the library's own function of that name, and does what that does.
extern "C" int snmp_log(int priority, const char* format, ...) {
    kx::test::LogFormats* const formats = current;
    if (formats != nullptr) {
        formats->add(format);
    }
    va_list arguments;
    va_start(arguments, format);
    const int result = snmp_vlog(priority, format, arguments);
    va_end(arguments);
    return result;
}

namespace kx::test {

LogFormats::LogFormats() {
    current = this;
}

LogFormats::~LogFormats() {
    current = nullptr;
}

}  // namespace kx::test
