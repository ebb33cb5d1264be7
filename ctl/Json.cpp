#include "ctl/Json.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

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

Json::Json() : Json(nlohmann::ordered_json::object()) {}
Json::Json(nlohmann::ordered_json value) : value_(std::make_unique<nlohmann::ordered_json>(std::move(value))) {}
Json::~Json() = default;
Json::Json(const Json& other) : Json(*other.value_) {}
Json::Json(Json&& other) noexcept = default;

Json& Json::operator=(Json other) noexcept {
    value_ = std::move(other.value_);
    return *this;
}

Json Json::array() {
    return Json(nlohmann::ordered_json::array());
}

void Json::put(const std::string& key, std::string_view text) {
    (*value_)[key] = text;
}

void Json::put(const std::string& key, const Json& value) {
    (*value_)[key] = *value.value_;
}

void Json::putFlag(const std::string& key, bool value) {
    (*value_)[key] = value;
}

void Json::putReal(const std::string& key, double value) {
    (*value_)[key] = value;
}

void Json::putSigned(const std::string& key, std::int64_t value) {
    (*value_)[key] = value;
}

void Json::putUnsigned(const std::string& key, std::uint64_t value) {
    (*value_)[key] = value;
}

void Json::putText(const std::string& key, std::string_view bytes) {
    put(key, asUtf8(bytes));
    if (!isUtf8(bytes)) {
        put(key + "_base64", base64(bytes));
    }
}

void Json::add(const Json& element) {
    value_->push_back(*element.value_);
}

std::string Json::line() const {
    return value_->dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace kx::ctl
