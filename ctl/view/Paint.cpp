#include "ctl/view/Paint.h"

#include <fmt/format.h>

namespace kx::ctl {
namespace {

/// Parameters of "select graphic rendition" (ECMA-48, 8.3.117).
int codeOf(Paint paint) {
    switch (paint) {
        case Paint::Bold:
            return 1;
        case Paint::Faint:
            return 2;
        case Paint::Red:
            return 31;
        case Paint::Green:
            return 32;
        case Paint::Yellow:
            return 33;
        case Paint::Cyan:
            return 36;
        case Paint::Reverse:
            return 7;
        case Paint::None:
            break;
    }
    return 0;
}

}  // namespace

std::string Painter::operator()(std::string_view text, Paint paint) const {
    return hasColors_ && paint != Paint::None && !text.empty() ? fmt::format("\x1b[{}m{}\x1b[0m", codeOf(paint), text)
                                                               : std::string(text);
}

Paint statePaint(int state) {
    switch (state) {
        case 1:
            return Paint::Faint;
        case 2:
            return Paint::Green;
        case 3:
            return Paint::Cyan;
        default:
            return Paint::Yellow;
    }
}

Paint percentPaint(std::int64_t percent) {
    constexpr std::int64_t kNearlyFull = 90;
    constexpr std::int64_t kFilling = 75;
    if (percent >= kNearlyFull) {
        return Paint::Red;
    }
    return percent >= kFilling ? Paint::Yellow : Paint::None;
}

}  // namespace kx::ctl
