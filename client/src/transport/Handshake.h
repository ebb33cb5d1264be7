// What a client checks of the agent's first frame.
//
// Thread promise: plain functions; any thread.
#pragma once

#include <string>

#include "wire/Protocol.h"

namespace kx::client {

/// @brief The client's own first frame: its Hello, with the program's name.
wire::Frame helloFrame();

/// @brief Looks at what answered our Hello.
/// @return why it will not do, in words for a log line; empty when it will
std::string helloProblem(const wire::Frame& answer);

}  // namespace kx::client
