// How much room text takes on a terminal, and how it is made to fit. Free functions, any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kx::ctl {

/// @param text UTF-8 without control characters
/// @return the terminal's columns that it takes: two for a wide character, none for one that is put on the one before
std::size_t widthOf(std::string_view text);

/// @brief Cuts off what is too much and puts an ellipsis there. Characters stay whole.
/// @param width columns that it may take
std::string fitted(std::string_view text, std::size_t width);

/// @brief Fills up with spaces, in front of the text if it is to end where the room does.
std::string filled(std::string_view text, std::size_t width, bool toTheRight = false);

}  // namespace kx::ctl
