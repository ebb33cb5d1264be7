#include "ctl/top/TopKeys.h"

namespace kx::ctl {
namespace {

constexpr char kEscape = '\x1b';
constexpr std::size_t kLongestSequence = 16;

/// Parameters of a control sequence are digits and some signs; it ends with the first letter or '~'.
bool endsSequence(char byte) {
    return byte >= '@' && byte <= '~';
}

/// Terminals differ in which number Home and End have.
std::optional<TopKey> numberedKey(char number) {
    switch (number) {
        case '1':
        case '7':
            return TopKey{TopKey::Kind::Home};
        case '4':
        case '8':
            return TopKey{TopKey::Kind::End};
        case '5':
            return TopKey{TopKey::Kind::PageUp};
        case '6':
            return TopKey{TopKey::Kind::PageDown};
        default:
            return std::nullopt;
    }
}

}  // namespace

std::vector<TopKey> TopKeyReader::take(std::string_view bytes) {
    std::vector<TopKey> keys;
    for (const char byte : bytes) {
        if (byte == kEscape) {
            sequence_ = byte;
        } else if (sequence_.empty()) {
            keys.push_back({TopKey::Kind::Letter, byte});
        } else if (sequence_.size() == 1 && byte != '[' && byte != 'O') {
            sequence_.clear();
            keys.push_back({TopKey::Kind::Letter, byte});
        } else if (sequence_.size() == 1 || (!endsSequence(byte) && sequence_.size() < kLongestSequence)) {
            sequence_ += byte;
        } else {
            if (const auto key = endOfSequence(byte)) {
                keys.push_back(*key);
            }
            sequence_.clear();
        }
    }
    return keys;
}

std::optional<TopKey> TopKeyReader::endOfSequence(char last) const {
    switch (last) {
        case 'A':
            return TopKey{TopKey::Kind::Up};
        case 'B':
            return TopKey{TopKey::Kind::Down};
        case 'C':
            return TopKey{TopKey::Kind::Right};
        case 'D':
            return TopKey{TopKey::Kind::Left};
        case 'H':
            return TopKey{TopKey::Kind::Home};
        case 'F':
            return TopKey{TopKey::Kind::End};
        case '~':
            return numberedKey(sequence_.back());
        default:
            return std::nullopt;
    }
}

std::optional<TopKey> TopKeyReader::takePending() {
    const bool isEscape = sequence_.size() == 1;
    sequence_.clear();
    return isEscape ? std::optional(TopKey{TopKey::Kind::Escape}) : std::nullopt;
}

}  // namespace kx::ctl
