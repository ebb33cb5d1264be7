// Numbers, and words of a fixed set, on the command line. Free functions, any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kx::ctl {

/// @brief Reads a decimal number, all of the text.
/// @param option what it was given for, for the words of the error
/// @throws Failure of wrong usage when it is no number, or outside of from..to
std::int64_t readNumber(std::string_view option, std::string_view text, std::int64_t from, std::int64_t to);

/// @brief The same for a number that may have a fraction.
double readDecimal(std::string_view option, std::string_view text, double from, double to);

/// @brief Reads one of several words.
/// @return its place among them
/// @throws Failure of wrong usage when it is none of them
std::size_t readWord(std::string_view option, std::string_view text, const std::vector<std::string>& words);

}  // namespace kx::ctl
