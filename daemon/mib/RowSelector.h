// Spares the table iterator the rows that cannot answer a request, of which it would visit every one.
//
// A handler between the library's table helper and its iterator. For each GET and GETNEXT it brings a sorted index of
// the table up to date, chooses the rows that the requests can end at, and lets the iterator see these alone. Where
// there is nothing to choose from, the iterator sees all rows.
//
// Thread promise: main thread, inside the request loop. The link and the monitor are asked outside the library's lock.
//
// A table type T takes part by declaring T::RowSource, of which one object lives as long as the process:
//     void refresh(RowIndex& index)
//         fills the index anew when the rows are others than at the last call
//     std::optional<Selection<T>> select(const std::vector<std::uint32_t>& places)
//         those rows; nullopt when the rows have changed since refresh()
#pragma once

#include <optional>

#include "mib/Keys.h"
#include "mib/LibraryLock.h"
#include "mib/RowIndex.h"
#include "mib/TableHelperHelper.h"

namespace kx::mib {

/// Off, iterators see all rows. Only tests turn it off, to compare.
inline bool rowSelection = true;

/// How often a selection is tried again because the rows have changed meanwhile, before all rows are presented.
inline constexpr int selectionTries = 3;

/// @brief Appends a row to an index.
/// @tparam T the table type
template <typename T>
void addToIndex(RowIndex& index, typename T::Row row) {
    index.beginRow();
    KeyIndexes<typename T::Keys, T::maxColumn>::forEachTag([&](unsigned tag) { index.addKey(row[tag]); });
}

}  // namespace kx::mib

/// @brief The handler of table T.
template <typename T>
class RowSelector {
public:
    /// @brief Injects the handler in front of the iterator.
    /// @param registration a registered table
    /// @return SNMPERR_SUCCESS, or the library's error when it has no memory: all rows are visited then
    static int inject(netsnmp_handler_registration* registration) {
        netsnmp_mib_handler* const handler = netsnmp_create_handler("KxRowSelector", &handle);
        return handler == nullptr ? SNMPERR_GENERR
                                  : netsnmp_inject_handler_before(registration, handler, TABLE_ITERATOR_NAME);
    }

private:
    /// noexcept for the reason given in TableHelperHelper.h.
    static int handle(netsnmp_mib_handler* handler, netsnmp_handler_registration* registration,
                      netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) noexcept {
        TableHelperHelper<T>::selection = choose(*registration, reqinfo->mode, requests);
        const int result = netsnmp_call_next_handler(handler, registration, reqinfo, requests);
        TableHelperHelper<T>::selection.reset();
        return result;
    }

    static std::optional<Selection<T>> choose(const netsnmp_handler_registration& registration, int mode,
                                              const netsnmp_request_info* requests) {
        static typename T::RowSource source;
        static RowIndex index;
        if (!kx::mib::rowSelection || (mode != MODE_GET && mode != MODE_GETNEXT)) {
            return std::nullopt;
        }
        const OutOfLibrary outside;
        std::optional<Selection<T>> selection;
        for (int i = 0; i < kx::mib::selectionTries && !selection; ++i) {
            source.refresh(index);
            selection = source.select(index.choose(registration, mode, requests));
        }
        return selection;
    }
};
