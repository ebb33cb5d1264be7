// kxctl show: all that is known of one environment. Main thread only.
#pragma once

#include <string>

#include "ctl/Selection.h"

namespace kx::ctl {

/// The options as they were typed.
struct ShowArguments {
    std::string word;  ///< a number, a name or an identifier
    bool json = false;
};

/// @throws Failure, when nothing or more than one thing is meant by the word too
ExitCode runShow(const ShowArguments& typed, const CommonOptions& common);

}  // namespace kx::ctl
