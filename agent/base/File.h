// Reading and replacing small files whole. Plain functions, any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kx::agent {

/// @brief Reads a regular file.
/// @param path the file; a symbolic link is followed
/// @param maxBytes a longer file is refused
/// @param problem in words, with the path, when nothing is returned
/// @return the content; nothing when there is no such file, it is no regular file, or it cannot be read
std::optional<std::string> readRegularFile(const std::string& path, std::size_t maxBytes, std::string& problem);

/// @brief Reads what is left of an open file. Memory grows with what is there, not with the limit.
/// @param maxBytes more is refused, also when the file grows meanwhile
/// @param content what was read is appended
/// @return 0, or the error's number; EFBIG when there is more
int readToEnd(int descriptor, std::size_t maxBytes, std::string& content);

/// @brief Replaces a file in one step: after a crash there is the old content or the new one, never a part of either.
/// The new one has reached the disk on return, with mode 0644 whatever the umask is.
/// @param path the file; its folder must exist
/// @param content all of the new content
/// @param sync false: it is handed to the kernel and survives the process, but not the machine
/// @return empty, or what went wrong, in words, with the path
std::string replaceFile(const std::string& path, std::string_view content, bool sync = true);

/// @brief Makes a folder and those above it where they are missing, each with mode 0755 whatever the umask is.
/// Folders that are there already are left as they are.
/// @return empty, or what went wrong, in words, with the path
std::string makeFolders(const std::string& path);

}  // namespace kx::agent
