#include "agent/base/Log.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <string>

namespace kx::agent::log {
namespace {

/// JOURNAL_STREAM names the journal's socket by device and inode. It is inherited by whatever a service starts, with
/// standard error perhaps redirected, so the numbers have to be compared.
bool isJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat info {};
    return stream != nullptr && ::fstat(STDERR_FILENO, &info) == 0 &&
           fmt::format("{}:{}", info.st_dev, info.st_ino) == stream;
}

void writeAll(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(STDERR_FILENO, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR) {
            return;
        }
        bytes.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
}

void write(int priority, std::string_view line) {
    std::string text = isJournal() ? fmt::format("<{}>{}\n", priority, line) : fmt::format("{}\n", line);
    std::replace_if(
        text.begin(), text.end() - 1, [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; }, '?');
    writeAll(text);
}

}  // namespace

void error(std::string_view line) {
    write(LOG_ERR, line);
}
void warning(std::string_view line) {
    write(LOG_WARNING, line);
}
void info(std::string_view line) {
    write(LOG_INFO, line);
}

}  // namespace kx::agent::log
