#include "agent/counters/CounterTables.h"

#include <algorithm>
#include <utility>

namespace kx::agent {

CounterTables::CounterTables(std::string className, CounterNames names)
    : className_(std::move(className)), names_(std::move(names)), tables_{emptyTable({})} {}

void CounterTables::add(CounterRow row, const std::vector<std::string>& unknown) {
    auto table =
        std::find_if(tables_.begin(), tables_.end(), [&](const CounterTable& one) { return one.unknown == unknown; });
    if (table == tables_.end()) {
        table = tables_.insert(tables_.end(), emptyTable(unknown));
    }
    table->rows.push_back(std::move(row));
}

std::vector<CounterTable> CounterTables::take() {
    return std::exchange(tables_, {emptyTable({})});
}

CounterTable CounterTables::emptyTable(std::vector<std::string> unknown) const {
    return {className_, names_, {}, std::move(unknown)};
}

}  // namespace kx::agent
