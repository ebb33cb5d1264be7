#include "ctl/doctor/FileAccess.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace kx::ctl {
namespace {

constexpr mode_t kWrite = 2;
constexpr mode_t kPass = 1;

/// Of the three groups of bits the first that is meant for somebody decides.
bool isAllowed(const struct stat& file, const Identity& identity, mode_t bit) {
    if (identity.user == 0) {
        return true;
    }
    if (file.st_uid == identity.user) {
        return (file.st_mode >> 6U & bit) != 0;
    }
    return ((identity.isIn(file.st_gid) ? file.st_mode >> 3U : file.st_mode) & bit) != 0;
}

bool isAllowed(const std::string& path, const Identity& identity, mode_t bit) {
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 && isAllowed(found, identity, bit);
}

}  // namespace

bool Identity::isIn(gid_t group) const {
    return std::find(groups.begin(), groups.end(), group) != groups.end();
}

std::optional<Identity> identityOf(const std::string& userName) {
    const passwd* const found = ::getpwnam(userName.c_str());
    if (found == nullptr) {
        return std::nullopt;
    }
    Identity identity{found->pw_uid, {}};
    const gid_t own = found->pw_gid;
    int count = 64;
    identity.groups.resize(static_cast<std::size_t>(count));
    while (::getgrouplist(userName.c_str(), own, identity.groups.data(), &count) < 0) {
        identity.groups.resize(static_cast<std::size_t>(count));
    }
    identity.groups.resize(static_cast<std::size_t>(count));
    return identity;
}

Identity ownIdentity() {
    Identity identity{::geteuid(), {}};
    const int count = ::getgroups(0, nullptr);
    identity.groups.resize(static_cast<std::size_t>(std::max(count, 0)));
    const int told = ::getgroups(static_cast<int>(identity.groups.size()), identity.groups.data());
    identity.groups.resize(static_cast<std::size_t>(std::max(told, 0)));
    identity.groups.push_back(::getegid());
    return identity;
}

std::string ownerText(const std::string& path) {
    struct stat found {};
    if (::stat(path.c_str(), &found) != 0) {
        return "?";
    }
    const passwd* const user = ::getpwuid(found.st_uid);
    const std::string userName = user == nullptr ? std::to_string(found.st_uid) : user->pw_name;
    const group* const owning = ::getgrgid(found.st_gid);
    const std::string groupName = owning == nullptr ? std::to_string(found.st_gid) : owning->gr_name;
    return fmt::format("{}:{} {:04o}", userName, groupName, found.st_mode & 07777U);
}

std::optional<std::string> obstacleTo(const std::string& path, const Identity& identity) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const std::string folder = path.substr(0, slash);
        if (!isAllowed(folder, identity, kPass)) {
            return folder;
        }
    }
    return isAllowed(path, identity, kWrite) ? std::nullopt : std::optional(path);
}

}  // namespace kx::ctl
