#include "agent/backends/lxc/Descriptors.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "agent/base/Worker.h"

namespace kx::agent::lxc {

OwnedDescriptor descriptorOrThrow(int number, const char* what) {
    if (number < 0) {
        throw std::runtime_error(fmt::format("{}: {}", what, std::strerror(errno)));
    }
    return OwnedDescriptor(number);
}

OwnedDescriptor makeEventDescriptor() {
    return descriptorOrThrow(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd");
}

int waitForEvents(int poll, std::span<epoll_event> events, int timeoutMs) {
    const Worker::Pause pause;
    return ::epoll_wait(poll, events.data(), static_cast<int>(events.size()), timeoutMs);
}

OwnedDescriptor openPidfd(pid_t pid) {
    return OwnedDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

bool hasEnded(int pidfd) {
    pollfd query{pidfd, POLLIN, 0};
    return ::poll(&query, 1, 0) != 0;
}

}  // namespace kx::agent::lxc
