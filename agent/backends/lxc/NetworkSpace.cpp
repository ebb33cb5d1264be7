#include "agent/backends/lxc/NetworkSpace.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace kx::agent::lxc {
namespace {

constexpr const char* kOwnSpace = "/proc/thread-self/ns/net";

std::string pathOf(pid_t pid) {
    return fmt::format("/proc/{}/ns/net", pid);
}

OwnedDescriptor openSpace(const char* path) {
    return OwnedDescriptor(::open(path, O_RDONLY | O_CLOEXEC));
}

}  // namespace

NetworkSpaceId networkSpaceOf(pid_t pid) {
    struct stat status {};
    return ::stat(pathOf(pid).c_str(), &status) == 0 ? NetworkSpaceId{status.st_dev, status.st_ino} : NetworkSpaceId{};
}

OwnedDescriptor openNetworkSpace(pid_t pid) {
    return openSpace(pathOf(pid).c_str());
}

NetworkSpaceId idOf(int space) {
    struct stat status {};
    return ::fstat(space, &status) == 0 ? NetworkSpaceId{status.st_dev, status.st_ino} : NetworkSpaceId{};
}

NetworkTraveller::NetworkTraveller() : home_(openSpace(kOwnSpace)) {
    if (!home_) {
        throw std::runtime_error(fmt::format("{}: {}", kOwnSpace, std::strerror(errno)));
    }
    homeId_ = idOf(home_.get());
    firstId_ = networkSpaceOf(1);
}

int NetworkTraveller::inside(int space, const std::function<void()>& work) {
    if (::setns(space, CLONE_NEWNET) != 0) {
        return errno;
    }
    away_ = true;
    try {
        work();
    } catch (...) {
        comeHome();
        throw;
    }
    comeHome();
    return 0;
}

bool NetworkTraveller::comeHome() {
    if (away_ && ::setns(home_.get(), CLONE_NEWNET) == 0) {
        away_ = false;
    }
    return !away_;
}

}  // namespace kx::agent::lxc
