#include "ctl/Numbers.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
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

}  // namespace

// Not left to the command line's library: that takes 010 for eight and 0x10 for sixteen.
std::int64_t readNumber(std::string_view option, std::string_view text, std::int64_t from, std::int64_t to) {
    return readAs(option, text, from, to);
}

double readDecimal(std::string_view option, std::string_view text, double from, double to) {
    return readAs(option, text, from, to);
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
