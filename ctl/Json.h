// JSON as kxctl writes it: one object a line, keys in the order in which they were set, numbers exact. Any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace kx::ctl {

using Json = nlohmann::ordered_json;

/// @brief Sets a text that may be any bytes. What is no UTF-8 in it becomes U+FFFD, and a second key, `key`_base64,
/// then has the exact bytes (RFC 4648, section 4).
void putText(Json& object, const std::string& key, std::string_view bytes);

/// @param value made of what putText and numbers put there: its texts are UTF-8
/// @return the value on one line, without a line end
std::string jsonLine(const Json& value);

}  // namespace kx::ctl
