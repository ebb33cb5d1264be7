// The library's own way to its log; see kxl/KXLLog.h.
#pragma once

#include <string>

namespace kx::client {

/// @brief Logs one line at LOG_WARNING. Any thread.
void logWarning(const std::string& line);

}  // namespace kx::client
