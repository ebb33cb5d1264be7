// What a look at one thing has brought. Plain values.
#pragma once

#include <string>
#include <vector>

namespace kx::ctl {

/// How it stands.
enum class Verdict {
    Ok,
    Warn,  ///< works without it, or cannot be told
    Fail,  ///< something that is meant to work does not
};

/// @brief One line of a report. Texts fit for a terminal.
struct Finding {
    Verdict verdict;
    std::string about;
    std::string words;
    std::string todo;  ///< what to do; empty where there is nothing to be done
};

using Findings = std::vector<Finding>;

}  // namespace kx::ctl
