// The callbacks through which the agent library's table iterator reads a table.
//
// Thread promise: everything here runs on the main thread, inside the library's request loop, which handles one
// request at a time; the walk in iinfo->myvoid is therefore not guarded.
//
// What a table type T offers:
//     Snapshot   default-constructible: takes its own copy of, or counted reference to, the data when it is made;
//                begin() and end() give cursors
//     Cursor     copyable; operator++ moves to the next row, operator== is asked against the end, operator*
//                gives what a Row is made from
//     Row        derived from TableDataContext<T>
//     Keys       the key list (Keys.h)
//     minColumn, maxColumn
// Rows may come in any order: the library visits them all for each request and picks the one it needs.
//
// The callbacks are noexcept on purpose. The agent library is C and has no way to undo a half-handled request, so
// an exception (in practice: no memory left) must not travel through its frames; the process ends where the
// exception was thrown, after the temporaries below the callback were released, and its supervisor starts it anew.
#pragma once

#include <memory>

#include "mib/ColumnValue.h"
#include "mib/LibraryLock.h"
#include "mib/TableDataContext.h"

namespace kx::mib {

/// Asks an untyped row for the value under a tag.
using ReadColumn = ColumnValue (*)(void* row, unsigned tag);

/// @brief Builds the index list of one row.
/// @param indexTemplate the list the library handed in: cloned, never freed
/// @param iinfo gives the tags of the keys
/// @return null when the library cannot clone the template, which ends the walk
VarbindPtr buildIndexList(netsnmp_variable_list* indexTemplate, const netsnmp_iterator_info* iinfo, void* row,
                          ReadColumn readColumn);

/// @brief Answers get requests from the rows that the iterator found for them. Errors are set on the requests.
/// @param maxColumn the table's last column
void answerRequests(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests, unsigned maxColumn,
                    ReadColumn readColumn);

}  // namespace kx::mib

/// @brief What a table keeps in iinfo->myvoid from first_data_point to free_loop.
template <typename T>
struct TableWalk {
    typename T::Snapshot snapshot;
    typename T::Cursor end = snapshot.end();

    /// The template that the library passed to first_data_point, once a row's list took its place. The library
    /// forgets it then, and nobody else would free it: 1.1 KiB a key, for every varbind of every walk.
    VarbindPtr replacedTemplate;
};

/// @brief The table iterator's callbacks for table T.
template <typename T>
class TableHelperHelper {
public:
    /// @brief Takes a snapshot and stands on its first row.
    /// @param loop_context receives the cursor, even when there is no row
    /// @param data_context not touched: rows are made on demand
    /// @param put_index_data the library's index template; not freed here, see TableWalk
    /// @return the first row's index list, the library's own; null when the table is empty
    static netsnmp_variable_list* first_data_point(void** loop_context, void** /*data_context*/,
                                                   netsnmp_variable_list* put_index_data,
                                                   netsnmp_iterator_info* iinfo) noexcept {
        const OutOfLibrary outside;  // taking a snapshot asks the link
        endWalk(iinfo);
        auto walk = std::make_unique<TableWalk<T>>();
        auto cursor = std::make_unique<Cursor>(walk->snapshot.begin());
        VarbindPtr list = indexList(*cursor, *walk, put_index_data, iinfo);
        if (list) {
            walk->replacedTemplate.reset(put_index_data);
        }
        *loop_context = cursor.release();
        iinfo->myvoid = walk.release();
        return list.release();
    }

    /// @brief Moves the cursor to the next row.
    /// @param put_index_data the previous row's list. Freed when a new one is returned; otherwise left alone,
    /// since the library frees the last list itself
    /// @return the row's index list, the library's own; null at the end
    static netsnmp_variable_list* next_data_point(void** loop_context, void** /*data_context*/,
                                                  netsnmp_variable_list* put_index_data,
                                                  netsnmp_iterator_info* iinfo) noexcept {
        const auto* walk = static_cast<TableWalk<T>*>(iinfo->myvoid);
        auto* cursor = static_cast<Cursor*>(*loop_context);
        if (walk == nullptr || cursor == nullptr || *cursor == walk->end) {
            return nullptr;
        }
        ++*cursor;
        VarbindPtr list = indexList(*cursor, *walk, put_index_data, iinfo);
        if (list) {
            snmp_free_varbind(put_index_data);
        }
        return list.release();
    }

    /// @brief Copies the cursor's row for the library to keep.
    /// @return the library's own until free_data; null when there is no cursor
    static void* make_data(void* loop_context, netsnmp_iterator_info* /*iinfo*/) noexcept {
        const auto* cursor = static_cast<const Cursor*>(loop_context);
        if (cursor == nullptr) {
            return nullptr;
        }
        std::unique_ptr<TableDataContext<T>> row = std::make_unique<typename T::Row>(**cursor);
        return row.release();
    }

    /// @brief Destroys a row made by make_data. Null is ignored.
    static void free_data(void* data_context, netsnmp_iterator_info* /*iinfo*/) noexcept {
        const std::unique_ptr<TableDataContext<T>> row(static_cast<TableDataContext<T>*>(data_context));
    }

    /// @brief Ends the walk: drops the cursor (null is ignored) and the snapshot.
    static void free_loop(void* loop_context, netsnmp_iterator_info* iinfo) noexcept {
        const std::unique_ptr<Cursor> cursor(static_cast<Cursor*>(loop_context));
        endWalk(iinfo);
    }

    /// @brief Answers the requests. The iterator turns every kind of read into a get before it comes here.
    /// @return always 0: errors are set on the requests
    static int final_handler(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* /*reginfo*/,
                             netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) noexcept {
        const OutOfLibrary outside;  // a column may ask the link
        kx::mib::answerRequests(reqinfo, requests, T::maxColumn, &readColumn);
        return SNMP_ERR_NOERROR;
    }

private:
    using Cursor = typename T::Cursor;

    static void endWalk(netsnmp_iterator_info* iinfo) {
        const std::unique_ptr<TableWalk<T>> walk(static_cast<TableWalk<T>*>(iinfo->myvoid));
        iinfo->myvoid = nullptr;
    }

    static VarbindPtr indexList(const Cursor& cursor, const TableWalk<T>& walk, netsnmp_variable_list* indexTemplate,
                                const netsnmp_iterator_info* iinfo) {
        if (cursor == walk.end) {
            return nullptr;
        }
        typename T::Row row(*cursor);
        return kx::mib::buildIndexList(indexTemplate, iinfo, static_cast<TableDataContext<T>*>(&row), &readColumn);
    }

    static ColumnValue readColumn(void* row, unsigned tag) { return (*static_cast<TableDataContext<T>*>(row))[tag]; }
};
