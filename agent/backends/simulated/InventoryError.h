// What is wrong with an inventory file, and where. A plain value.
#pragma once

#include <cstddef>
#include <string>

namespace kx::agent {

/// The first thing wrong in an inventory file.
struct InventoryError {
    std::size_t line;     ///< from 1; 0 when the trouble is not at a place in the file, e.g. when there is no file
    std::size_t column;   ///< from 1, in characters; 0 likewise
    std::string message;  ///< one line in words, without the file's name
};

/// @brief The error as a log line.
/// @param path the file's name as the operator gave it
/// @return "PATH:LINE:COLUMN: message", or "PATH: message" when the error has no place in the file
std::string describe(const std::string& path, const InventoryError& error);

}  // namespace kx::agent
