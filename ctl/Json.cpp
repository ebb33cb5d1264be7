#include "ctl/Json.h"

#include <array>
#include <cstdint>

#include "ctl/Utf8.h"

namespace kx::ctl {
namespace {

constexpr std::string_view kBase64Digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// Up to three bytes in four digits.
std::string base64Group(std::string_view bytes) {
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < 3; ++i) {
        bits = bits << 8U | (i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0U);
    }
    std::string group;
    for (std::size_t i = 0; i < 4; ++i) {
        group += i <= bytes.size() ? kBase64Digits[bits >> (18 - 6 * i) & 0x3FU] : '=';
    }
    return group;
}

std::string base64(std::string_view bytes) {
    std::string text;
    for (; !bytes.empty(); bytes.remove_prefix(std::min<std::size_t>(3, bytes.size()))) {
        text += base64Group(bytes.substr(0, 3));
    }
    return text;
}

}  // namespace

void putText(Json& object, const std::string& key, std::string_view bytes) {
    object[key] = asUtf8(bytes);
    if (!isUtf8(bytes)) {
        object[key + "_base64"] = base64(bytes);
    }
}

std::string jsonLine(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace kx::ctl
