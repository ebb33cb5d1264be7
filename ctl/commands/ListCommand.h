// kxctl list: the containers, a line each. Main thread only.
#pragma once

#include <string>
#include <vector>

#include "ctl/Selection.h"

namespace kx::ctl {

/// The options as they were typed.
struct ListArguments {
    bool all = false;  ///< environments without a number and of other types too
    bool json = false;
    std::vector<std::string> states;      ///< words or numbers; empty: all
    std::vector<std::string> containers;  ///< numbers, names, identifiers or patterns; empty: all
    std::vector<std::string> columns;     ///< words; empty: the usual ones
    std::string sort = "veid";
    bool reverse = false;
};

/// @return the words for the columns, in order
std::vector<std::string> listColumnWords();

/// @throws Failure, of wrong usage before anything is asked of the agent
ExitCode runList(const ListArguments& typed, const CommonOptions& common);

}  // namespace kx::ctl
