#include "ctl/top/TopTerminal.h"

#include <unistd.h>

#include <array>
#include <csignal>
#include <string_view>

namespace kx::ctl {
namespace {

constexpr std::string_view kEnter = "\x1b[?1049h\x1b[?25l\x1b[?7l";  // other screen, no cursor, lines do not wrap

/// Terminals that know synchronized output show nothing in between; others ignore it.
constexpr std::string_view kBeginDrawing = "\x1b[?2026h\x1b[H";
constexpr std::string_view kEndDrawing = "\x1b[?2026l";
constexpr std::string_view kLeave = "\x1b[?2026l\x1b[?7h\x1b[?25h\x1b[?1049l";

/// What a crash needs to know; set before it can happen.
struct Restore {
    int input = -1;  ///< -1: keys do not come from a terminal
    int output = -1;
    termios before{};
};
Restore restore;

/// From a signal handler too: only calls that may be made there.
void giveBack() {
    [[maybe_unused]] const ssize_t ignored = ::write(restore.output, kLeave.data(), kLeave.size());
    if (restore.input >= 0) {
        ::tcsetattr(restore.input, TCSANOW, &restore.before);
    }
}

constexpr std::array kCrashes{SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL};

extern "C" void give_back_and_die(int signo) {
    giveBack();
    ::raise(signo);  // the handler is gone by now
}

/// What was to happen before; a sanitizer, say, has handlers of its own.
std::array<struct sigaction, kCrashes.size()> beforeCrashes;

void setCrashHandlers() {
    struct sigaction action {};
    action.sa_handler = give_back_and_die;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (std::size_t at = 0; at < kCrashes.size(); ++at) {
        ::sigaction(kCrashes[at], &action, &beforeCrashes[at]);
    }
}

void resetCrashHandlers() {
    for (std::size_t at = 0; at < kCrashes.size(); ++at) {
        ::sigaction(kCrashes[at], &beforeCrashes[at], nullptr);
    }
}

}  // namespace

TopTerminal::TopTerminal(int input, Output& output) : input_(input), output_(output) {
    enter();
}

TopTerminal::~TopTerminal() {
    leave();
}

void TopTerminal::enter() {
    restore = {-1, output_.descriptor(), {}};
    termios raw{};
    if (::tcgetattr(input_, &raw) == 0) {
        restore.input = input_;
        restore.before = raw;
    }
    setCrashHandlers();
    isTaken_ = true;
    if (restore.input >= 0) {
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        raw.c_cc[VMIN] = 1;
        raw.c_cc[VTIME] = 0;
        ::tcsetattr(input_, TCSANOW, &raw);
    }
    output_.write(kEnter);
}

void TopTerminal::leave() {
    if (isTaken_) {
        giveBack();
        resetCrashHandlers();
        isTaken_ = false;
    }
}

// Each line is cleared before it is written: behind a line that is as wide as the terminal the cursor still stands on
// its last character. The last one is cleared with all that is below.
Output::Result TopTerminal::draw(const std::vector<std::string>& lines) {
    std::string all(kBeginDrawing);
    for (std::size_t at = 0; at < lines.size(); ++at) {
        all += (at == 0 ? "" : "\r\n") + std::string(at + 1 == lines.size() ? "\x1b[J" : "\x1b[K") + lines[at];
    }
    return output_.write(all.append(kEndDrawing));
}

}  // namespace kx::ctl
