#include "agent/base/TomlGuard.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>

namespace kx::agent {
namespace {

constexpr std::string_view kEndsOfKeys = "=,[]{}\n";
constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";

/// Both kinds of string over several lines end with three quotes, before which there may be two more of the content.
std::size_t endOfLongString(std::string_view text, std::size_t at) {
    const char quote = text[at];
    const std::string end(3, quote);
    for (at += end.size(); at < text.size(); ++at) {
        if (text[at] == '\\' && quote == '"') {
            ++at;
        } else if (text.substr(at, end.size()) == end) {
            return std::min(text.find_first_not_of(quote, at), text.size());
        }
    }
    return text.size();
}

std::size_t endOfShortString(std::string_view text, std::size_t at) {
    const char quote = text[at];
    for (++at; at < text.size() && text[at] != '\n'; ++at) {
        if (text[at] == quote) {
            return at + 1;
        }
        if (text[at] == '\\' && quote == '"') {
            ++at;
        }
    }
    return std::min(at, text.size());
}

std::size_t endOfString(std::string_view text, std::size_t at) {
    const bool isLong = text.substr(at, 3) == std::string(3, text[at]);
    return isLong ? endOfLongString(text, at) : endOfShortString(text, at);
}

/// Columns are counted in characters, as the parser does: bytes that continue one (RFC 3629) do not count.
TomlFault errorAt(std::string_view text, std::size_t at, std::string message) {
    const auto head = text.substr(0, at);
    const auto line = head.substr(head.rfind('\n') + 1);  // npos + 1 is 0: the first line
    const auto characters = std::count_if(line.begin(), line.end(),
                                          [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; });
    return {static_cast<std::size_t>(std::count(head.begin(), head.end(), '\n')) + 1,
            static_cast<std::size_t>(characters) + 1, std::move(message)};
}

}  // namespace

std::optional<TomlFault> findUnparsable(std::string_view text) {
    std::size_t dots = 0;
    for (std::size_t at = text.substr(0, 3) == kByteOrderMark ? 3 : 0; at < text.size();) {
        const char c = text[at];
        if (c == '"' || c == '\'') {
            at = endOfString(text, at);
            continue;
        }
        if (c == '#') {
            at = std::min(text.find('\n', at), text.size());
            continue;
        }
        if (static_cast<unsigned char>(c) >= 0x80U) {
            return errorAt(text, at, "only letters, digits and signs of ASCII may stand outside quotes");
        }
        if (c == '.' && ++dots >= kMaxKeyParts) {
            return errorAt(text, at, fmt::format("a key has more than {} parts", kMaxKeyParts));
        }
        if (kEndsOfKeys.find(c) != std::string_view::npos) {
            dots = 0;
        }
        ++at;
    }
    return std::nullopt;
}

}  // namespace kx::agent
