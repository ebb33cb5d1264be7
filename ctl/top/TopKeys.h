// Keys of a terminal. Plain values; one thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kx::ctl {

/// A key, or what it stands for.
struct TopKey {
    enum class Kind { Letter, Left, Right, Up, Down, PageUp, PageDown, Home, End, Escape };

    Kind kind = Kind::Letter;
    char letter = '\0';  ///< of a letter
    bool operator==(const TopKey&) const = default;
};

/// @brief Makes keys of the bytes that a terminal sends. Keys that are not known are left out.
class TopKeyReader {
public:
    /// @param bytes as they come; a key may come in several parts
    std::vector<TopKey> take(std::string_view bytes);

    /// @return whether a sequence has begun and not ended: it may also be the key Escape, if nothing follows
    bool isPending() const { return !sequence_.empty(); }

    /// @brief Nothing has followed.
    /// @return the key that the sequence's beginning is
    std::optional<TopKey> takePending();

private:
    std::optional<TopKey> endOfSequence(char last) const;

    std::string sequence_;  ///< a key's beginning: ESC and what followed
};

}  // namespace kx::ctl
