// What one container reports of its performance counters.
//
// Thread promise: plain values.
#pragma once

#include <boost/shared_ptr.hpp>
#include <map>
#include <set>
#include <string>

#include <kxl/KXLGUID.h>
#include <kxl/KXLPerfStat.h>

/// @brief One container's counters. Names are the agent's and opaque to the library.
struct KXLMonitorData {
    using Counters = std::map<std::string, KXLPerfStat>;  ///< by counter name
    using Instances = std::map<std::string, Counters>;    ///< by instance name
    using Classes = std::map<std::string, Instances>;     ///< by class name

    KXLEID eid;
    Classes classes;
};

/// @brief The classes that a request is about; for each, which counters of which instances. An empty inner map means
/// all of the class, which is what agents report in any case.
using KXLPerfMonClassList = std::map<std::string, std::map<std::string, std::set<std::string>>>;
