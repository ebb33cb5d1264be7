// Reading small files, those inside a container's root file system included.
//
// The container's owner can put anything there: a link to a file of the host, a pipe that never delivers, a device
// that acts when opened, a file without end. None of it may reach a host file or hold the reader up. Any thread.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {

/// Tells one version of a file from the next: changes whenever the file is replaced or written.
struct FileStamp {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = -1;  ///< bytes; -1: there is no such file
    std::int64_t modifiedNs = 0;
    std::int64_t changedNs = 0;
    bool operator==(const FileStamp&) const = default;
};

/// @return the stamp of a file whose status is known
FileStamp stampOf(const struct stat& status);

/// @brief Looks a file up below a folder, following links as usual. For folders that only the host's owner writes.
/// @return a stamp with size -1 when there is no such file
FileStamp stampAt(int folder, const char* path);

/// A file's text, or why there is none.
struct FileText {
    std::optional<std::string> text;
    std::string problem;   ///< in words, e.g. "No such file or directory"; empty when there is a text
    bool missing = false;  ///< the problem is just that there is no such file
    FileStamp stamp;       ///< of the file that was read
};

/// How far a path may lead.
enum class Bounds {
    Host,       ///< anywhere; for folders that only the host's owner writes
    Root,       ///< the folder is the root: absolute links and ".." stay inside it
    RootMount,  ///< likewise, and other mounts inside it are not entered: one may be served by the container itself
};

/// @brief Reads a regular file whole. Never blocks on a pipe, never opens a device.
/// @param folder descriptor of the folder the path starts in
/// @param path relative path
/// @param bounds how far links in the path may lead
/// @param maxBytes a longer file is a problem, nothing of it is returned
FileText readFile(int folder, const char* path, Bounds bounds, std::size_t maxBytes);

/// @brief Stamp of what readFile() would read. Costs one lookup.
/// @return a stamp with size -1 when there is no such file or it is not within bounds
FileStamp stampWithin(int folder, const char* path, Bounds bounds);

/// @brief Opens a folder as a starting point for the functions above.
/// @return no descriptor when there is no such folder; errno tells why
OwnedDescriptor openFolder(const std::string& path);

}  // namespace kx::agent::lxc
