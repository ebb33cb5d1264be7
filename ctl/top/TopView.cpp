#include "ctl/top/TopView.h"

#include <fmt/format.h>

#include <algorithm>
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

std::string rateText(const TopRow& row, std::int64_t NetworkRates::*which, std::string (*text)(std::int64_t)) {
    return row.rates ? text(*row.rates.*which) : "-";
}

std::string quotaText(const TopRow& row) {
    const auto percent = row.percent();
    return percent ? fmt::format("{} {:>3}%", bar(*percent, kBarWidth), *percent) : "-";
}

Table tableOf(const TopView& view, std::size_t from, std::size_t count) {
    std::vector<TableColumn> columns{{"VEID", true, {}},    {"NAME", false, kLeastName}, {"STATE", false, {}},
                                     {"IN/s", true, {}},    {"OUT/s", true, {}},         {"PKT IN", true, {}},
                                     {"PKT OUT", true, {}}, {"USED", true, {}},          {"QUOTA", false, {}}};
    columns[static_cast<std::size_t>(view.order)].titlePaint = Paint::Reverse;
    Table table(columns);
    for (std::size_t at = from; at < std::min(from + count, view.rows.size()); ++at) {
        const TopRow& row = view.rows[at];
        const Environment& of = row.environment;
        table.add({{of.veid ? std::to_string(*of.veid) : "-"},
                   {printable(of.name)},
                   {stateText(of), statePaint(of.state)},
                   {rateText(row, &NetworkRates::bytesIn, bytesText)},
                   {rateText(row, &NetworkRates::bytesOut, bytesText)},
                   {rateText(row, &NetworkRates::packetsIn, countText)},
                   {rateText(row, &NetworkRates::packetsOut, countText)},
                   {row.space ? bytesText(row.space->used) : "-"},
                   {quotaText(row), percentPaint(row.percent().value_or(0))}});
    }
    return table;
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

std::string secondLine(const TopView& view) {
    if (!view.trouble.empty()) {
        return view.trouble;
    }
    return fmt::format("by {}{}   keys: q quits, left and right another column, r reverses, up and down scroll",
                       topOrderWord(view.order), view.isReversed ? ", reversed" : "");
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

std::size_t topRowsThatFit(const TerminalSize& size) {
    const std::size_t others = kHeadLines + alertLines(size);
    return size.rows > others ? size.rows - others : 0;
}

std::vector<std::string> topScreen(const TopView& view, const TerminalSize& size, const Painter& painter) {
    const std::size_t fit = topRowsThatFit(size);
    std::vector<std::string> lines{
        painter(fitted(summary(view), size.columns), Paint::Bold),
        painter(fitted(secondLine(view), size.columns), view.trouble.empty() ? Paint::Faint : Paint::Red)};
    append(lines, tableOf(view, view.firstRow, fit).lines(size.columns, painter));
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
    append(lines, tableOf(view, 0, view.rows.size()).lines(std::nullopt, painter));
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
            space.put("used", row.space->used);
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
