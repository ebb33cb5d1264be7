#include "ctl/top/TopControls.h"

#include <algorithm>

namespace kx::ctl {
namespace {

constexpr char kBackspace = '\b';
constexpr char kDelete = '\x7f';  // what most terminals send for Backspace

void moveColumn(TopView& view, int by) {
    view.order = static_cast<TopOrder>((static_cast<int>(view.order) + by + kTopOrders) % kTopOrders);
    sortTopRows(view.rows, view.order, view.isReversed);
}

void scroll(TopView& view, std::size_t page, std::ptrdiff_t by) {
    const auto first = static_cast<std::ptrdiff_t>(view.firstRow) + by;
    view.firstRow = static_cast<std::size_t>(std::max<std::ptrdiff_t>(first, 0));
    keepInRange(view, page);
}

/// Of a character of several bytes all are removed.
void eraseLast(std::string& text) {
    constexpr unsigned kContinuationMask = 0xC0;
    constexpr unsigned kContinuation = 0x80;
    while (!text.empty() && (static_cast<unsigned char>(text.back()) & kContinuationMask) == kContinuation) {
        text.pop_back();
    }
    if (!text.empty()) {
        text.pop_back();
    }
}

void editSearch(TopView& view, const TopKey& key) {
    if (key.kind == TopKey::Kind::Escape) {
        view.search.clear();
        view.isSearching = false;
    } else if (key.kind != TopKey::Kind::Letter || key.letter == '\n' || key.letter == '\r') {
        view.isSearching = false;
    } else if (key.letter == kBackspace || key.letter == kDelete) {
        eraseLast(view.search);
    } else {
        view.search += key.letter;
    }
    view.firstRow = 0;
}

bool takeLetter(TopView& view, char letter) {
    switch (letter) {
        case 'r':
            view.isReversed = !view.isReversed;
            moveColumn(view, 0);
            break;
        case '/':
            view.search.clear();
            view.isSearching = true;
            break;
        case '?':
        case 'h':
            view.isHelp = true;
            break;
        default:
            break;
    }
    return letter != 'q' && letter != 'Q';
}

}  // namespace

bool takeTopKey(TopView& view, const TopKey& key, std::size_t page) {
    if (view.isHelp) {
        view.isHelp = false;
        return true;
    }
    if (view.isSearching) {
        editSearch(view, key);
        return true;
    }
    const auto rows = static_cast<std::ptrdiff_t>(view.rows.size());
    const auto aPage = static_cast<std::ptrdiff_t>(page);
    switch (key.kind) {
        case TopKey::Kind::Left:
            moveColumn(view, -1);
            break;
        case TopKey::Kind::Right:
            moveColumn(view, 1);
            break;
        case TopKey::Kind::Up:
            scroll(view, page, -1);
            break;
        case TopKey::Kind::Down:
            scroll(view, page, 1);
            break;
        case TopKey::Kind::PageUp:
            scroll(view, page, -aPage);
            break;
        case TopKey::Kind::PageDown:
            scroll(view, page, aPage);
            break;
        case TopKey::Kind::Home:
            scroll(view, page, -rows);
            break;
        case TopKey::Kind::End:
            scroll(view, page, rows);
            break;
        case TopKey::Kind::Escape:
            view.search.clear();
            break;
        case TopKey::Kind::Letter:
            return takeLetter(view, key.letter);
    }
    return true;
}

void keepInRange(TopView& view, std::size_t page) {
    const std::size_t found = foundRows(view).size();
    view.firstRow = std::min(view.firstRow, found > page ? found - page : 0);
}

}  // namespace kx::ctl
