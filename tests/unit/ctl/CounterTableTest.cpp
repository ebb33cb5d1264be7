#include "ctl/view/CounterTable.h"

#include <gmock/gmock.h>

namespace kx::ctl {
namespace {

using testing::ElementsAre;

std::vector<std::string> linesOf(const std::vector<CounterRow>& rows, Amounts amounts) {
    return counterTable({{"NAME", false, {}}}, {"diskspace_used", "diskspace_hardlimit", "diskspace_grace"}, rows,
                        amounts)
        .lines(std::nullopt, Painter(false));
}

const std::vector<CounterRow> kRows{
    {{{"web"}},
     {{"diskspace_used", 2048}, {"diskspace_hardlimit", 0}, {"diskspace_grace", 7200}, {"packets_in", 1500}}},
    {{{"db"}}, {{"diskspace_used", std::nullopt}, {"diskspace_grace", 0}}}};

TEST(CounterTable, HasReadableAmountsBelowShortNames) {
    EXPECT_THAT(linesOf(kRows, Amounts::Readable), ElementsAre("NAME  DISK USED  DISK HARD  DISK GRACE  PKT IN",
                                                               "web        2.0K       none          2h    1.5K",
                                                               "db      unknown          -           -       -"));
}

TEST(CounterTable, HasEveryDigitBelowTheOwnNames) {
    EXPECT_THAT(linesOf(kRows, Amounts::Exact),
                ElementsAre("NAME  diskspace_used  diskspace_hardlimit  diskspace_grace  packets_in",
                            "web             2048                    0             7200        1500",
                            "db           unknown                    -                0           -"));
}

}  // namespace
}  // namespace kx::ctl
