// Which of our programs run, as /proc tells it (proc(5)). Main thread only.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kx::ctl {

/// The sub-agent's program, its user and its unit have this name.
inline constexpr const char* kSubAgentName = "kxsnmp";

/// @return the ids, as texts, of the processes that run a program of that name on this host. Those in containers, which
/// have a process namespace of their own, are left out; so is what cannot be seen.
std::vector<std::string> processesOf(const std::string& program);

/// @return whether a process runs that program, in the process namespace that /proc is of
/// @param status what /proc/PID/status says (proc(5))
bool isRunning(const std::string& status, const std::string& program);

/// @return whether a process runs from files of ours that have been replaced, or removed, since it was started
/// @param maps what /proc/PID/maps says (proc(5))
/// @param program the name of its program
bool isOutdated(const std::string& maps, const std::string& program);

/// @return a file of a process in /proc; nothing when it cannot be read
/// @param pid "self" is this process
std::optional<std::string> readProcess(const std::string& pid, const std::string& file);

}  // namespace kx::ctl
