#include "ctl/view/Table.h"

#include <gmock/gmock.h>

#include "ctl/Utf8.h"
#include "ctl/view/TextWidth.h"

namespace kx::ctl {
namespace {

using testing::ElementsAre;

const Painter kPlain(false);

Table containers() {
    Table table({{"VEID", true, {}}, {"NAME", false, 4}, {"HOSTNAME", false, 6}, {"STATE", false, {}}});
    table.add({{"101"}, {"web"}, {"web.example.net"}, {"running", Paint::Green}});
    table.add({{"2147483647"}, {"gr\u00F6\u00DFe \u65E5\u672C"}, {""}, {"frozen"}});
    return table;
}

TEST(Table, IsAsWideAsWhatIsInItWhereThereIsNoTerminal) {
    EXPECT_THAT(containers().lines(std::nullopt, kPlain),
                ElementsAre("      VEID  NAME        HOSTNAME         STATE",
                            "       101  web         web.example.net  running",
                            "2147483647  gr\u00F6\u00DFe \u65E5\u672C                   frozen"));
}

TEST(Table, ShrinksTheWidestColumnsFirst) {
    EXPECT_THAT(containers().lines(40, kPlain),
                ElementsAre("      VEID  NAME      HOSTNAME   STATE", "       101  web       web.exam\u2026  running",
                            "2147483647  gr\u00F6\u00DFe \u2026              frozen"));
}

TEST(Table, FitsEveryTerminalAndBreaksNoCharacter) {
    for (std::size_t room = 1; room < 60; ++room) {
        for (const std::string& line : containers().lines(room, kPlain)) {
            EXPECT_LE(widthOf(line), room);
            EXPECT_TRUE(isUtf8(line));
        }
    }
}

TEST(Table, KeepsNumbersWholeAsLongAsTextsCanShrink) {
    EXPECT_THAT(containers().lines(33, kPlain)[2], testing::HasSubstr("2147483647"));
}

TEST(Table, PaintsOnlyWhereColoursAreWanted) {
    const auto painted = containers().lines(std::nullopt, Painter(true));
    EXPECT_THAT(painted[0], testing::HasSubstr("\x1b[1mVEID\x1b[0m"));
    EXPECT_THAT(painted[1], testing::EndsWith("\x1b[32mrunning\x1b[0m"));
    EXPECT_THAT(painted[2], testing::EndsWith("frozen"));
}

}  // namespace
}  // namespace kx::ctl
