// What a counter request is about. A plain value.
#pragma once

#include <set>
#include <string>

#include <kxl/KXLGUID.h>

namespace kx::client {

struct CounterRequest {
    std::set<std::string> classes;
    std::set<KXLEID> eids;  ///< empty: every container's
};

}  // namespace kx::client
