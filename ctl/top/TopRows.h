// What kxctl top shows of each container, and in which order. Values; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <kxl/KXLMonitorData.h>

#include "ctl/view/Counters.h"
#include "ctl/view/Environment.h"

namespace kx::ctl {

/// A second, over all interfaces.
struct NetworkRates {
    std::int64_t bytesIn = 0;
    std::int64_t bytesOut = 0;
    std::int64_t packetsIn = 0;
    std::int64_t packetsOut = 0;
};

/// One container.
struct TopRow {
    Environment environment;
    std::optional<NetworkRates> rates;  ///< nothing: not known, or not yet
    std::optional<QuotaUse> space;      ///< nothing: not reported

    /// @return how much of its space is used, in parts of a hundred; nothing where there is no limit
    std::optional<std::int64_t> percent() const;
};

/// What rows are sorted by; the order of the columns.
enum class TopOrder { Id, Name, State, In, Out, PacketsIn, PacketsOut, Used, Quota };
inline constexpr int kTopOrders = 9;

/// @return the word for it on the command line
std::string_view topOrderWord(TopOrder order);
/// @return all of them, in order
std::vector<std::string> topOrderWords();

/// @brief Puts together what the agent told.
/// @param networkClass says which counters are rates
/// @param hasRates false for a connection's first report, which has nothing to compare with
std::vector<TopRow> topRows(const std::vector<Environment>& environments, const std::vector<KXLMonitorData>& report,
                            const CounterClass& networkClass, bool hasRates);

/// @brief Largest first, but numbers, names and states of containers smallest first; what is not known is last in any
/// case. Equal ones by number.
void sortTopRows(std::vector<TopRow>& rows, TopOrder order, bool isReversed);

}  // namespace kx::ctl
