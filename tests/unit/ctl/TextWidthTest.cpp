#include "ctl/view/TextWidth.h"

#include <gtest/gtest.h>

#include "ctl/Utf8.h"

namespace kx::ctl {
namespace {

TEST(TextWidth, IsWhatATerminalNeeds) {
    EXPECT_EQ(widthOf(""), 0U);
    EXPECT_EQ(widthOf("web"), 3U);
    EXPECT_EQ(widthOf("gr\u00F6\u00DFe"), 5U);
    EXPECT_EQ(widthOf("\u65E5\u672C"), 4U);
    EXPECT_EQ(widthOf("\U0001F433"), 2U);
    EXPECT_EQ(widthOf("a\u0301"), 1U);
}

TEST(TextWidth, LeavesAloneWhatFits) {
    EXPECT_EQ(fitted("web", 3), "web");
    EXPECT_EQ(fitted("", 0), "");
}

TEST(TextWidth, CutsOffWithAnEllipsis) {
    EXPECT_EQ(fitted("database", 5), "data\u2026");
    EXPECT_EQ(fitted("database", 1), "\u2026");
    EXPECT_EQ(fitted("database", 0), "");
}

TEST(TextWidth, NeverBreaksACharacterNorGoesBeyondTheRoom) {
    const std::string text = "gr\u00F6\u00DFe \u65E5\u672C \U0001F433 a\u0301";
    for (std::size_t room = 0; room <= widthOf(text) + 1; ++room) {
        EXPECT_TRUE(isUtf8(fitted(text, room)));
        EXPECT_LE(widthOf(fitted(text, room)), room);
    }
    EXPECT_EQ(fitted("\u65E5\u672C", 3), "\u65E5\u2026");
    EXPECT_EQ(fitted("\u65E5\u672C", 2), "\u2026");
}

TEST(TextWidth, FillsUpOnEitherSide) {
    EXPECT_EQ(filled("\u65E5", 4), "\u65E5  ");
    EXPECT_EQ(filled("12", 4, true), "  12");
    EXPECT_EQ(filled("12345", 4, true), "12345");
}

}  // namespace
}  // namespace kx::ctl
