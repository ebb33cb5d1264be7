#include "agent/backends/lxc/CommandSocket.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <sstream>

#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {
namespace {

constexpr std::string_view kSuffix = "/command";

/// Room for a name in a socket address, without the leading and the closing zero byte.
constexpr std::size_t kMaxNameBytes = sizeof(sockaddr_un::sun_path) - 2;

/// FNV-1a of 64 bits, which liblxc uses for names that do not fit.
std::uint64_t hashOf(std::string_view text) {
    std::uint64_t hash = 0xcbf29ce484222325;
    for (const char c : text) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    }
    return hash;
}

}  // namespace

std::string commandSocketName(const std::string& path, const std::string& name) {
    std::string plain = fmt::format("{}/{}{}", path, name, kSuffix);
    if (plain.size() <= kMaxNameBytes) {
        return plain;
    }
    return fmt::format("lxc/{:016x}{}", hashOf(fmt::format("{}/{}", path, name)), kSuffix);
}

std::set<std::string, std::less<>> commandSocketsIn(std::string_view unixSockets) {
    std::set<std::string, std::less<>> names;
    while (!unixSockets.empty()) {
        const auto end = unixSockets.find('\n');
        const std::string_view line = unixSockets.substr(0, end);
        unixSockets.remove_prefix(end == std::string_view::npos ? unixSockets.size() : end + 1);
        // The name is the last column; the kernel shows the leading zero byte as "@".
        const auto start = line.find(" @");
        if (start == std::string_view::npos || line.size() < kSuffix.size() ||
            line.substr(line.size() - kSuffix.size()) != kSuffix) {
            continue;
        }
        names.emplace(line.substr(start + 2));
    }
    return names;
}

std::set<std::string, std::less<>> presentCommandSockets() {
    std::ifstream file("/proc/thread-self/net/unix");
    std::ostringstream text;
    text << file.rdbuf();
    return commandSocketsIn(text.view());
}

MonitorConnection connectToMonitor(const std::string& socketName) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketName.copy(address.sun_path + 1, kMaxNameBytes);
    // liblxc binds its name without a closing zero byte; in an abstract address that would be part of the name.
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + socketName.size());
    MonitorConnection connection;
    OwnedDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket || ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        connection.isFull = errno != ECONNREFUSED;
        return connection;
    }
    ucred peer{};
    socklen_t peerLength = sizeof peer;
    ::getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &peer, &peerLength);
    connection.owner = peer.uid;
    // The end of what we send is what makes it close.
    ::shutdown(socket.get(), SHUT_WR);
    connection.socket = std::move(socket);
    return connection;
}

}  // namespace kx::agent::lxc
