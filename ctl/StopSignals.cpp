#include "ctl/StopSignals.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "ctl/ExitCode.h"

namespace kx::ctl {
namespace {

/// Where the handler writes. Set before the handlers are, and left until they are gone.
volatile std::sig_atomic_t handlersPipe = -1;

extern "C" void tell_stop(int /*signo*/) {
    const int saved = errno;
    [[maybe_unused]] const ssize_t ignored = ::write(handlersPipe, "", 1);  // a full pipe has told it already
    errno = saved;
}

}  // namespace

StopSignals::StopSignals() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0) {
        throw Failure(ExitCode::Refused, std::string("cannot make a pipe: ") + std::strerror(errno));
    }
    reading_ = ends[0];
    writing_ = ends[1];
    handlersPipe = writing_;
    // Without SA_RESTART: a write to an output that takes nothing must end too.
    struct sigaction action {};
    action.sa_handler = tell_stop;
    ::sigaction(SIGINT, &action, &beforeInterrupt_);
    ::sigaction(SIGTERM, &action, &beforeTerminate_);
}

StopSignals::~StopSignals() {
    ::sigaction(SIGINT, &beforeInterrupt_, nullptr);
    ::sigaction(SIGTERM, &beforeTerminate_, nullptr);
    handlersPipe = -1;
    ::close(reading_);
    ::close(writing_);
}

}  // namespace kx::ctl
