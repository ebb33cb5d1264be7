// UTF-8, as RFC 3629 defines it: no surrogates, nothing over U+10FFFF, no longer form than needed. Free functions, any
// thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kx::ctl {

/// What a text begins with.
struct Utf8Step {
    std::size_t bytes = 0;   ///< of the character; of what is no character, the bytes to step over, at least 1
    char32_t character = 0;  ///< when it is one
    bool isValid = false;
};

/// @brief Looks at the first character.
/// @param text not empty
/// @return what is no character is as long as a beginning of one could be, so that a character cut short is one
/// mistake and not several (Unicode, chapter 3.9, "maximal subpart")
Utf8Step firstCharacter(std::string_view text);

/// @return whether the whole text is UTF-8
bool isUtf8(std::string_view text);

/// @return the text with U+FFFD in the place of all that is no character
std::string asUtf8(std::string_view text);

}  // namespace kx::ctl
