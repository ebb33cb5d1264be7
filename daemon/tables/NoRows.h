// The snapshot of a table whose row source has not landed yet: it has no rows.
//
// Thread promise: no state; anywhere.
#pragma once

/// @brief The one position in a table without rows, its end.
template <typename Row>
class NoRowsCursor {
public:
    /// Never asked: the end is reached before. It is there for what reads any table.
    Row operator*() const { return {}; }
    NoRowsCursor& operator++() { return *this; }
    bool operator==(const NoRowsCursor&) const { return true; }
};

/// @brief A snapshot whose begin is its end.
template <typename Row>
class NoRowsSnapshot {
public:
    NoRowsCursor<Row> begin() const { return {}; }
    NoRowsCursor<Row> end() const { return {}; }
};
