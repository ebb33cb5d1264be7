// What the agent library's table iterator calls to read one of our tables.
//
// Thread promise: main thread, inside the request loop. The library finishes one request before it begins the next,
// which is why the walk in iinfo->myvoid and the selection need no guard.
//
// A table type T declares:
//     Keys                   the key list (Keys.h)
//     minColumn, maxColumn   the columns that requests can name
//     Row                    a TableDataContext<T>
//     Snapshot               all rows as of its default construction; begin() and end() are cursors
//     Cursor                 a copyable position: ++, * (what a Row is made of), and == to compare with the end
//     RowSource              how chosen rows are found (RowSelector.h); only registered tables need one
// Rows need no order of their indexes. The library asks for every row that it is given, and keeps the one it needs.
//
// The callbacks are noexcept on purpose. The agent library is C and has no way to undo a half-handled request, so
// an exception (in practice: no memory left) must not travel through its frames; the process ends where the
// exception was thrown, after the temporaries below the callback were released, and its supervisor starts it anew.
#pragma once

#include <memory>
#include <optional>
#include <utility>
#include <vector>

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

/// @brief Some rows of a snapshot, in list order: all that the library needs for the request in hand.
template <typename T>
struct Selection {
    std::shared_ptr<const typename T::Snapshot> snapshot;
    std::vector<typename T::Cursor> rows;
};

/// @brief One pass over a table, kept in iinfo->myvoid from first_data_point to free_loop: over all rows of a snapshot,
/// or over those that were selected.
template <typename T>
class TableWalk {
public:
    using Cursor = typename T::Cursor;

    explicit TableWalk(std::shared_ptr<const typename T::Snapshot> snapshot) : snapshot_(std::move(snapshot)) {}
    explicit TableWalk(const Selection<T>& selection) : snapshot_(selection.snapshot), selected_(selection.rows) {}

    /// @return on the first row, or at the end
    Cursor first() { return selected_ ? nextSelected() : snapshot_->begin(); }
    /// @brief Moves to the next row. Not to be called at the end.
    void advance(Cursor& cursor) {
        if (selected_) {
            cursor = nextSelected();
        } else {
            ++cursor;
        }
    }
    bool isAtEnd(const Cursor& cursor) const { return cursor == end_; }

    /// The template that the library passed to first_data_point, once a row's list took its place. The library
    /// forgets it then, and nobody else would free it: 1.1 KiB a key, for every varbind of every walk.
    VarbindPtr replacedTemplate;

private:
    Cursor nextSelected() { return next_ == selected_->size() ? end_ : (*selected_)[next_++]; }

    std::shared_ptr<const typename T::Snapshot> snapshot_;
    Cursor end_ = snapshot_->end();
    std::optional<std::vector<Cursor>> selected_;
    std::size_t next_ = 0;
};

/// @brief The table iterator's callbacks for table T.
template <typename T>
class TableHelperHelper {
public:
    /// @brief Begins a walk over the selected rows, or over all as they are now.
    /// @param loop_context receives the cursor, even when there is no row
    /// @param data_context not touched: rows are made on demand
    /// @param put_index_data the library's index template; not freed here, see TableWalk
    /// @return the first row's index list, which is the library's from then on; null when there is no row
    static netsnmp_variable_list* first_data_point(void** loop_context, void** /*data_context*/,
                                                   netsnmp_variable_list* put_index_data,
                                                   netsnmp_iterator_info* iinfo) noexcept {
        endWalk(iinfo);
        auto walk = selection ? std::make_unique<TableWalk<T>>(*selection) : walkOverAll();
        auto cursor = std::make_unique<Cursor>(walk->first());
        VarbindPtr list = indexList(*cursor, *walk, put_index_data, iinfo);
        if (list) {
            walk->replacedTemplate.reset(put_index_data);
        }
        *loop_context = cursor.release();
        iinfo->myvoid = walk.release();
        return list.release();
    }

    /// @brief Moves the cursor to the next row.
    /// @param put_index_data the previous row's list. Freed when a new one is returned; otherwise left to the library,
    /// which frees the last list
    /// @return the row's index list, which is the library's from then on; null at the end
    static netsnmp_variable_list* next_data_point(void** loop_context, void** /*data_context*/,
                                                  netsnmp_variable_list* put_index_data,
                                                  netsnmp_iterator_info* iinfo) noexcept {
        auto* walk = static_cast<TableWalk<T>*>(iinfo->myvoid);
        auto* cursor = static_cast<Cursor*>(*loop_context);
        if (walk == nullptr || cursor == nullptr || walk->isAtEnd(*cursor)) {
            return nullptr;
        }
        walk->advance(*cursor);
        VarbindPtr list = indexList(*cursor, *walk, put_index_data, iinfo);
        if (list) {
            snmp_free_varbind(put_index_data);
        }
        return list.release();
    }

    /// @brief Copies the cursor's row for the library to keep.
    /// @return kept by the library until free_data; null when there is no cursor
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

    /// What walks present while it is set; otherwise all rows. RowSelector sets it for the duration of a request.
    static inline std::optional<Selection<T>> selection;

private:
    using Cursor = typename T::Cursor;

    static std::unique_ptr<TableWalk<T>> walkOverAll() {
        const OutOfLibrary outside;  // a snapshot asks the link
        return std::make_unique<TableWalk<T>>(std::make_shared<const typename T::Snapshot>());
    }

    static void endWalk(netsnmp_iterator_info* iinfo) {
        const std::unique_ptr<TableWalk<T>> walk(static_cast<TableWalk<T>*>(iinfo->myvoid));
        iinfo->myvoid = nullptr;
    }

    static VarbindPtr indexList(const Cursor& cursor, const TableWalk<T>& walk, netsnmp_variable_list* indexTemplate,
                                const netsnmp_iterator_info* iinfo) {
        if (walk.isAtEnd(cursor)) {
            return nullptr;
        }
        typename T::Row row(*cursor);
        return kx::mib::buildIndexList(indexTemplate, iinfo, static_cast<TableDataContext<T>*>(&row), &readColumn);
    }

    static ColumnValue readColumn(void* row, unsigned tag) { return (*static_cast<TableDataContext<T>*>(row))[tag]; }
};
