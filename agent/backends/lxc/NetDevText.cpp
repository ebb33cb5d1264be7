#include "agent/backends/lxc/NetDevText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>

namespace kx::agent::lxc {
namespace {

constexpr const char* kLoopback = "lo";

/// Columns of a line, counted behind the name.
constexpr std::size_t kBytesIn = 0;
constexpr std::size_t kPacketsIn = 1;
constexpr std::size_t kBytesOut = 8;
constexpr std::size_t kPacketsOut = 9;
constexpr std::size_t kColumns = 10;

std::string_view withoutBlanks(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return text;
}

std::optional<std::array<std::uint64_t, kColumns>> numbersIn(std::string_view text) {
    std::array<std::uint64_t, kColumns> numbers{};
    for (std::uint64_t& number : numbers) {
        text = withoutBlanks(text);
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error != std::errc()) {
            return std::nullopt;
        }
        text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    }
    return numbers;
}

}  // namespace

std::vector<InterfaceCounters> parseNetDev(std::string_view text) {
    std::vector<InterfaceCounters> interfaces;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        // A name may hold a colon itself; numbers do not.
        const auto colon = line.rfind(':');
        if (colon == std::string_view::npos) {
            continue;
        }
        const auto numbers = numbersIn(line.substr(colon + 1));
        const std::string_view name = withoutBlanks(line.substr(0, colon));
        if (numbers && !name.empty() && name != kLoopback) {
            interfaces.push_back({std::string(name), (*numbers)[kBytesIn], (*numbers)[kPacketsIn],
                                  (*numbers)[kBytesOut], (*numbers)[kPacketsOut]});
        }
    }
    return interfaces;
}

}  // namespace kx::agent::lxc
