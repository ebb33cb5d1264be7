#include "ctl/Output.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include "ctl/ExitCode.h"

namespace kx::ctl {

Output::Result Output::writeLine(std::string line) {
    return write(line += '\n');
}

Output::Result Output::write(std::string_view text) {
    std::string_view rest = text;
    while (!rest.empty()) {
        const Result ready = waitUntilWritable();
        if (ready != Result::Written) {
            return ready;
        }
        // A pipe that is writable takes this much without waiting, and takes it as a whole.
        const ssize_t written = ::write(descriptor_, rest.data(), std::min<std::size_t>(rest.size(), PIPE_BUF));
        if (written >= 0) {
            rest.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EPIPE) {
            return Result::Closed;
        } else if (errno != EINTR && errno != EAGAIN) {
            throw Failure(ExitCode::Refused, std::string("cannot write: ") + std::strerror(errno));
        }
    }
    return Result::Written;
}

Output::Result Output::writeLines(const std::vector<std::string>& lines) {
    Result result = Result::Written;
    for (std::size_t at = 0; at < lines.size() && result == Result::Written; ++at) {
        result = writeLine(lines[at]);
    }
    return result;
}

Output::Result Output::waitUntilWritable() const {
    std::array<pollfd, 2> watched{{{descriptor_, POLLOUT, 0}, {stop_, POLLIN, 0}}};
    while (::poll(watched.data(), watched.size(), -1) < 0) {
        if (errno != EINTR) {
            return Result::Closed;
        }
    }
    return watched[1].revents != 0 ? Result::Stopped : Result::Written;
}

}  // namespace kx::ctl
