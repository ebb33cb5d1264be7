#include "ctl/Numbers.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <map>
#include <optional>
#include <system_error>

#include "ctl/ExitCode.h"
#include "ctl/Printable.h"

namespace kx::ctl {

namespace {

template <typename Number>
Number readAs(std::string_view option, std::string_view text, Number from, Number to) {
    Number number{};
    const char* const end = text.data() + text.size();
    const auto [stopped, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc::invalid_argument || stopped != end) {
        throw Failure(ExitCode::WrongUsage, fmt::format("{}: {} is no number", option, printableWord(text)));
    }
    if (error != std::errc() || !(number >= from && number <= to)) {
        throw Failure(ExitCode::WrongUsage, fmt::format("{}: {} is outside of {} to {}", option, text, from, to));
    }
    return number;
}

/// @return of "10m" and the like; nothing of anything else
std::optional<std::time_t> secondsAgo(const std::string& text) {
    static const std::map<char, std::time_t> kUnits{{'s', 1}, {'m', 60}, {'h', 3600}, {'d', 86400}};
    constexpr std::time_t kMost = 1'000'000;  // of any unit
    const auto unit = text.empty() ? kUnits.end() : kUnits.find(text.back());
    std::time_t count = 0;
    const char* const end = text.data() + text.size() - 1;
    if (unit == kUnits.end() || text.front() == '-') {
        return std::nullopt;
    }
    const auto [stopped, error] = std::from_chars(text.data(), end, count);
    return error == std::errc() && stopped == end && count <= kMost ? std::optional(count * unit->second)
                                                                    : std::nullopt;
}

/// @return -1 when it is none
std::time_t localTimeOf(const std::string& text, std::time_t now) {
    for (const char* const format : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%H:%M:%S", "%H:%M"}) {
        std::tm parts{};
        ::localtime_r(&now, &parts);
        parts.tm_sec = 0;
        const char* const stopped = ::strptime(text.c_str(), format, &parts);
        if (stopped != nullptr && *stopped == '\0') {
            parts.tm_isdst = -1;
            return std::mktime(&parts);
        }
    }
    return -1;
}

}  // namespace

// Not left to the command line's library: that takes 010 for eight and 0x10 for sixteen.
std::int64_t readNumber(std::string_view option, std::string_view text, std::int64_t from, std::int64_t to) {
    return readAs(option, text, from, to);
}

double readDecimal(std::string_view option, std::string_view text, double from, double to) {
    return readAs(option, text, from, to);
}

std::uint64_t readSince(std::string_view option, const std::string& text, std::time_t now) {
    const auto since = secondsAgo(text);
    const std::time_t time = since ? now - *since : localTimeOf(text, now);
    if (time < 1 || time > now) {
        throw Failure(ExitCode::WrongUsage,
                      fmt::format("{}: {} is no time that is past; one looks like 10m, 2h, 23:05 or "
                                  "\"2026-11-21 23:05\"",
                                  option, printableWord(text)));
    }
    return static_cast<std::uint64_t>(time);
}

std::size_t readWord(std::string_view option, std::string_view text, const std::vector<std::string>& words) {
    const auto found = std::find(words.begin(), words.end(), text);
    if (found == words.end()) {
        throw Failure(ExitCode::WrongUsage,
                      fmt::format("{}: {} is none of {}", option, printableWord(text), fmt::join(words, ", ")));
    }
    return static_cast<std::size_t>(found - words.begin());
}

}  // namespace kx::ctl
