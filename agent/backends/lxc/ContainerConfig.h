// The text of a container's configuration together with all that it includes, read without liblxc.
//
// liblxc opens what a configuration names while it parses it: included files, which may be missing for a moment or lie
// on a file system that hangs, and the log file, which it would create, fail on, or wait for without limit where it is
// a pipe. So it is given one text in which includes are resolved and the log is not mentioned. Any thread; waits for
// the disk.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "agent/backends/lxc/RootFile.h"

namespace kx::agent::lxc {

/// Longest configuration read, with what it includes; real ones have some KiB.
inline constexpr std::size_t kMaxConfigBytes = std::size_t{1024} * 1024;

/// Files and folders that a configuration consists of, those that are missing too.
using ConfigParts = std::vector<std::pair<std::string, FileStamp>>;

/// What was read.
struct ConfigText {
    std::string text;
    std::string problem;  ///< why the text is not whole, in words; empty: it is
    ConfigParts parts;    ///< begins with the configuration itself
};

/// @brief Reads a configuration. Included folders stand for their files that end in ".conf", in order of their names.
/// @param file path of the configuration
ConfigText readConfig(const std::string& file);

/// @return whether readConfig() would read something else. Costs a lookup for each part.
bool haveChanged(const ConfigParts& parts);

}  // namespace kx::agent::lxc
