// How many fields a client's frame has, counted before it is parsed: a parsed field takes many times the two bytes that
// it may have on the wire. Plain functions, any thread.
#pragma once

#include <cstddef>
#include <string_view>

namespace kx::agent {

/// @param payload of a frame
/// @param most counting ends beyond it
/// @return the fields of the frame and of the messages in it; what is no message counts as far as it can be read
std::size_t countFields(std::string_view payload, std::size_t most);

}  // namespace kx::agent
