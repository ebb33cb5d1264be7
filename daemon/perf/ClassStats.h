// What the performance monitor knows of one counter class. Plain values; copies are private to their owner.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <kxl/KXLPerfStat.h>

/// Counter name to its statistics.
using CounterMap = std::map<std::string, KXLPerfStat>;

/// Instance name to its counters.
using InstanceMap = std::map<std::string, CounterMap>;

/// VE id (at least 1) to its instances, so that readers walk containers in ascending number.
using ClassStats = std::map<int, InstanceMap>;

/// Which rows a class has, without their values: one for each instance, in the order of ClassStats.
struct CounterRow {
    int veid;
    std::string instance;
    const CounterMap* counters;  ///< in the monitor's cache: for the monitor alone, while its lock is held
};
using CounterRows = std::vector<CounterRow>;
using CounterRowsPtr = std::shared_ptr<const CounterRows>;
