#include "agent/server/SocketFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "agent/base/File.h"
#include "agent/base/Log.h"

namespace kx::agent {
namespace {

/// Connections that wait to be accepted; more wait in their connect().
constexpr int kBacklog = 128;

/// Until owner and group are set nobody else may open the socket.
constexpr mode_t kPrivateUmask = 0177;
constexpr mode_t kSocketMode = 0660;

/// Of the file beside the socket that one starting agent locks out another with.
constexpr const char* kLockSuffix = ".lock";
constexpr mode_t kLockMode = 0600;

[[noreturn]] void fail(const std::string& path, std::string_view why) {
    throw std::runtime_error(fmt::format("cannot listen on {}: {}", path, why));
}

[[noreturn]] void failBySystem(const std::string& path, std::string_view what) {
    fail(path, fmt::format("{}: {}", what, std::strerror(errno)));
}

/// The umask belongs to the whole process. It is changed for one call; a file that another thread makes in that
/// moment gets fewer rights, never more.
class Umask {
public:
    explicit Umask(mode_t mask) : former_(::umask(mask)) {}
    ~Umask() { ::umask(former_); }
    Umask(const Umask&) = delete;
    Umask& operator=(const Umask&) = delete;

private:
    mode_t former_;
};

OwnedDescriptor makeSocket(const std::string& path, int flags) {
    OwnedDescriptor made(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    if (!made) {
        failBySystem(path, "socket");
    }
    return made;
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path) {
        fail(path, "the path is too long for a socket");
    }
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    return address;
}

bool isListenedOn(const std::string& path) {
    const OwnedDescriptor probe = makeSocket(path, SOCK_NONBLOCK);
    const sockaddr_un address = addressOf(path);
    if (::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return true;
    }
    if (errno == EAGAIN) {  // it has more waiting connections than it may have
        return true;
    }
    if (errno == ECONNREFUSED || errno == ENOENT) {
        return false;
    }
    failBySystem(path, "cannot tell whether an agent listens there");
}

/// Two agents that start at once must not both find the old socket stale and remove each other's. The lock is a file
/// of our own, which stays: the folder can be opened, and so be locked, by every user of the host.
OwnedDescriptor lockStart(const std::string& path) {
    const std::string lockPath = path + kLockSuffix;
    OwnedDescriptor locked(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kLockMode));
    if (!locked) {
        failBySystem(path, fmt::format("cannot open {}", lockPath));
    }
    if (::flock(locked.get(), LOCK_EX | LOCK_NB) != 0) {
        failBySystem(path, "another agent is being started there");
    }
    return locked;
}

void removeStale(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        return;
    }
    if (!S_ISSOCK(info.st_mode)) {
        fail(path, "something that is not a socket is in the way");
    }
    if (isListenedOn(path)) {
        fail(path, "another agent listens there");
    }
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        failBySystem(path, "cannot remove the socket of a former run");
    }
}

}  // namespace

SocketFile::SocketFile(std::string path, std::optional<gid_t> group) : path_(std::move(path)) {
    const std::string problem = makeFolders(std::filesystem::path(path_).parent_path());
    if (!problem.empty()) {
        fail(path_, problem);
    }
    const OwnedDescriptor lock = lockStart(path_);
    removeStale(path_);
    bindPrivately();
    openToGroup(group);
    if (::listen(listener_.get(), kBacklog) != 0) {
        failBySystem(path_, "listen");
    }
}

SocketFile::~SocketFile() {
    struct stat info {};
    if (::lstat(path_.c_str(), &info) == 0 && info.st_dev == device_ && info.st_ino == inode_) {
        ::unlink(path_.c_str());
    }
}

bool SocketFile::isGone() const {
    struct stat info {};
    return ::lstat(path_.c_str(), &info) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

void SocketFile::bindPrivately() {
    const sockaddr_un address = addressOf(path_);
    OwnedDescriptor made = makeSocket(path_, 0);
    {
        const Umask mask(kPrivateUmask);
        if (::bind(made.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            failBySystem(path_, "bind");
        }
    }
    struct stat info {};
    if (::lstat(path_.c_str(), &info) != 0) {
        failBySystem(path_, "stat");
    }
    device_ = info.st_dev;
    inode_ = info.st_ino;
    listener_ = std::move(made);
}

void SocketFile::openToGroup(std::optional<gid_t> group) const {
    if (group && ::chown(path_.c_str(), static_cast<uid_t>(-1), *group) != 0) {
        log::warning(
            fmt::format("cannot give {} to its group, whose members cannot connect: {}", path_, std::strerror(errno)));
    }
    if (::chmod(path_.c_str(), kSocketMode) != 0) {
        failBySystem(path_, "chmod");
    }
}

}  // namespace kx::agent
