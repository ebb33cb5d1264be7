#include "agent/server/PeerIdentity.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>

#include <cerrno>

#include "agent/base/OwnedDescriptor.h"
#include "wire/Protocol.h"

namespace kx::agent {
namespace {

std::vector<gid_t> groupsOf(int socket) {
    std::vector<gid_t> groups(64);
    socklen_t bytes = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    int result = ::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes);
    if (result != 0 && errno == ERANGE) {  // the kernel has written what it takes
        groups.resize(bytes / sizeof(gid_t));
        result = ::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &bytes);
    }
    groups.resize(result == 0 ? bytes / sizeof(gid_t) : 0);
    return groups;
}

std::string nameOfProcess(pid_t pid) {
    const OwnedDescriptor file(::open(fmt::format("/proc/{}/comm", pid).c_str(), O_RDONLY | O_CLOEXEC));
    char name[64];
    const ssize_t size = file ? ::read(file.get(), name, sizeof name) : -1;
    // Without the end of its line.
    return size > 1 ? std::string(name, static_cast<std::size_t>(size) - 1) : std::string("unknown");
}

}  // namespace

std::string PeerIdentity::describe() const {
    return fmt::format("peer \"{}\" (pid {}, uid {})", wire::printable(program.empty() ? nameOfProcess(pid) : program),
                       pid, uid);
}

std::optional<PeerIdentity> identifyPeer(int socket) {
    ucred credentials{};
    socklen_t bytes = sizeof credentials;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &bytes) != 0) {
        return std::nullopt;
    }
    return PeerIdentity{credentials.pid, credentials.uid, credentials.gid, groupsOf(socket), {}};
}

}  // namespace kx::agent
