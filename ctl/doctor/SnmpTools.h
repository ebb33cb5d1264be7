// Asking net-snmp's tools, and reading what they say. Main thread only.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "ctl/doctor/Subprocess.h"

namespace kx::ctl {

/// What to do where they are missing.
inline constexpr const char* kGetTools = "apt-get install snmp, which has it";

/// Longer than what an agent is given to answer; a tool itself takes some time to start.
inline constexpr std::chrono::milliseconds kToolDeadline{6000};

/// @return the first line of a text that begins like that; empty when there is none
std::string lineWith(const std::string& text, const std::string& beginning);

/// @return the last line that is not empty: what a tool says before it gives up
std::string lastLine(const std::string& text);

}  // namespace kx::ctl
