// A message of events in parts: a consumer gets a large message a few events at a time, so that the loop can do other
// things in between, and so that what the message needs in memory is little more than its bytes.
//
// Thread promise: the loop thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kx::client {

class MessageParts {
public:
    /// Events in a part: few enough that a part takes about a millisecond, however slow its consumer is by nature.
    static constexpr std::size_t eventsInPart = 16;

    /// @brief Finds the message in the payload of a frame.
    /// @return nothing when the frame has another body, or is no message at all
    static std::optional<std::string_view> inFrame(std::string_view payload);

    /// @param message the encoded EventMessage, which is copied
    explicit MessageParts(std::string_view message);

    /// @return whether the fields of the message can be told apart to its end; if not, it has no parts to be used
    bool isWellFormed() const { return isWellFormed_; }
    /// @return the message's number on its subscription; 0: it is not to be acknowledged
    std::uint64_t sequence() const { return sequence_; }

    /// @return whether next() has returned everything. A message without events has one part.
    bool isAtEnd() const { return hasBegun_ && position_ == message_.size(); }
    /// @return the next part, encoded as a message
    std::shared_ptr<const std::string> next();

private:
    const std::string message_;
    bool isWellFormed_ = false;
    std::uint64_t sequence_ = 0;
    std::size_t position_ = 0;
    bool hasBegun_ = false;
};

}  // namespace kx::client
