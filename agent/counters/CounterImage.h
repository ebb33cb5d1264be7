// Performance counters as they were read at one moment. Plain values, no thread of their own.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/inventory/Eid.h"

namespace kx::agent {

/// Names of counters; shared, for all rows of a class have the same as a rule.
using CounterNames = std::shared_ptr<const std::vector<std::string>>;

/// What one instance of one container shows.
struct CounterRow {
    Eid eid;
    std::string instance;
    std::vector<std::int64_t> values;  ///< one a name, as they stand now: of an increase, the total
};

/// Rows of one class that have the same counters. A class may have several such tables.
struct CounterTable {
    std::string className;
    CounterNames names;  ///< not null
    std::vector<CounterRow> rows;
    std::vector<std::string> unknown = {};  ///< those of the names whose values are not known in any of these rows
};

/// Everything that a backend reads in one go.
struct CounterImage {
    std::chrono::steady_clock::time_point taken;
    std::vector<CounterTable> tables;
};

/// Takes an image, on the main thread.
using CounterSink = std::function<void(CounterImage)>;

}  // namespace kx::agent
