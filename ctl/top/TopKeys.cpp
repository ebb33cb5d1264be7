#include "ctl/top/TopKeys.h"

namespace kx::ctl {
namespace {

constexpr char kEscape = '\x1b';
constexpr std::size_t kLongestSequence = 16;

/// Parameters of a control sequence are digits and some signs; it ends with the first letter or '~'.
bool endsSequence(char byte) {
    return byte >= '@' && byte <= '~';
}

}  // namespace

std::vector<TopKey> TopKeyReader::take(std::string_view bytes) {
    std::vector<TopKey> keys;
    for (const char byte : bytes) {
        if (byte == kEscape) {
            sequence_ = byte;  // a beginning that nothing followed is the key of that name, which means nothing here
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
        case '~':
            if (sequence_.back() == '5') {
                return TopKey{TopKey::Kind::PageUp};
            }
            return sequence_.back() == '6' ? std::optional(TopKey{TopKey::Kind::PageDown}) : std::nullopt;
        default:
            return std::nullopt;
    }
}

}  // namespace kx::ctl
