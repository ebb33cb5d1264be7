#include "agent/backends/simulated/SimulatedCounters.h"

#include <algorithm>
#include <cstdint>
#include <tuple>

namespace kx::agent::simulated {
namespace {

/// Rows with the same counters, known and unknown, share a table; the names are its key.
using Names = std::vector<std::string>;
using Tables = std::map<std::tuple<std::string, Names, Names>, CounterTable>;

/// Far beyond what any counter comes to, and within the range of a number.
constexpr double kMostAdded = 9e18;

/// Wraps around as a kernel's counter does.
std::int64_t valueOf(const CounterSource& source, double seconds) {
    const double exactly = static_cast<double>(source.perSecond) * seconds;
    const auto added = static_cast<std::int64_t>(std::clamp(exactly, -kMostAdded, kMostAdded));
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(source.value) + static_cast<std::uint64_t>(added));
}

void addRow(Tables& tables, const std::string& className, CounterRow row,
            const std::map<std::string, CounterSource>& counters, double seconds) {
    Names names;
    Names unknown;
    for (const auto& [name, source] : counters) {
        names.push_back(name);
        if (!source.known) {
            unknown.push_back(name);
        }
        row.values.push_back(valueOf(source, seconds));
    }
    CounterTable& table = tables[{className, names, unknown}];
    if (!table.names) {
        table.className = className;
        table.names = std::make_shared<const Names>(std::move(names));
        table.unknown = std::move(unknown);
    }
    table.rows.push_back(std::move(row));
}

}  // namespace

CounterImage readCounters(const std::map<Eid, Counters>& counters, std::chrono::steady_clock::duration passed) {
    const double seconds = std::chrono::duration<double>(passed).count();
    Tables tables;
    for (const auto& [eid, classes] : counters) {
        for (const auto& [className, instances] : classes) {
            for (const auto& [instance, ofInstance] : instances) {
                addRow(tables, className, {eid, instance, {}}, ofInstance, seconds);
            }
        }
    }
    CounterImage image{std::chrono::steady_clock::now(), {}};
    for (auto& [key, table] : tables) {
        image.tables.push_back(std::move(table));
    }
    return image;
}

}  // namespace kx::agent::simulated
