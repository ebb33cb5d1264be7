// What standard output is connected to. Main thread only.
#pragma once

#include <cstddef>
#include <optional>

#include "ctl/view/Paint.h"

namespace kx::ctl {

/// The size of a terminal, in characters.
struct TerminalSize {
    std::size_t columns = 80;
    std::size_t rows = 24;
};

bool isTerminal(int descriptor);

/// @return its size; nothing when the descriptor is no terminal. One that does not know its size has the usual one.
std::optional<TerminalSize> terminalSize(int descriptor);

/// @return how wide tables may be that go there; nothing: as wide as they are
std::optional<std::size_t> tableRoom(int descriptor);

/// @brief Colours are for terminals that have them, and for people who have not said otherwise: by --no-color, or by
/// anything in NO_COLOR.
bool wantsColors(int descriptor, bool noColor);

}  // namespace kx::ctl
