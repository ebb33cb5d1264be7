#include "ctl/view/Table.h"

#include <algorithm>
#include <numeric>

#include "ctl/view/TextWidth.h"

namespace kx::ctl {
namespace {

constexpr std::size_t kGap = 2;

/// @return what the columns take with the gaps between them
std::size_t total(const std::vector<std::size_t>& widths) {
    return std::accumulate(widths.begin(), widths.end(), std::size_t{0}) + kGap * (widths.size() - 1);
}

/// The widest of those that are wider than they need to be; the end where there is none.
std::vector<std::size_t>::iterator widest(std::vector<std::size_t>& widths, const std::vector<std::size_t>& least) {
    auto found = widths.end();
    for (std::size_t at = 0; at < widths.size(); ++at) {
        if (widths[at] > least[at] && (found == widths.end() || widths[at] > *found)) {
            found = widths.begin() + static_cast<std::ptrdiff_t>(at);
        }
    }
    return found;
}

void shrink(std::vector<std::size_t>& widths, const std::vector<std::size_t>& least, std::size_t room) {
    while (total(widths) > room) {
        const auto column = widest(widths, least);
        if (column == widths.end()) {
            return;
        }
        --*column;
    }
}

}  // namespace

std::size_t Table::width() const {
    return total(widths(std::nullopt));
}

std::vector<std::size_t> Table::widths(std::optional<std::size_t> room) const {
    std::vector<std::size_t> widths;
    for (const TableColumn& column : columns_) {
        widths.push_back(widthOf(column.title));
    }
    for (const auto& row : rows_) {
        for (std::size_t at = 0; at < row.size(); ++at) {
            widths[at] = std::max(widths[at], widthOf(row[at].text));
        }
    }
    if (room) {
        std::vector<std::size_t> least;
        for (std::size_t at = 0; at < columns_.size(); ++at) {
            least.push_back(columns_[at].least.value_or(widths[at]));
            widths[at] = std::min(widths[at], std::max(*room, least[at]));  // no wider than the whole, to begin with
        }
        shrink(widths, least, *room);
        shrink(widths, std::vector<std::size_t>(widths.size(), 1), *room);  // then even those that should not
    }
    return widths;
}

std::string Table::line(const std::vector<TableCell>& cells, const std::vector<std::size_t>& widths,
                        std::optional<std::size_t> room, const Painter& painter) const {
    std::string made;
    std::size_t used = 0;
    for (std::size_t at = 0; at < cells.size(); ++at) {
        const std::size_t gap = at == 0 ? 0 : kGap;
        if (room && used + gap + widths[at] > *room) {
            break;  // a terminal that has not even a place for each column
        }
        used += gap + widths[at];
        const std::string text = fitted(cells[at].text, widths[at]);
        const std::string spaces(widths[at] - widthOf(text), ' ');
        const std::string painted = painter(text, cells[at].paint);
        made += std::string(gap, ' ') + (columns_[at].toTheRight ? spaces + painted : painted + spaces);
    }
    made.erase(made.find_last_not_of(' ') + 1);
    return made;
}

std::vector<std::string> Table::lines(std::optional<std::size_t> room, const Painter& painter) const {
    const std::vector<std::size_t> chosen = widths(room);
    std::vector<TableCell> titles;
    for (const TableColumn& column : columns_) {
        titles.emplace_back(column.title, column.titlePaint);
    }
    std::vector<std::string> made{line(titles, chosen, room, painter)};
    for (const auto& row : rows_) {
        made.push_back(line(row, chosen, room, painter));
    }
    return made;
}

}  // namespace kx::ctl
