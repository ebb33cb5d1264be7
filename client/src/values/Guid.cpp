#include <kxl/KXLGUID.h>

constinit const KXLEID KXLEID::EID_INVALID{};

namespace {

constexpr std::string_view hexDigits = "0123456789abcdef";
constexpr std::size_t textLength = 36;

constexpr bool dashBefore(std::size_t byte) {
    return byte == 4 || byte == 6 || byte == 8 || byte == 10;
}

int hexValue(char digit) {
    if (digit >= 'A' && digit <= 'F') {
        digit = static_cast<char>(digit - 'A' + 'a');
    }
    const std::size_t value = hexDigits.find(digit);
    return value == std::string_view::npos ? -1 : static_cast<int>(value);
}

}  // namespace

std::string KXLGUIDBase::toString() const {
    std::string text;
    text.reserve(textLength);
    for (std::size_t i = 0; i < size; ++i) {
        if (dashBefore(i)) {
            text += '-';
        }
        text += hexDigits[bytes_[i] >> 4U];
        text += hexDigits[bytes_[i] & 0xfU];
    }
    return text;
}

int KXLGUIDBase::fromString(std::string_view text) {
    if (text.size() != textLength) {
        return -1;
    }
    Bytes parsed{};
    std::size_t position = 0;
    for (std::size_t i = 0; i < size; ++i) {
        if (dashBefore(i) && text[position++] != '-') {
            return -1;
        }
        const int high = hexValue(text[position]);
        const int low = hexValue(text[position + 1]);
        if (high < 0 || low < 0) {
            return -1;
        }
        parsed[i] = static_cast<std::uint8_t>(high << 4 | low);
        position += 2;
    }
    bytes_ = parsed;
    return 0;
}
