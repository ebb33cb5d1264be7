// What a frame will take in memory once it is decoded, computed before it is.
//
// A message's object is many times as large as its encoding where that is little more than a tag: 16 MiB of empty
// environments would become a gigabyte. Thread promise: a plain function.
#pragma once

#include <cstddef>
#include <string_view>

namespace kx::wire {

/// What a text or a message takes beside its own bytes: an object on the heap, and its place in a list.
inline constexpr std::size_t kPartBytes = 80;

/// @brief Estimates the decoded size of a frame: its bytes, and kPartBytes for each text and message in it.
/// @param payload of a frame; of one that is not a Frame message, whatever makes sense of it is counted
std::size_t decodedBytes(std::string_view payload);

}  // namespace kx::wire
