// A sample of kxctl top as it is shown. Values; any thread.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "ctl/Json.h"
#include "ctl/events/ContainerNames.h"
#include "ctl/top/TopRows.h"
#include "ctl/view/Paint.h"
#include "ctl/view/Terminal.h"

namespace kx::ctl {

/// All that is on the screen.
struct TopView {
    std::vector<TopRow> rows;  ///< in order
    TopOrder order = TopOrder::In;
    bool isReversed = false;
    std::string search;               ///< only rows in whose name or number this is are shown; empty: all
    bool isSearching = false;         ///< it is being typed
    bool isHelp = false;              ///< the keys are shown instead of the rows
    std::size_t firstRow = 0;         ///< that is shown, of those found; those before are scrolled away
    std::string time;                 ///< of the sample
    std::uint64_t timeMs = 0;         ///< likewise, since 1970-01-01 UTC
    std::string trouble;              ///< why the rows are old; empty: they are not
    std::deque<std::string> alerts;   ///< the latest last, fit for a terminal
    std::vector<Json> alertsAsJson;   ///< those since the sample before
    std::uint64_t alertsLeftOut = 0;  ///< since the sample before: there were too many
};

/// @return an alert in short, fit for a terminal: time, severity, container, text and, unless it is 0, the value
std::string topAlertLine(const KXLEvent& event, const KXLResourceAlertData& alert,
                         const std::optional<ContainerName>& about);

/// @return the rows that the search leaves, in order
std::vector<const TopRow*> foundRows(const TopView& view);

/// @return how many rows a terminal has room for
std::size_t topRowsThatFit(const TerminalSize& size);

/// @brief As it is on a terminal: not more lines than it has, none wider than it is. A narrow one does without the
/// quota's bar, then without packets, before names become shorter.
std::vector<std::string> topScreen(const TopView& view, const TerminalSize& size, const Painter& painter);

/// @brief As it is written anywhere else: all rows and alerts, as wide as they are.
std::vector<std::string> topText(const TopView& view, const Painter& painter);

Json topJson(const TopView& view);

}  // namespace kx::ctl
