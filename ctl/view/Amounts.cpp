#include "ctl/view/Amounts.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace kx::ctl {
namespace {

/// Three digits and a unit: what rounds up to four digits has the next unit.
std::string amountText(std::int64_t amount, std::int64_t base) {
    constexpr std::array kUnits{"", "K", "M", "G", "T", "P", "E"};
    if (amount > -base && amount < base) {
        return std::to_string(amount);
    }
    double rest = static_cast<double>(amount);
    std::size_t unit = 0;
    while ((rest >= 999.5 || rest <= -999.5) && unit + 1 < kUnits.size()) {
        rest /= static_cast<double>(base);
        ++unit;
    }
    const bool isSmall = rest < 9.95 && rest > -9.95;
    return isSmall ? fmt::format("{:.1f}{}", rest, kUnits[unit]) : fmt::format("{:.0f}{}", rest, kUnits[unit]);
}

}  // namespace

std::string bytesText(std::int64_t bytes) {
    return amountText(bytes, 1024);
}

std::string countText(std::int64_t count) {
    return amountText(count, 1000);
}

std::string durationText(std::int64_t seconds) {
    constexpr std::int64_t kMinute = 60;
    constexpr std::int64_t kHour = 60 * kMinute;
    constexpr std::int64_t kDay = 24 * kHour;
    if (seconds >= kDay) {
        return fmt::format("{}d", seconds / kDay);
    }
    if (seconds >= kHour) {
        return fmt::format("{}h", seconds / kHour);
    }
    return seconds >= kMinute ? fmt::format("{}m", seconds / kMinute) : fmt::format("{}s", seconds);
}

std::int64_t percentOf(std::int64_t used, std::int64_t limit) {
    const double exactly = static_cast<double>(used) / static_cast<double>(limit) * 100;
    const auto percent = static_cast<std::int64_t>(std::clamp(exactly, 0.0, 1e6));
    return used < limit ? std::min<std::int64_t>(percent, 99) : percent;
}

std::string bar(std::int64_t percent, std::size_t width) {
    const std::size_t places = width - 2;
    const auto part = static_cast<std::size_t>(std::clamp<std::int64_t>(percent, 0, 100));
    std::size_t full = part * places / 100;
    full = part > 0 ? std::max<std::size_t>(full, 1) : full;
    return "[" + std::string(full, '#') + std::string(places - full, '.') + "]";
}

}  // namespace kx::ctl
