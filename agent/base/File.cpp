#include "agent/base/File.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "agent/base/OwnedDescriptor.h"

namespace kx::agent {
namespace {

constexpr mode_t kFolderMode = 0755;
constexpr mode_t kFileMode = 0644;

std::string problemWith(std::string_view what, const std::string& path, int error) {
    return fmt::format("{} {}: {}", what, path, std::strerror(error));
}

std::string lastError(std::string_view what, const std::string& path) {
    return problemWith(what, path, errno);
}

bool writeAll(int descriptor, std::string_view content) {
    while (!content.empty()) {
        const ssize_t written = ::write(descriptor, content.data(), content.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        content.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
    }
    return true;
}

/// A rename is only safe from a crash once the folder itself has reached the disk.
bool syncFolderOf(const std::string& path) {
    const std::string folder = std::filesystem::path(path).parent_path();
    const OwnedDescriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return descriptor && ::fsync(descriptor.get()) == 0;
}

}  // namespace

int readToEnd(int descriptor, std::size_t maxBytes, std::string& content) {
    std::array<char, std::size_t{64} * 1024> block;
    for (std::size_t left = maxBytes;;) {
        const ssize_t size = ::read(descriptor, block.data(), block.size());
        if (size == 0) {
            return 0;
        }
        if (size < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno;
        }
        const auto count = static_cast<std::size_t>(size);
        if (count > left) {
            return EFBIG;
        }
        left -= count;
        content.append(block.data(), count);
    }
}

std::optional<std::string> readRegularFile(const std::string& path, std::size_t maxBytes, std::string& problem) {
    // Not blocking: opening a named pipe must not wait for its writer before it is seen to be no regular file.
    const OwnedDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat info {};
    if (!descriptor || ::fstat(descriptor.get(), &info) != 0) {
        problem = lastError("cannot read", path);
        return std::nullopt;
    }
    if (!S_ISREG(info.st_mode)) {
        problem = fmt::format("cannot read {}: it is not a regular file", path);
        return std::nullopt;
    }
    std::string content;
    if (const int error = readToEnd(descriptor.get(), maxBytes, content)) {
        problem = error == EFBIG ? fmt::format("cannot read {}: it is longer than {} bytes", path, maxBytes)
                                 : problemWith("cannot read", path, error);
        return std::nullopt;
    }
    return content;
}

std::string replaceFile(const std::string& path, std::string_view content, bool sync) {
    const std::string fresh = path + ".new";
    OwnedDescriptor descriptor(::open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    const bool written = descriptor && ::fchmod(descriptor.get(), kFileMode) == 0 &&
                         writeAll(descriptor.get(), content) && (!sync || ::fsync(descriptor.get()) == 0);
    if (!written || ::rename(fresh.c_str(), path.c_str()) != 0) {
        std::string problem = lastError("cannot write", path);
        ::unlink(fresh.c_str());
        return problem;
    }
    return !sync || syncFolderOf(path) ? std::string() : lastError("cannot sync the folder of", path);
}

std::string makeFolders(const std::string& path) {
    std::filesystem::path made;
    for (const auto& part : std::filesystem::path(path)) {
        made /= part;
        if (::mkdir(made.c_str(), kFolderMode) == 0) {
            if (::chmod(made.c_str(), kFolderMode) != 0) {
                return lastError("cannot set the mode of", made);
            }
        } else if (errno != EEXIST) {
            return lastError("cannot make the folder", made);
        }
    }
    std::error_code unknown;
    const bool isFolder = std::filesystem::is_directory(path, unknown);
    if (unknown) {
        return fmt::format("cannot look at {}: {}", path, unknown.message());
    }
    return isFolder ? std::string() : fmt::format("{} is not a folder", path);
}

}  // namespace kx::agent
