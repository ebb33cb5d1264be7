#include "ctl/Printable.h"

#include <fmt/format.h>

#include "ctl/Utf8.h"

namespace kx::ctl {
namespace {

bool isIn(char32_t character, char32_t from, char32_t to) {
    return character >= from && character <= to;
}

/// Characters of more than one byte that are not to be seen, but change how others are.
bool isInvisible(char32_t character) {
    return isIn(character, 0x80, 0x9F)           // controls, which some terminals obey
           || character == 0x61C                 // Arabic letter mark
           || isIn(character, 0x200B, 0x200F)    // zero width, direction marks
           || isIn(character, 0x2028, 0x202E)    // line and paragraph separator, direction
           || isIn(character, 0x2060, 0x206F)    // direction, invisible operators
           || character == 0xFEFF                // byte order mark
           || isIn(character, 0xFFF9, 0xFFFB)    // annotations
           || isIn(character, 0xE0000, 0xE007F)  // tags
        ;
}

std::string escapedByte(char byte) {
    switch (byte) {
        case '\n':
            return "\\n";
        case '\r':
            return "\\r";
        case '\t':
            return "\\t";
        case '\\':
            return "\\\\";
        default:
            return fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
    }
}

bool isPlainByte(char32_t character) {
    return isIn(character, 0x20, 0x7E) && character != '\\';
}

std::string shown(const Utf8Step& step, std::string_view bytes) {
    if (step.isValid && (step.bytes > 1 ? !isInvisible(step.character) : isPlainByte(step.character))) {
        return std::string(bytes);
    }
    if (step.isValid && step.bytes > 1) {
        return fmt::format("\\u{{{:04x}}}", static_cast<std::uint32_t>(step.character));
    }
    std::string escaped;
    for (const char byte : bytes) {
        escaped += escapedByte(byte);
    }
    return escaped;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string made;
    made.reserve(text.size());
    while (!text.empty()) {
        const Utf8Step step = firstCharacter(text);
        made += shown(step, text.substr(0, step.bytes));
        text.remove_prefix(step.bytes);
    }
    return made;
}

std::string printableWord(std::string_view text) {
    std::string made = printable(text);
    if (!made.empty() && made.find_first_of(" \"") == std::string::npos) {
        return made;
    }
    std::string quoted = "\"";
    for (const char byte : made) {
        quoted += byte == '"' ? "\\\"" : std::string(1, byte);
    }
    return quoted + '"';
}

}  // namespace kx::ctl
