// A frame in two parts: a body that is encoded once and shared by all connections it goes to, and a head of a few
// bytes for each of them. A snapshot of megabytes is so in memory once, however many clients take it.
//
// The parts joined are what wire/Framing.h cuts a stream into. Plain functions, any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "wire/Framing.h"

namespace kx::agent {

/// The encoded content of a frame but for its request_id. Never changes once it is made.
using FrameBody = std::shared_ptr<const std::string>;

/// @brief Encodes what the connections share.
/// @param frame without a request_id
/// @return null when the frame would exceed wire::kMaxFrameBytes
FrameBody encodeBody(const wire::Frame& frame);

/// @brief Makes what goes in front of a body.
/// @param requestId number of the request that is answered, 0 for none
/// @param bodyBytes size of the body
/// @return the frame's length and its request_id
std::string encodeHead(std::uint64_t requestId, std::size_t bodyBytes);

}  // namespace kx::agent
