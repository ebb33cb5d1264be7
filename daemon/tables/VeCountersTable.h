// Tables of per-container performance counters. Which counter a column shows is said by the agent's vocabulary: the
// order of the names in a class's category is the order of the columns.
//
// Thread promise: main thread, inside the handling of one request.
//
// What a row class offers:
//     static constexpr const char* className          the counter class
//     Row(int veid, const std::string& instance, InstanceCounters counters)
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "link/SNMPNodeLocal.h"
#include "mib/RowSelector.h"
#include "perf/ClassStats.h"

#include <kxl/KXLPerfStat.h>

/// @brief The counters of one instance. Rows are copied for every look at their index, so copies share the map; one
/// that grows takes a map of its own.
class InstanceCounters {
public:
    explicit InstanceCounters(CounterMap counters)
        : counters_(std::make_shared<const CounterMap>(std::move(counters))) {}

    /// @brief A counter's statistics. One that is missing reads 0 and is there from then on, in this copy.
    const KXLPerfStat& at(const std::string& name) {
        const auto found = counters_->find(name);
        return found == counters_->end() ? add(name) : found->second;
    }

    std::size_t size() const { return counters_->size(); }

private:
    const KXLPerfStat& add(const std::string& name) {
        auto grown = std::make_shared<CounterMap>(*counters_);
        const KXLPerfStat& added = (*grown)[name];
        counters_ = std::move(grown);
        return added;
    }

    std::shared_ptr<const CounterMap> counters_;
};

/// @brief The names of a class's counters, in the order of the vocabulary as it is now.
/// @return valid until the next call
const std::vector<std::string>& counterNames(const std::string& className);

/// @brief The rows of a class. As long as nothing is known of it, the agent is asked, as by SNMPNodeLocal::getStats.
/// @return null when there are none
CounterRowsPtr counterRows(const std::string& className);

/// @return the counters of those rows; nullopt when the class has other rows by now
std::optional<std::vector<CounterMap>> countersOf(const std::string& className, const CounterRowsPtr& rows,
                                                  const std::vector<std::uint32_t>& places);

/// @brief The rows as they were when the walk began: by container, then by the name of the instance.
template <typename RowT>
class CountersSnapshot {
public:
    using Cursor = typename std::vector<RowT>::const_iterator;

    /// Takes the link's data; empty when there is no link.
    CountersSnapshot() : CountersSnapshot(statsOfLink()) {}
    explicit CountersSnapshot(ClassStats&& stats) {
        for (auto& [veid, instances] : stats) {
            for (auto& [instance, counters] : instances) {
                rows_.emplace_back(veid, instance, InstanceCounters(std::move(counters)));
            }
        }
    }
    explicit CountersSnapshot(std::vector<RowT>&& rows) : rows_(std::move(rows)) {}

    Cursor begin() const { return rows_.begin(); }
    Cursor end() const { return rows_.end(); }

private:
    static ClassStats statsOfLink() {
        SNMPNodeLocal* const link = SNMPNodeLocal::instance();
        return link == nullptr ? ClassStats() : link->getStats(RowT::className);
    }

    std::vector<RowT> rows_;
};

/// @brief Selects rows of a counter table. Values are copied of the selected ones only.
/// @tparam T the table type
template <typename T>
class CounterRowSource {
public:
    using Row = typename T::Row;

    /// @brief See RowSelector.h. The rows are others when an instance or a container has come or gone.
    void refresh(RowIndex& index) {
        auto current = counterRows(Row::className);
        if (current == rows_) {
            return;
        }
        rows_ = std::move(current);
        index.clear();
        const InstanceCounters none{CounterMap()};
        for (const CounterRow& row : rows_ ? *rows_ : CounterRows()) {
            kx::mib::addToIndex<T>(index, Row(row.veid, row.instance, none));
        }
        index.sort();
    }

    std::optional<Selection<T>> select(const std::vector<std::uint32_t>& places) const {
        auto counters = countersOf(Row::className, rows_, places);
        if (!counters && !places.empty()) {
            return std::nullopt;
        }
        std::vector<Row> rows;
        for (std::size_t i = 0; i < places.size(); ++i) {
            const CounterRow& row = (*rows_)[places[i]];
            rows.emplace_back(row.veid, row.instance, InstanceCounters(std::move((*counters)[i])));
        }
        Selection<T> selection{std::make_shared<const CountersSnapshot<Row>>(std::move(rows)), {}};
        for (auto cursor = selection.snapshot->begin(); cursor != selection.snapshot->end(); ++cursor) {
            selection.rows.push_back(cursor);
        }
        return selection;
    }

private:
    CounterRowsPtr rows_;
};

/// @brief The table type of a counter table, for TableHelperHelper.
/// @tparam KeysT the key list: the container's number first, as a foreign key
/// @tparam RowT the row class
/// @tparam firstColumn,lastColumn the columns that requests can name
template <typename KeysT, typename RowT, unsigned firstColumn, unsigned lastColumn>
struct VeCountersTable {
    using Keys = KeysT;
    using Row = RowT;
    using Cursor = typename std::vector<Row>::const_iterator;
    using Snapshot = CountersSnapshot<Row>;
    using RowSource = CounterRowSource<VeCountersTable>;

    static constexpr unsigned minColumn = firstColumn;
    static constexpr unsigned maxColumn = lastColumn;
};
