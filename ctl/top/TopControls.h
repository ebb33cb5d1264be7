// What keys do to what kxctl top shows. Values; one thread.
#pragma once

#include <cstddef>

#include "ctl/top/TopKeys.h"
#include "ctl/top/TopView.h"

namespace kx::ctl {

/// @brief Acts on a key: sorts, scrolls, edits the search, shows or hides the help.
/// @param page how many rows are shown at a time
/// @return false for the key that quits
bool takeTopKey(TopView& view, const TopKey& key, std::size_t page);

/// @brief Scrolls back as far as needed for the last page to be full. After the rows, the search or the page changed.
void keepInRange(TopView& view, std::size_t page);

}  // namespace kx::ctl
