// Running another program and reading what it says. Main thread only.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace kx::ctl {

/// @brief Runs a program, found as a shell would find it, and waits for its end. Beyond the deadline it is killed.
/// @param arguments the program's name first
/// @return all that it wrote on its two outputs, up to a megabyte; nothing when it cannot be run
std::optional<std::string> outputOf(const std::vector<std::string>& arguments, std::chrono::milliseconds deadline);

}  // namespace kx::ctl
