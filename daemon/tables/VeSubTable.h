// Tables with a row for each element of a list in the containers' configurations.
//
// Thread promise: main thread, inside the handling of one request.
//
// A traits type declares:
//     Element                                        of the list; copyable
//     Row                                            constructed from the container's number and an element
//     static std::vector<Element> listOf(const KXLEnv*)          empty for a container that lacks the setting
//     static bool areEqual(const Element&, const Element&)
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "tables/ContainerRows.h"
#include "tables/ContainerWalk.h"

#include <kxa/KXAEnvConfig.h>
#include <kxl/KXLEnv.h>

/// @brief A position in one container's list, of which it holds a copy: a change at the agent does not reach it.
template <typename Traits>
class VeSubListCursor {
public:
    /// No container, hence no elements.
    VeSubListCursor() = default;

    /// @brief Stands on the first element. Containers whose number is below 1 or missing have no elements here, though
    /// the container table lists them: several of them would share their rows' indexes.
    /// @param environment null: no container
    explicit VeSubListCursor(const KXLEnv* environment) {
        if (environment == nullptr) {
            return;
        }
        // The result is ignored: without a number the preset stays.
        KXAEnvConfig(environment->getConfig()).getVeid(veid_);
        if (veid_ > 0) {
            elements_ = Traits::listOf(environment);
        }
    }

    bool atEnd() const { return position_ == elements_.size(); }
    /// Moves to the next element. Not to be called at the end.
    void advance() { ++position_; }
    std::size_t position() const { return position_; }
    /// @param position of an element; the end, when there are not so many
    void moveTo(std::size_t position) { position_ = std::min(position, elements_.size()); }

    /// @return the container's number
    std::int32_t veid() const { return veid_; }
    /// Not to be called at the end.
    const typename Traits::Element& element() const { return elements_[position_]; }

    /// @brief Whether both stand on the same row of one container. Each may hold a copy made at another moment, so the
    /// elements are compared as well as their positions.
    bool operator==(const VeSubListCursor& other) const {
        if (atEnd() || other.atEnd()) {
            return atEnd() == other.atEnd();
        }
        return position_ == other.position_ && Traits::areEqual(element(), other.element());
    }

private:
    std::int32_t veid_ = -1;
    std::vector<typename Traits::Element> elements_;
    std::size_t position_ = 0;
};

/// @brief A position in a sub-table. Rows follow the agent's list of containers and, within one, its own list; their
/// indexes are in no order.
template <typename Traits>
class VeSubTableCursor {
public:
    struct Place {
        ContainerWalk::Position container;
        std::uint32_t element;
    };

    /// @brief Stands on the first element of the first container from begin on that has one.
    /// @param end of the same list
    VeSubTableCursor(ContainerWalk::Position begin, ContainerWalk::Position end)
        : containers_(std::move(begin), std::move(end)) {
        enterContainer();
    }

    /// @param place of a cursor over the same list
    /// @param end of that list
    VeSubTableCursor(const Place& place, ContainerWalk::Position end)
        : VeSubTableCursor(place.container, std::move(end)) {
        list_.moveTo(place.element);
    }
    Place place() const { return {containers_.position(), static_cast<std::uint32_t>(list_.position())}; }

    /// @return the current row, to be kept or asked by the caller
    typename Traits::Row operator*() const { return {list_.veid(), list_.element()}; }

    /// Moves to the next row. Not to be called at the end.
    VeSubTableCursor& operator++() {
        list_.advance();
        if (list_.atEnd()) {
            containers_.advance();
            enterContainer();
        }
        return *this;
    }

    bool operator==(const VeSubTableCursor& other) const {
        return containers_ == other.containers_ && list_ == other.list_;
    }

private:
    /// Copies the list of the container at hand, or of the next one that has elements.
    void enterContainer() {
        list_ = VeSubListCursor<Traits>(containers_.environment());
        while (list_.atEnd() && !containers_.atEnd()) {
            containers_.advance();
            list_ = VeSubListCursor<Traits>(containers_.environment());
        }
    }

    ContainerWalk containers_;
    VeSubListCursor<Traits> list_;
};

/// @brief The table type of a sub-table, for TableHelperHelper.
/// @tparam KeysT the key list: the container's number first, as a foreign key
/// @tparam TraitsT see above
/// @tparam firstColumn,lastColumn the columns that requests can name
template <typename KeysT, typename TraitsT, unsigned firstColumn, unsigned lastColumn>
struct VeSubTable {
    using Keys = KeysT;
    using Row = typename TraitsT::Row;
    using Cursor = VeSubTableCursor<TraitsT>;
    using Snapshot = ContainerSnapshot<Cursor>;
    using RowSource = ContainerRows<VeSubTable>;

    static constexpr unsigned minColumn = firstColumn;
    static constexpr unsigned maxColumn = lastColumn;
};
