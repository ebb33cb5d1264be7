// JSON as kxctl writes it: one document a line, keys in the order in which they were set, numbers exact.
//
// A thin face of the JSON library, whose header takes seconds to compile: only Json.cpp includes it. Values; any
// thread.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <type_traits>

namespace kx::ctl {

/// @brief An object or an array that is being put together.
class Json {
public:
    /// An object without keys.
    Json();
    ~Json();
    Json(const Json& other);
    Json(Json&& other) noexcept;
    Json& operator=(Json other) noexcept;

    /// An array without elements.
    static Json array();

    /// @brief Sets a key.
    /// @param text UTF-8; for what comes from outside there is putText
    void put(const std::string& key, std::string_view text);
    void put(const std::string& key, const char* text) { put(key, std::string_view(text)); }
    void put(const std::string& key, const Json& value);
    template <typename Number>
    std::enable_if_t<std::is_arithmetic_v<Number>> put(const std::string& key, Number value) {
        if constexpr (std::is_same_v<Number, bool>) {
            putFlag(key, value);
        } else if constexpr (std::is_floating_point_v<Number>) {
            putReal(key, value);
        } else if constexpr (std::is_signed_v<Number>) {
            putSigned(key, value);
        } else {
            putUnsigned(key, value);
        }
    }

    /// @brief Sets a text that may be any bytes. What is no UTF-8 in it becomes U+FFFD, and a second key, `key`_base64,
    /// then has the exact bytes (RFC 4648, section 4).
    void putText(const std::string& key, std::string_view bytes);

    /// @brief Appends to an array.
    void add(const Json& element);

    /// @return the document on one line, without a line end
    std::string line() const;

private:
    explicit Json(nlohmann::ordered_json value);

    void putFlag(const std::string& key, bool value);
    void putReal(const std::string& key, double value);
    void putSigned(const std::string& key, std::int64_t value);
    void putUnsigned(const std::string& key, std::uint64_t value);

    std::unique_ptr<nlohmann::ordered_json> value_;
};

}  // namespace kx::ctl
