// A guard in front of the TOML parser: finds what the parser's own checks do not cover. Every TOML file that the agent
// reads passes it first.
//
// - The parser bounds the nesting of values, but makes a table in a table for every part of a dotted key, however
//   many, and destroys them recursively: `a.a.a...` of some hundred thousand parts would overflow the stack.
// - Its test for exotic blanks is undefined for most characters beyond ASCII. They may stand in quotes and comments
//   only, so anywhere else they are an error here, before the parser meets them.
//
// Does no I/O, keeps nothing; any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kx::agent {

/// What is wrong with a text, and where.
struct TomlFault {
    std::size_t line;     ///< from 1
    std::size_t column;   ///< from 1, in characters
    std::string message;  ///< one line in words
};

/// Parts of the longest key accepted. An inventory needs five, the other files fewer.
inline constexpr std::size_t kMaxKeyParts = 16;

/// @brief Looks for what must not reach the parser.
/// @param text meant to be TOML; where it is not well-formed, what follows may be misread, but the parser stops there
/// @return the first such thing; nothing when there is none
std::optional<TomlFault> findUnparsable(std::string_view text);

}  // namespace kx::agent
