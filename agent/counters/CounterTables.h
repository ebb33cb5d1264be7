// The rows of one class, sorted into tables by which of their counters are not known. A value; one thread at a time.
#pragma once

#include <string>
#include <vector>

#include "agent/counters/CounterImage.h"

namespace kx::agent {

/// Collects rows that all have the same counters.
class CounterTables {
public:
    CounterTables(std::string className, CounterNames names);

    /// @param row a value for each name
    /// @param unknown those of the names whose values are not known; what stands for them is 0 as a rule
    void add(CounterRow row, const std::vector<std::string>& unknown = {});

    /// @brief Hands the tables over and begins anew.
    /// @return first the table of the rows of which all is known, with or without rows, then those that have some
    std::vector<CounterTable> take();

private:
    CounterTable emptyTable(std::vector<std::string> unknown) const;

    std::string className_;
    CounterNames names_;
    std::vector<CounterTable> tables_;
};

}  // namespace kx::agent
