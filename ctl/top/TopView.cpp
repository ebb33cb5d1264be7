#include "ctl/top/TopView.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <map>

#include "ctl/Printable.h"
#include "ctl/events/EventText.h"
#include "ctl/view/Amounts.h"
#include "ctl/view/Table.h"
#include "ctl/view/TextWidth.h"
#include "ctl/view/Words.h"

namespace kx::ctl {
namespace {

constexpr std::size_t kBarWidth = 12;
constexpr std::size_t kLeastName = 8;

/// Lines above the rows: what is shown, how it is sorted, the columns' titles.
constexpr std::size_t kHeadLines = 3;
/// Lines below them where there is room: a title and the latest alerts.
constexpr std::size_t kMostAlertLines = 6;
constexpr std::size_t kShareOfAlerts = 4;

std::size_t alertLines(const TerminalSize& size) {
    const std::size_t lines = std::min(kMostAlertLines, size.rows / kShareOfAlerts);
    return lines < 2 ? 0 : lines;  // a title alone says nothing
}

/// Letters of ASCII match in either case.
bool hasText(const std::string& text, const std::string& part) {
    const auto isSame = [](unsigned char one, unsigned char other) { return std::tolower(one) == std::tolower(other); };
    return std::search(text.begin(), text.end(), part.begin(), part.end(), isSame) != text.end() || part.empty();
}

std::string rateText(const TopRow& row, std::int64_t NetworkRates::*which, std::string (*text)(std::int64_t)) {
    return row.rates ? text(*row.rates.*which) : "-";
}

std::string usedText(const TopRow& row) {
    if (!row.space) {
        return "-";
    }
    return row.space->used ? bytesText(*row.space->used) : kUnknown;
}

std::string quotaText(const TopRow& row, bool hasBar) {
    const auto percent = row.percent();
    if (!percent) {
        return "-";
    }
    return hasBar ? fmt::format("{} {:>3}%", bar(*percent, kBarWidth), *percent) : fmt::format("{}%", *percent);
}

/// What a terminal has room for besides the rest.
enum class Detail { All, NoBar, NoPackets };

std::vector<TableCell> cellsOf(const TopRow& row, Detail detail) {
    const Environment& of = row.environment;
    return {{of.veid ? std::to_string(*of.veid) : "-"},
            {printable(of.name)},
            {stateText(of), statePaint(of.state)},
            {rateText(row, &NetworkRates::bytesIn, bytesText)},
            {rateText(row, &NetworkRates::bytesOut, bytesText)},
            {rateText(row, &NetworkRates::packetsIn, countText)},
            {rateText(row, &NetworkRates::packetsOut, countText)},
            {usedText(row)},
            {quotaText(row, detail == Detail::All), percentPaint(row.percent().value_or(0))}};
}

template <typename Column>
void erasePackets(std::vector<Column>& columns) {
    const auto first = columns.begin() + static_cast<std::ptrdiff_t>(TopOrder::PacketsIn);
    columns.erase(first, first + 2);
}

Table tableOf(const TopView& view, std::size_t from, std::size_t count, Detail detail) {
    std::vector<TableColumn> columns{{"VEID", true, {}},    {"NAME", false, kLeastName}, {"STATE", false, {}},
                                     {"IN/s", true, {}},    {"OUT/s", true, {}},         {"PKT IN", true, {}},
                                     {"PKT OUT", true, {}}, {"USED", true, {}},          {"QUOTA", false, {}}};
    columns[static_cast<std::size_t>(view.order)].titlePaint = Paint::Reverse;
    columns.back().toTheRight = detail != Detail::All;
    const bool hasPackets = detail != Detail::NoPackets;
    if (!hasPackets) {
        erasePackets(columns);
    }
    Table table(columns);
    const auto rows = foundRows(view);
    for (std::size_t at = from; at < rows.size() && at - from < count; ++at) {
        std::vector<TableCell> cells = cellsOf(*rows[at], detail);
        if (!hasPackets) {
            erasePackets(cells);
        }
        table.add(cells);
    }
    return table;
}

/// The most that there is room for without a name becoming shorter.
Table fittingTable(const TopView& view, std::size_t count, std::size_t columns) {
    for (const Detail detail : {Detail::All, Detail::NoBar}) {
        Table table = tableOf(view, view.firstRow, count, detail);
        if (table.width() <= columns) {
            return table;
        }
    }
    return tableOf(view, view.firstRow, count, Detail::NoPackets);
}

std::string summary(const TopView& view) {
    std::map<std::string, std::size_t> states;
    for (const TopRow& row : view.rows) {
        ++states[stateText(row.environment)];
    }
    std::string text = fmt::format("kxctl top  {}  {} containers", view.time, view.rows.size());
    const char* before = ": ";
    for (const auto& [state, number] : states) {
        text += fmt::format("{}{} {}", before, number, state);
        before = ", ";
    }
    return text;
}

/// @return "16-31 of 1000", of the rows that are found
std::string positionText(const TopView& view, std::size_t fit) {
    const std::size_t found = foundRows(view).size();
    const std::size_t from = std::min(view.firstRow, found);
    return fmt::format("{}-{} of {}", std::min(from + 1, found), std::min(from + fit, found), found);
}

std::string secondLine(const TopView& view, std::size_t fit) {
    if (view.isSearching) {
        return fmt::format("Search: {}_", printable(view.search));
    }
    if (!view.trouble.empty()) {
        return view.trouble;
    }
    return fmt::format("{}{}, by {}{}   q quit  ? help  / search", positionText(view, fit),
                       view.search.empty() ? "" : fmt::format(" with {}", printableWord(view.search)),
                       topOrderWord(view.order), view.isReversed ? ", reversed" : "");
}

std::vector<std::string> helpLines() {
    return {"",
            "  Left, Right         sort by another column",
            "  r                   reverse the order",
            "  Up, Down            scroll by a line",
            "  Page Up, Page Down  scroll by a page",
            "  Home, End           go to the first or the last container",
            "  /                   show only containers whose name or number has a text in it;",
            "                      Enter ends typing, Escape shows all again",
            "  q                   quit",
            "",
            "  IN/s, OUT/s: bytes a second; PKT IN, PKT OUT: packets a second; USED: disk space;",
            "  QUOTA: how much of the hard limit, or else of the soft limit, is used.",
            "",
            "  Any key returns."};
}

void append(std::vector<std::string>& lines, const std::vector<std::string>& more) {
    lines.insert(lines.end(), more.begin(), more.end());
}

}  // namespace

std::string topAlertLine(const KXLEvent& event, const KXLResourceAlertData& alert,
                         const std::optional<ContainerName>& about) {
    constexpr std::size_t kDate = 11;  // that of today, as a rule
    constexpr std::size_t kTime = 8;
    const std::string at = localTime(event.getTimeMs());
    const std::string value = alert.alertValue == 0 ? "" : fmt::format(" ({})", alert.alertValue);
    return fmt::format("{}  {}  {}  {}{}", at.size() > kDate ? at.substr(kDate, kTime) : at,
                       filled(wordOrNumber(alertWord(alert.alertCode), alert.alertCode), 8), containerText(about),
                       printable(alert.alertText), value);
}

std::vector<const TopRow*> foundRows(const TopView& view) {
    std::vector<const TopRow*> found;
    for (const TopRow& row : view.rows) {
        const Environment& of = row.environment;
        const bool isNumber = of.veid && std::to_string(*of.veid).find(view.search) != std::string::npos;
        if (isNumber || hasText(of.name, view.search)) {
            found.push_back(&row);
        }
    }
    return found;
}

std::size_t topRowsThatFit(const TerminalSize& size) {
    const std::size_t others = kHeadLines + alertLines(size);
    return size.rows > others ? size.rows - others : 0;
}

std::vector<std::string> topScreen(const TopView& view, const TerminalSize& size, const Painter& painter) {
    const std::size_t fit = topRowsThatFit(size);
    std::vector<std::string> lines{
        painter(fitted(summary(view), size.columns), Paint::Bold),
        painter(fitted(secondLine(view, fit), size.columns), view.trouble.empty() ? Paint::Faint : Paint::Red)};
    if (view.isHelp) {
        for (const std::string& line : helpLines()) {
            lines.push_back(fitted(line, size.columns));
        }
        lines.resize(std::min(lines.size(), size.rows));
        return lines;
    }
    append(lines, fittingTable(view, fit, size.columns).lines(size.columns, painter));
    const std::size_t below = alertLines(size);
    if (below != 0) {
        lines.resize(kHeadLines + fit);
        lines.push_back(
            painter(fitted(view.alerts.empty() ? "No alerts so far" : "Latest alerts", size.columns), Paint::Bold));
        const std::size_t shown = std::min(view.alerts.size(), below - 1);
        for (auto alert = view.alerts.end() - static_cast<std::ptrdiff_t>(shown); alert != view.alerts.end(); ++alert) {
            lines.push_back(fitted(*alert, size.columns));
        }
    }
    lines.resize(std::min(lines.size(), size.rows));
    return lines;
}

std::vector<std::string> topText(const TopView& view, const Painter& painter) {
    std::vector<std::string> lines{summary(view)};
    if (!view.trouble.empty()) {
        lines.push_back(view.trouble);
    }
    append(lines, tableOf(view, 0, view.rows.size(), Detail::All).lines(std::nullopt, painter));
    if (!view.alerts.empty()) {
        lines.emplace_back("Alerts since the sample before:");
        lines.insert(lines.end(), view.alerts.begin(), view.alerts.end());
    }
    if (view.alertsLeftOut > 0) {
        lines.push_back(fmt::format("({} more alerts are left out)", view.alertsLeftOut));
    }
    lines.emplace_back();
    return lines;
}

Json topJson(const TopView& view) {
    Json containers = Json::array();
    for (const TopRow& row : view.rows) {
        Json one;
        one.put("eid", row.environment.eid.toString());
        if (row.environment.veid) {
            one.put("veid", *row.environment.veid);
        }
        one.putText("name", row.environment.name);
        one.put("state", row.environment.state);
        one.put("state_name", stateText(row.environment));
        if (row.rates) {
            Json rates;
            rates.put("bytes_in", row.rates->bytesIn);
            rates.put("bytes_out", row.rates->bytesOut);
            rates.put("packets_in", row.rates->packetsIn);
            rates.put("packets_out", row.rates->packetsOut);
            one.put("per_second", rates);
        }
        if (row.space) {
            Json space;
            putValue(space, "used", row.space->used);
            space.put("softlimit", row.space->soft);
            space.put("hardlimit", row.space->hard);
            space.put("grace", row.space->grace);
            if (const auto percent = row.percent()) {
                space.put("percent", *percent);
            }
            one.put("diskspace", space);
        }
        containers.add(one);
    }
    Json alerts = Json::array();
    for (const Json& alert : view.alertsAsJson) {
        alerts.add(alert);
    }
    Json document;
    document.put("time_ms", view.timeMs);
    document.put("sorted_by", topOrderWord(view.order));
    document.put("containers", containers);
    document.put("alerts", alerts);
    if (view.alertsLeftOut > 0) {
        document.put("alerts_left_out", view.alertsLeftOut);
    }
    return document;
}

}  // namespace kx::ctl
