#include "agent/server/AccessPolicy.h"

#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace kx::agent {
namespace {

/// A group of a directory service may list thousands of members.
constexpr std::size_t kMaxGroupBytes = std::size_t{4} * 1024 * 1024;

std::optional<gid_t> groupNamed(const char* name) {
    std::vector<char> buffer(4096);
    while (true) {
        group entry{};
        group* found = nullptr;
        const int error = ::getgrnam_r(name, &entry, buffer.data(), buffer.size(), &found);
        if (found != nullptr) {
            return entry.gr_gid;
        }
        if (error != ERANGE || buffer.size() >= kMaxGroupBytes) {
            return std::nullopt;
        }
        buffer.resize(buffer.size() * 4);
    }
}

}  // namespace

bool AccessPolicy::admits(const PeerIdentity& peer) const {
    if (peer.uid == 0 || peer.uid == ownUid) {
        return true;
    }
    return group &&
           (peer.gid == *group || std::find(peer.groups.begin(), peer.groups.end(), *group) != peer.groups.end());
}

AccessPolicy AccessPolicy::ofSystem() {
    return {groupNamed(kAgentGroup), ::geteuid()};
}

}  // namespace kx::agent
