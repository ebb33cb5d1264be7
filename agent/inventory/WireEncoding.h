// The agent's values as wire messages. Plain functions, any thread.
#pragma once

#include <cstddef>
#include <vector>

#include "agent/inventory/Environment.h"
#include "agent/vocabulary/Vocabulary.h"
#include "kxwire.pb.h"

namespace kx::agent {

/// @brief Writes an environment into a message, texts byte for byte.
/// @param into must be empty
void toWire(const Environment& from, wire::Environment& into);

/// @brief Writes a vocabulary into a message, in the order of its categories and parameters.
/// @param into must be empty
void toWire(const Vocabulary& from, wire::Vocabulary& into);

/// @brief What an environment takes in a frame at most, in bytes. Much quicker than encoding it, and a little more
/// than the truth: enough to cut a list into frames.
std::size_t wireBytesAtMost(const Environment& environment);

}  // namespace kx::agent
