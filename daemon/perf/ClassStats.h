// What the performance monitor knows of one counter class. A plain value; copies are private to their owner.
#pragma once

#include <map>
#include <string>

#include <kxl/KXLPerfStat.h>

/// Counter name to its statistics.
using CounterMap = std::map<std::string, KXLPerfStat>;

/// Instance name to its counters.
using InstanceMap = std::map<std::string, CounterMap>;

/// VE id (at least 1) to its instances, so that readers walk containers in ascending number.
using ClassStats = std::map<int, InstanceMap>;
