#include "agent/backends/lxc/RootFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "agent/base/File.h"

namespace kx::agent::lxc {
namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

/// Opens the place of a file without opening the file: no side effect, whatever it is.
OwnedDescriptor openPlace(int folder, const char* path, Bounds bounds) {
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    if (bounds != Bounds::Host) {
        how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    }
    if (bounds == Bounds::RootMount) {
        how.resolve |= RESOLVE_NO_XDEV;
    }
    // A rename elsewhere in the tree makes the kernel give up a bounded lookup with EAGAIN; the next try is
    // independent of it. A container that renames all the time can only keep its own file from being read.
    for (int tries = 0; tries < 8; ++tries) {
        const long number = ::syscall(SYS_openat2, folder, path, &how, sizeof how);
        if (number >= 0 || errno != EAGAIN) {
            return OwnedDescriptor(static_cast<int>(number));
        }
    }
    return {};
}

FileText problemOf(int error) {
    FileText result;
    result.problem = std::strerror(error);
    result.missing = error == ENOENT || error == ENOTDIR;
    return result;
}

FileText problemInWords(std::string words) {
    FileText result;
    result.problem = std::move(words);
    return result;
}

FileText readOpened(int file, std::size_t maxBytes) {
    FileText result;
    std::string text;
    const int error = readToEnd(file, maxBytes, text);
    if (error == EFBIG) {
        return problemInWords(fmt::format("longer than {} bytes", maxBytes));
    }
    if (error != 0) {
        return problemOf(error);
    }
    result.text = std::move(text);
    return result;
}

}  // namespace

FileStamp stampOf(const struct stat& status) {
    FileStamp stamp;
    stamp.device = status.st_dev;
    stamp.inode = status.st_ino;
    stamp.size = status.st_size;
    stamp.modifiedNs = status.st_mtim.tv_sec * kNanosecondsPerSecond + status.st_mtim.tv_nsec;
    stamp.changedNs = status.st_ctim.tv_sec * kNanosecondsPerSecond + status.st_ctim.tv_nsec;
    return stamp;
}

FileStamp stampAt(int folder, const char* path) {
    struct stat status {};
    if (::fstatat(folder, path, &status, 0) != 0) {
        return {};
    }
    return stampOf(status);
}

FileText readFile(int folder, const char* path, Bounds bounds, std::size_t maxBytes) {
    const OwnedDescriptor place = openPlace(folder, path, bounds);
    if (!place) {
        return problemOf(errno);
    }
    struct stat status {};
    if (::fstat(place.get(), &status) != 0) {
        return problemOf(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return problemInWords("not a regular file");
    }
    // Known to be a regular file by now, so this second opening of the same place cannot block or act.
    const std::string again = fmt::format("/proc/self/fd/{}", place.get());
    const OwnedDescriptor file(::open(again.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file) {
        return problemOf(errno);
    }
    FileText result = readOpened(file.get(), maxBytes);
    result.stamp = stampOf(status);
    return result;
}

FileStamp stampWithin(int folder, const char* path, Bounds bounds) {
    const OwnedDescriptor place = openPlace(folder, path, bounds);
    struct stat status {};
    if (!place || ::fstat(place.get(), &status) != 0) {
        return {};
    }
    return stampOf(status);
}

OwnedDescriptor openFolder(const std::string& path) {
    return OwnedDescriptor(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
}

}  // namespace kx::agent::lxc
