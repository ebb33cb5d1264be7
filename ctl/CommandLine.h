// What may stand on the command line. Main thread only.
#pragma once

#include "ctl/Selection.h"

namespace CLI {
class App;
}

namespace kx::ctl {

/// @brief Describes every command and option to the command line's library.
/// @param selection receives, once the command line is parsed, what was selected; must outlive that
void describe(CLI::App& app, Selection& selection);

}  // namespace kx::ctl
