#include "ctl/events/EventText.h"

#include <fmt/format.h>

#include <ctime>
#include <limits>

#include "ctl/Printable.h"
#include "ctl/view/TextWidth.h"
#include "ctl/view/Words.h"

namespace kx::ctl {
namespace {

/// Widths of columns, in characters. What is wider pushes the rest of its line to the right.
constexpr std::size_t kKindWidth = 6;
constexpr std::size_t kContainerWidth = 20;
constexpr std::size_t kStateWidth = 8;

constexpr std::uint64_t kMillisecondsASecond = 1000;
constexpr const char* kNothing = "-";

/// The last three columns, which each kind of event fills in its own way. Fit for a terminal.
struct Columns {
    std::string state = kNothing;
    std::string value = kNothing;
    std::string text;
};

Columns columnsOf(const KXLResourceAlertData& alert) {
    return {wordOrNumber(alertWord(alert.alertCode), alert.alertCode), std::to_string(alert.alertValue),
            printable(alert.alertText)};
}

Columns columnsOf(const KXLEnvironmentChangeData& change) {
    std::string state = wordOrNumber(stateWord(change.state), change.state);
    if (change.transition != 0) {
        state += "," + wordOrNumber(transitionWord(change.transition), change.transition);
    }
    return {state, kNothing, changeWord(change.kind)};
}

Columns columnsOf(const KXLEventData* data) {
    if (const auto* alert = dynamic_cast<const KXLResourceAlertData*>(data)) {
        return columnsOf(*alert);
    }
    if (const auto* change = dynamic_cast<const KXLEnvironmentChangeData*>(data)) {
        return columnsOf(*change);
    }
    return {kNothing, kNothing, "(what it says is not known here)"};
}

}  // namespace

std::string containerText(const std::optional<ContainerName>& about) {
    if (!about) {
        return kNothing;
    }
    if (about->isHost) {
        return "host";
    }
    std::string column = about->veid ? std::to_string(*about->veid) : about->eid.toString();
    if (about->name && !about->name->empty()) {
        column += ' ' + printableWord(*about->name);
    }
    return column;
}

std::string localTime(std::uint64_t timeMs) {
    if (timeMs == 0) {
        return kNothing;
    }
    const auto seconds = static_cast<std::time_t>(timeMs / kMillisecondsASecond);
    std::tm parts{};
    char text[64];
    if (::localtime_r(&seconds, &parts) == nullptr ||
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts) == 0) {
        return fmt::format("{} ms", timeMs);  // a year that there is no calendar for
    }
    return fmt::format("{}.{:03}", text, timeMs % kMillisecondsASecond);
}

std::string textLine(const KXLEvent& event, const std::optional<ContainerName>& about) {
    const Columns columns = columnsOf(event.getData().get());
    std::string line = fmt::format(
        "{}  {}  {}  {}  {}", localTime(event.getTimeMs()), filled(printableWord(kindOf(event)), kKindWidth),
        filled(containerText(about), kContainerWidth), filled(columns.state, kStateWidth), columns.value);
    return columns.text.empty() ? line : line + "  " + columns.text;
}

}  // namespace kx::ctl
