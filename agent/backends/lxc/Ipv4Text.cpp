#include "agent/backends/lxc/Ipv4Text.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <charconv>
#include <set>

namespace kx::agent::lxc {
namespace {

std::string quad(const Ipv4Bytes& bytes) {
    return fmt::format("{}.{}.{}.{}", bytes[0], bytes[1], bytes[2], bytes[3]);
}

std::optional<unsigned> prefixOf(std::string_view text) {
    unsigned prefix = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, prefix);
    const bool whole = error == std::errc() && rest == end;
    return whole && prefix <= kMaxPrefix ? std::optional(prefix) : std::nullopt;
}

std::optional<Address> parseLine(std::string_view line) {
    const auto slash = line.find('/');
    if (slash == std::string_view::npos) {
        return std::nullopt;
    }
    Ipv4Bytes bytes{};
    const bool good = ::inet_pton(AF_INET, std::string(line.substr(0, slash)).c_str(), bytes.data()) == 1;
    const auto prefix = prefixOf(line.substr(slash + 1));
    return good && prefix ? std::optional(addressOf(bytes, *prefix)) : std::nullopt;
}

}  // namespace

std::string maskText(unsigned prefix) {
    Ipv4Bytes mask{};
    for (unsigned bit = 0; bit < prefix; ++bit) {
        mask[bit / 8] = static_cast<std::uint8_t>(mask[bit / 8] | (0x80U >> (bit % 8)));
    }
    return quad(mask);
}

Address addressOf(const Ipv4Bytes& bytes, unsigned prefix) {
    return {quad(bytes), maskText(prefix)};
}

std::vector<Address> configuredAddresses(std::string_view lines) {
    std::vector<Address> addresses;
    std::set<std::string> seen;
    while (!lines.empty()) {
        const auto end = lines.find('\n');
        auto address = parseLine(lines.substr(0, end));
        lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 1);
        if (address && seen.insert(address->address).second) {
            addresses.push_back(std::move(*address));
        }
    }
    return addresses;
}

}  // namespace kx::agent::lxc
