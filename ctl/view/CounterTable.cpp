#include "ctl/view/CounterTable.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

#include "ctl/Printable.h"
#include "ctl/view/Amounts.h"

namespace kx::ctl {
namespace {

constexpr std::size_t kLeastValue = 4;

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// The vocabulary does not have the units: names do.
std::string amountText(const std::string& name, std::int64_t value) {
    if (endsWith(name, "_grace")) {
        return value == 0 ? "-" : durationText(value);
    }
    if (endsWith(name, "limit") && value == 0) {
        return "none";
    }
    const bool isBytes = name.find("bytes") != std::string::npos || name.find("diskspace") == 0;
    return isBytes ? bytesText(value) : countText(value);
}

/// "diskspace_hardlimit" becomes "DISK HARD".
std::string titleOf(std::string name) {
    static constexpr std::array<std::pair<const char*, const char*>, 4> kShorter{
        {{"diskspace", "disk"}, {"limit", ""}, {"packets", "pkt"}, {"_", " "}}};
    for (const auto& [word, instead] : kShorter) {
        const std::size_t at = name.find(word);
        if (at != std::string::npos) {
            name.replace(at, std::string(word).size(), instead);
        }
    }
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::toupper(letter)); });
    return name;
}

std::string valueText(const NamedValues& values, const std::string& name, Amounts amounts) {
    const auto found =
        std::find_if(values.begin(), values.end(), [&](const auto& value) { return value.first == name; });
    if (found == values.end()) {
        return "-";
    }
    if (!found->second) {
        return kUnknown;
    }
    return amounts == Amounts::Exact ? std::to_string(*found->second) : amountText(name, *found->second);
}

void addMissing(std::vector<std::string>& names, const NamedValues& values) {
    for (const auto& [name, value] : values) {
        if (std::find(names.begin(), names.end(), name) == names.end()) {
            names.push_back(name);
        }
    }
}

}  // namespace

Table counterTable(std::vector<TableColumn> columns, std::vector<std::string> names,
                   const std::vector<CounterRow>& rows, Amounts amounts) {
    for (const CounterRow& row : rows) {
        addMissing(names, row.values);
    }
    for (const std::string& name : names) {
        columns.push_back({printable(amounts == Amounts::Exact ? name : titleOf(name)), true, kLeastValue});
    }
    Table table(std::move(columns));
    for (const CounterRow& row : rows) {
        std::vector<TableCell> cells = row.cells;
        for (const std::string& name : names) {
            cells.emplace_back(valueText(row.values, name, amounts));
        }
        table.add(std::move(cells));
    }
    return table;
}

}  // namespace kx::ctl
