#include "ctl/Utf8.h"

#include <array>

namespace kx::ctl {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

/// What may follow a lead byte. RFC 3629, section 4: only the second byte has limits of its own.
struct Lead {
    unsigned char from;
    unsigned char to;
    std::size_t bytes;
    unsigned char secondFrom;
    unsigned char secondTo;
};

constexpr std::array<Lead, 9> kLeads{{
    {0x00, 0x7F, 1, 0x00, 0x00},
    {0xC2, 0xDF, 2, 0x80, 0xBF},
    {0xE0, 0xE0, 3, 0xA0, 0xBF},
    {0xE1, 0xEC, 3, 0x80, 0xBF},
    {0xED, 0xED, 3, 0x80, 0x9F},
    {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF},
    {0xF1, 0xF3, 4, 0x80, 0xBF},
    {0xF4, 0xF4, 4, 0x80, 0x8F},
}};

const Lead* leadOf(unsigned char byte) {
    for (const Lead& lead : kLeads) {
        if (byte >= lead.from && byte <= lead.to) {
            return &lead;
        }
    }
    return nullptr;
}

bool mayFollow(const Lead& lead, std::size_t position, unsigned char byte) {
    return position == 1 ? byte >= lead.secondFrom && byte <= lead.secondTo : (byte & 0xC0U) == 0x80U;
}

char32_t leadBits(unsigned char byte, std::size_t bytes) {
    return bytes == 1 ? byte : byte & (0x7FU >> bytes);
}

}  // namespace

Utf8Step firstCharacter(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    const Lead* const lead = leadOf(first);
    if (lead == nullptr) {
        return {1, 0, false};
    }
    char32_t character = leadBits(first, lead->bytes);
    for (std::size_t position = 1; position < lead->bytes; ++position) {
        if (position == text.size() || !mayFollow(*lead, position, static_cast<unsigned char>(text[position]))) {
            return {position, 0, false};
        }
        character = (character << 6U) | (static_cast<unsigned char>(text[position]) & 0x3FU);
    }
    return {lead->bytes, character, true};
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const Utf8Step step = firstCharacter(text);
        if (!step.isValid) {
            return false;
        }
        text.remove_prefix(step.bytes);
    }
    return true;
}

std::string asUtf8(std::string_view text) {
    std::string made;
    made.reserve(text.size());
    while (!text.empty()) {
        const Utf8Step step = firstCharacter(text);
        made += step.isValid ? text.substr(0, step.bytes) : kReplacement;
        text.remove_prefix(step.bytes);
    }
    return made;
}

}  // namespace kx::ctl
