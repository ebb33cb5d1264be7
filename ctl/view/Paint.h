// Colours on a terminal. Plain values; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kx::ctl {

/// What a text is painted with.
enum class Paint { None, Bold, Faint, Red, Green, Yellow, Cyan, Reverse };

/// @brief Paints, or leaves all as it is where colours are not wanted.
class Painter {
public:
    explicit Painter(bool hasColors) : hasColors_(hasColors) {}

    std::string operator()(std::string_view text, Paint paint) const;

private:
    bool hasColors_;
};

/// @return what a container's state is painted with
Paint statePaint(int state);

/// @return what the use of something limited is painted with, in parts of a hundred
Paint percentPaint(std::int64_t percent);

}  // namespace kx::ctl
