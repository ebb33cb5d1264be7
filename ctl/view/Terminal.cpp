#include "ctl/view/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace kx::ctl {
namespace {

std::string_view environment(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? std::string_view() : std::string_view(value);
}

}  // namespace

bool isTerminal(int descriptor) {
    return ::isatty(descriptor) == 1;
}

std::optional<TerminalSize> terminalSize(int descriptor) {
    if (!isTerminal(descriptor)) {
        return std::nullopt;
    }
    TerminalSize size;
    winsize told{};
    if (::ioctl(descriptor, TIOCGWINSZ, &told) == 0 && told.ws_col != 0 && told.ws_row != 0) {
        size = {told.ws_col, told.ws_row};
    }
    return size;
}

std::optional<std::size_t> tableRoom(int descriptor) {
    const auto size = terminalSize(descriptor);
    return size ? std::optional(size->columns) : std::nullopt;
}

bool wantsColors(int descriptor, bool noColor) {
    const std::string_view kind = environment("TERM");
    return !noColor && environment("NO_COLOR").empty() && isTerminal(descriptor) && !kind.empty() && kind != "dumb";
}

}  // namespace kx::ctl
