// A guard in front of the TOML parser: finds what the parser's own checks do not cover.
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
#include <string_view>

#include "agent/backends/simulated/InventoryError.h"

namespace kx::agent::simulated {

/// Parts of the longest key accepted. An inventory needs five.
inline constexpr std::size_t kMaxKeyParts = 16;

/// @brief Looks for what must not reach the parser.
/// @param text meant to be TOML; where it is not well-formed, what follows may be misread, but the parser stops there
/// @return the first such thing; nothing when there is none
std::optional<InventoryError> findUnparsable(std::string_view text);

}  // namespace kx::agent::simulated
