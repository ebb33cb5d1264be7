// Selects rows of the tables that list containers, or what their configurations hold.
//
// Thread promise: main thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "mib/RowSelector.h"
#include "tables/ContainerSnapshot.h"

/// @brief Where the rows of the current list are. It holds the list, so that no other one can have its address.
/// @tparam T the table type, whose cursor can be made again from its Place and the end of the list
template <typename T>
class ContainerRows {
public:
    /// @brief See RowSelector.h. The rows are others when the agent has published another list.
    void refresh(RowIndex& index) {
        auto environments = currentEnvironments();
        if (snapshot_ && end_ == environments.end()) {
            return;
        }
        end_ = environments.end();
        snapshot_ = std::make_shared<const typename T::Snapshot>(std::move(environments));
        places_.clear();
        index.clear();
        const auto last = snapshot_->end();
        for (auto cursor = snapshot_->begin(); !(cursor == last); ++cursor) {
            places_.push_back(cursor.place());
            kx::mib::addToIndex<T>(index, *cursor);
        }
        index.sort();
    }

    std::optional<Selection<T>> select(const std::vector<std::uint32_t>& places) const {
        Selection<T> selection{snapshot_, {}};
        for (const std::uint32_t place : places) {
            selection.rows.emplace_back(places_[place], end_);
        }
        return selection;
    }

private:
    std::shared_ptr<const typename T::Snapshot> snapshot_;
    ContainerWalk::Position end_;
    std::vector<typename T::Cursor::Place> places_;
};
