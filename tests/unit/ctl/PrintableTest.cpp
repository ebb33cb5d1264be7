#include "ctl/Printable.h"

#include <gtest/gtest.h>

namespace kx::ctl {
namespace {

TEST(Printable, LeavesTextsThatATerminalShows) {
    for (const std::string text : {"", "plain text", "he said \"hi\"", "\xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80"}) {
        EXPECT_EQ(printable(text), text);
    }
}

TEST(Printable, EscapesEveryControlByte) {
    for (int byte = 0; byte < 0x20; ++byte) {
        const std::string shown = printable(std::string(1, static_cast<char>(byte)));
        EXPECT_EQ(shown.front(), '\\') << byte;
        EXPECT_GE(shown.size(), 2U) << byte;
    }
    EXPECT_EQ(printable(std::string("a\0b\n\r\t\x1b[2J\x7f", 11)), "a\\x00b\\n\\r\\t\\x1b[2J\\x7f");
}

TEST(Printable, EscapesTheBackslashSoThatNothingCanBeMistakenForAnEscape) {
    EXPECT_EQ(printable("\\n"), "\\\\n");
}

TEST(Printable, EscapesBytesThatAreNoUtf8) {
    EXPECT_EQ(printable("\xFF\xC3(\xE2\x82"), "\\xff\\xc3(\\xe2\\x82");
}

TEST(Printable, EscapesCharactersThatChangeHowOthersAreShown) {
    EXPECT_EQ(printable("\xC2\x85"), "\\u{0085}");
    EXPECT_EQ(printable("\xC2\x9B"), "\\u{009b}");
    EXPECT_EQ(printable("\xE2\x80\xAE"), "\\u{202e}");
    EXPECT_EQ(printable("\xE2\x80\xA8"), "\\u{2028}");
    EXPECT_EQ(printable("\xEF\xBB\xBF"), "\\u{feff}");
    EXPECT_EQ(printable("\xF3\xA0\x81\x81"), "\\u{e0041}");
    EXPECT_EQ(printable("\xC2\xA0"), "\xC2\xA0");
}

TEST(Printable, QuotesAWordThatWouldLookLikeSeveral) {
    EXPECT_EQ(printableWord("web"), "web");
    EXPECT_EQ(printableWord("web front"), "\"web front\"");
    EXPECT_EQ(printableWord("a\"b"), "\"a\\\"b\"");
    EXPECT_EQ(printableWord(""), "\"\"");
    EXPECT_EQ(printableWord("a\nb"), "a\\nb");
}

}  // namespace
}  // namespace kx::ctl
