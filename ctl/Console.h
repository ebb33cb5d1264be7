// What kxctl says besides its results: lines on standard error. Any thread; a line is written as a whole.
#pragma once

#include <string_view>

namespace kx::ctl {

/// @brief Says how things stand.
/// @param words one line fit for a terminal, without a line end
void note(std::string_view words);

/// @brief Says what is wrong: the same, with the program's name in front.
void complain(std::string_view words);

/// @brief Opens what stands for descriptors 0, 1 and 2 where the caller has closed them: a socket that took such a
/// number would get what is meant for the terminal. Reading and writing fail as on a closed one. Before anything is
/// opened.
void reserveStandardDescriptors();

}  // namespace kx::ctl
