// The agent's log: one line a call, on standard error.
//
// Where standard error is the journal, each line starts with its syslog priority ("<4>..."), as sd-daemon(3) has
// it; anywhere else the lines are plain. May be called from any thread: a line is written whole, in one call.
#pragma once

#include <string_view>

namespace kx::agent::log {

/// @brief Something does not work and somebody has to look after it.
/// @param line one line without its end; control characters in it are shown as '?', for names in it come from others
void error(std::string_view line);

/// @brief Something is odd or was refused; the agent goes on.
/// @param line see error()
void warning(std::string_view line);

/// @brief What an operator wants to find in a quiet log: starts, stops, reloads.
/// @param line see error()
void info(std::string_view line);

}  // namespace kx::agent::log
