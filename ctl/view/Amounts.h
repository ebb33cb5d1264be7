// Amounts for people: short, with a unit. Free functions, any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace kx::ctl {

/// @return "0", "1023", "1.0K", "9.9M", "512G": at most three digits and a unit of 1024s; bytes
std::string bytesText(std::int64_t bytes);

/// @return the same with units of 1000s: packets, inodes
std::string countText(std::int64_t count);

/// @return "7d", "3h", "12m", "5s": the largest unit that it has one of
std::string durationText(std::int64_t seconds);

/// @brief Parts of a hundred, rounded down, so that 100 is said of what is used up and of nothing else.
/// @param limit above 0
std::int64_t percentOf(std::int64_t used, std::int64_t limit);

/// @return "[####....]", filled as far as the percentage says: not at all only at 0, wholly only from 100 on
/// @param width in characters, brackets included; at least 3
std::string bar(std::int64_t percent, std::size_t width);

}  // namespace kx::ctl
