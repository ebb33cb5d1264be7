// Numbers, times, and words of a fixed set, on the command line. Free functions, any thread.
#pragma once

#include <cstdint>
#include <ctime>
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

/// @brief Reads a time that is past: how long ago ("90s", "10m", "2h", "1d"), or a local time ("2026-11-21 23:05",
/// with ":30" or without; "23:05", of today).
/// @param now in seconds since 1970-01-01 UTC
/// @return likewise, from 1 to now
/// @throws Failure of wrong usage when it is none
std::uint64_t readSince(std::string_view option, const std::string& text, std::time_t now);

/// @brief Reads one of several words.
/// @return its place among them
/// @throws Failure of wrong usage when it is none of them
std::size_t readWord(std::string_view option, std::string_view text, const std::vector<std::string>& words);

}  // namespace kx::ctl
