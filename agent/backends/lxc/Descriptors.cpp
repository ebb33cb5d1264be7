#include "agent/backends/lxc/Descriptors.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

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

OwnedDescriptor openPidfd(pid_t pid) {
    return OwnedDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

bool hasEnded(int pidfd) {
    pollfd query{pidfd, POLLIN, 0};
    return ::poll(&query, 1, 0) != 0;
}

}  // namespace kx::agent::lxc
