#include "agent/inventory/Eid.h"

#include <algorithm>
#include <boost/uuid/name_generator_sha1.hpp>
#include <boost/uuid/uuid.hpp>
#include <charconv>
#include <functional>

namespace kx::agent {
namespace {

/// Made once at random: keeps our identifiers apart from those that others make of the same machine id. Changing it
/// would give every environment of every host a new identifier.
constexpr boost::uuids::uuid kNamespace{
    {0x5d, 0x0c, 0x1e, 0x6b, 0x3f, 0x88, 0x4f, 0x0e, 0x9a, 0x57, 0x2b, 0x71, 0xd4, 0x6c, 0x90, 0x13}};

constexpr std::string_view kPattern = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";

boost::uuids::uuid nameBased(const boost::uuids::uuid& space, std::string_view name) {
    return boost::uuids::name_generator_sha1(space)(name.data(), name.size());
}

}  // namespace

std::string Eid::toString() const {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text(kPattern);
    std::size_t position = 0;
    for (const std::uint8_t byte : bytes) {
        position += text[position] == '-' ? 1 : 0;
        text[position++] = digits[byte >> 4U];
        text[position++] = digits[byte & 0xfU];
    }
    return text;
}

std::string Eid::toWire() const {
    return {bytes.begin(), bytes.end()};
}

std::optional<Eid> Eid::fromWire(std::string_view wire) {
    Eid eid;
    if (wire.size() != eid.bytes.size()) {
        return std::nullopt;
    }
    std::copy(wire.begin(), wire.end(), eid.bytes.begin());
    return eid;
}

std::optional<Eid> Eid::parse(std::string_view text) {
    if (text.size() != kPattern.size()) {
        return std::nullopt;
    }
    Eid eid;
    std::size_t position = 0;
    for (std::uint8_t& byte : eid.bytes) {
        if (kPattern[position] == '-' && text[position++] != '-') {
            return std::nullopt;
        }
        const char* const end = text.data() + position + 2;
        const auto [stop, error] = std::from_chars(text.data() + position, end, byte, 16);
        if (error != std::errc() || stop != end) {
            return std::nullopt;
        }
        position += 2;
    }
    return eid;
}

Eid Eid::fromName(std::string_view machineId, std::string_view name) {
    const boost::uuids::uuid uuid = nameBased(nameBased(kNamespace, machineId), name);
    Eid eid;
    std::copy(uuid.begin(), uuid.end(), eid.bytes.begin());
    return eid;
}

std::size_t EidHash::operator()(const Eid& eid) const {
    return std::hash<std::string_view>()({reinterpret_cast<const char*>(eid.bytes.data()), eid.bytes.size()});
}

}  // namespace kx::agent
