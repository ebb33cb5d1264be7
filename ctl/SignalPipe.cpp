#include "ctl/SignalPipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "ctl/ExitCode.h"

namespace kx::ctl {
namespace {

/// Where the handler writes, by signal. Set before the handlers are, and left until they are gone.
std::array<volatile std::sig_atomic_t, _NSIG> handlersPipes{};

extern "C" void tell_signal(int signo) {
    const int saved = errno;
    const auto byte = static_cast<unsigned char>(signo);
    // A full pipe has told it already.
    [[maybe_unused]] const ssize_t ignored = ::write(handlersPipes[static_cast<std::size_t>(signo)], &byte, 1);
    errno = saved;
}

}  // namespace

SignalPipe::SignalPipe(const std::vector<int>& signals) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        throw Failure(ExitCode::Refused, std::string("cannot make a pipe: ") + std::strerror(errno));
    }
    reading_ = ends[0];
    writing_ = ends[1];
    // Without SA_RESTART: a write to an output that takes nothing must end too.
    struct sigaction action {};
    action.sa_handler = tell_signal;
    for (const int signal : signals) {
        handlersPipes[static_cast<std::size_t>(signal)] = writing_;
        before_.push_back({signal, {}});
        ::sigaction(signal, &action, &before_.back().action);
    }
}

SignalPipe::~SignalPipe() {
    for (const Before& before : before_) {
        ::sigaction(before.signal, &before.action, nullptr);
        handlersPipes[static_cast<std::size_t>(before.signal)] = -1;
    }
    ::close(reading_);
    ::close(writing_);
}

std::vector<int> SignalPipe::takeAll() {
    std::array<unsigned char, 64> bytes{};
    std::vector<int> signals;
    for (ssize_t count = 0; (count = ::read(reading_, bytes.data(), bytes.size())) > 0;) {
        signals.insert(signals.end(), bytes.begin(), bytes.begin() + count);
    }
    return signals;
}

}  // namespace kx::ctl
