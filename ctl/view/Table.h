// A table of text that fits the terminal. Values; any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ctl/view/Paint.h"

namespace kx::ctl {

/// One column.
struct TableColumn {
    std::string title;
    bool toTheRight = false;           ///< numbers, whose ends stand below each other
    std::optional<std::size_t> least;  ///< what it may shrink to, in terminal columns; nothing: never shrinks by itself
    Paint titlePaint = Paint::Bold;
};

/// One cell. Text fit for a terminal.
struct TableCell {
    TableCell(std::string cellText, Paint cellPaint = Paint::None) : text(std::move(cellText)), paint(cellPaint) {}

    std::string text;
    Paint paint;
};

/// @brief Rows below titles, columns two spaces apart and as wide as what is in them. Where that is too wide the widest
/// of those that may shrink become narrower, an ellipsis standing for what is cut off.
class Table {
public:
    explicit Table(std::vector<TableColumn> columns) : columns_(std::move(columns)) {}

    /// @param row a cell a column
    void add(std::vector<TableCell> row) { rows_.push_back(std::move(row)); }

    /// @return how wide it is where there is no limit, in terminal columns
    std::size_t width() const;

    /// @param room of the terminal, in columns; nothing: as wide as need be
    /// @return the titles and a line a row, without spaces at the ends
    std::vector<std::string> lines(std::optional<std::size_t> room, const Painter& painter) const;

private:
    std::vector<std::size_t> widths(std::optional<std::size_t> room) const;
    std::string line(const std::vector<TableCell>& cells, const std::vector<std::size_t>& widths,
                     std::optional<std::size_t> room, const Painter& painter) const;

    std::vector<TableColumn> columns_;
    std::vector<std::vector<TableCell>> rows_;
};

}  // namespace kx::ctl
