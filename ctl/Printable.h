// Text from outside made fit for a terminal: a container's owner must not be able to move the operator's cursor, end a
// line early or hide what it says. Free functions, any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kx::ctl {

/// @brief Escapes what a terminal would not show as a character, and the backslash: \n, \t, \r, \\, \xNN for other
/// bytes, \u{NNNN} for characters that control the direction or the lines of text. Other UTF-8 stays as it is.
/// @return one line; what it was made from can be told from it
std::string printable(std::string_view text);

/// @brief The same, for one word in a line: in quotes if it is empty or has a space or a quote in it.
std::string printableWord(std::string_view text);

}  // namespace kx::ctl
