// Tables that list the elements of one list-valued setting of each container.
//
// Thread promise: main thread, inside the handling of one request.
//
// What a traits type offers:
//     Element   what the setting is a list of; copyable
//     Row       made from a container's number and an element
//     static std::vector<Element> listOf(const KXLEnv*)              a copy; empty when the container does not have the
//     list static bool areEqual(const Element&, const Element&)
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "tables/ContainerSnapshot.h"
#include "tables/ContainerWalk.h"

#include <kxa/KXAEnvConfig.h>
#include <kxl/KXLEnv.h>

/// @brief A position in the list of one container. The list is a copy: what the agent changes meanwhile is not seen.
template <typename Traits>
class VeSubListCursor {
public:
    /// A list without elements, of no container.
    VeSubListCursor() = default;

    /// @brief Stands on the first element of a container's list. Unlike the container table, which lists it all the
    /// same, this one has nothing of a container with the number 0 or without one: its rows could not be told from
    /// those of another such container.
    /// @param environment null: no container
    explicit VeSubListCursor(const KXLEnv* environment) {
        if (environment == nullptr) {
            return;
        }
        // The result is not looked at: without a number the preset stays.
        KXAEnvConfig(environment->getConfig()).getVeid(veid_);
        if (veid_ > 0) {
            elements_ = Traits::listOf(environment);
        }
    }

    bool atEnd() const { return position_ == elements_.size(); }
    /// Moves to the next element. Not to be called at the end.
    void advance() { ++position_; }

    /// @return the container's number
    std::int32_t veid() const { return veid_; }
    /// Not to be called at the end.
    const typename Traits::Element& element() const { return elements_[position_]; }

    /// @brief Whether both stand on the same row of a container, though each may have copied the list for itself: the
    /// element must stand at the same place and be the same. One that has moved is another row.
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

/// @brief A position in a sub-table: an element of a container's list, or the end. Containers come in the order of the
/// agent's list, elements in the order of theirs; nothing is sorted.
template <typename Traits>
class VeSubTableCursor {
public:
    /// @brief Stands on the first element of the first container from begin on that has one.
    /// @param end of the same list
    VeSubTableCursor(ContainerWalk::Position begin, ContainerWalk::Position end)
        : containers_(std::move(begin), std::move(end)) {
        enterContainer();
    }

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

    static constexpr unsigned minColumn = firstColumn;
    static constexpr unsigned maxColumn = lastColumn;
};
