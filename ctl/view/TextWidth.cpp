#include "ctl/view/TextWidth.h"

#include <clocale>
#include <cwchar>

#include "ctl/Utf8.h"

namespace kx::ctl {
namespace {

constexpr std::string_view kEllipsis = "\xE2\x80\xA6";  // takes one column

/// The C library's table of widths belongs to a locale; the program's own is "C", in which only ASCII has a width.
class WidthTable {
public:
    WidthTable() : locale_(::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)) {}
    ~WidthTable() {
        if (locale_ != nullptr) {
            ::freelocale(locale_);
        }
    }
    WidthTable(const WidthTable&) = delete;
    WidthTable& operator=(const WidthTable&) = delete;

    std::size_t widthOf(char32_t character) const {
        if (character < 0x80 || locale_ == nullptr) {
            return 1;
        }
        const locale_t before = ::uselocale(locale_);
        const int width = ::wcwidth(static_cast<wchar_t>(character));
        ::uselocale(before);
        return width < 0 ? 1 : static_cast<std::size_t>(width);
    }

private:
    const locale_t locale_;
};

std::size_t widthOf(const Utf8Step& step) {
    static const WidthTable table;
    return step.isValid ? table.widthOf(step.character) : 1;
}

}  // namespace

std::size_t widthOf(std::string_view text) {
    std::size_t width = 0;
    while (!text.empty()) {
        const Utf8Step step = firstCharacter(text);
        width += widthOf(step);
        text.remove_prefix(step.bytes);
    }
    return width;
}

std::string fitted(std::string_view text, std::size_t width) {
    if (widthOf(text) <= width) {
        return std::string(text);
    }
    if (width == 0) {
        return {};
    }
    std::size_t used = 0;
    std::size_t bytes = 0;
    while (bytes < text.size()) {
        const Utf8Step step = firstCharacter(text.substr(bytes));
        const std::size_t more = widthOf(step);
        if (used + more > width - 1) {
            break;
        }
        used += more;
        bytes += step.bytes;
    }
    return std::string(text.substr(0, bytes)) + std::string(kEllipsis);
}

std::string filled(std::string_view text, std::size_t width, bool toTheRight) {
    const std::size_t present = widthOf(text);
    const std::string spaces(width > present ? width - present : 0, ' ');
    return toTheRight ? spaces + std::string(text) : std::string(text) + spaces;
}

}  // namespace kx::ctl
