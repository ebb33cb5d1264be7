#include "ctl/Utf8.h"

#include <gtest/gtest.h>

namespace kx::ctl {
namespace {

const std::string kMark = "\xEF\xBF\xBD";

TEST(Utf8, TakesCharactersOfEveryLength) {
    for (const std::string text : {"a", "\x7F", "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xEF\xBF\xBF",
                                   "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF", "\xED\x9F\xBF", "\xEE\x80\x80"}) {
        const Utf8Step step = firstCharacter(text + "x");
        EXPECT_TRUE(step.isValid) << text;
        EXPECT_EQ(step.bytes, text.size()) << text;
        EXPECT_EQ(asUtf8(text), text);
    }
    EXPECT_EQ(firstCharacter("\xE2\x82\xAC").character, U'\u20AC');
    EXPECT_EQ(firstCharacter("\xF0\x9F\x98\x80").character, U'\U0001F600');
    EXPECT_EQ(firstCharacter(std::string(1, '\0')).character, U'\0');
    EXPECT_TRUE(firstCharacter(std::string(1, '\0')).isValid);
}

TEST(Utf8, TakesNoLongFormsSurrogatesOrWhatIsBeyondTheLastCharacter) {
    for (const std::string text : {"\xC0\xAF", "\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80",
                                   "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "\x80", "\xBF"}) {
        EXPECT_FALSE(isUtf8(text)) << text.size();
        EXPECT_FALSE(isUtf8("a" + text));
    }
}

TEST(Utf8, TakesACharacterCutShortForOneMistake) {
    EXPECT_EQ(asUtf8("\xE2\x82"), kMark);
    EXPECT_EQ(asUtf8("\xE2\x82x"), kMark + "x");
    EXPECT_EQ(asUtf8("\xF0\x9F\x98\xF0\x9F\x98\x80"), kMark + "\xF0\x9F\x98\x80");
    EXPECT_EQ(asUtf8("\xE2\x28\xA1"), kMark + "(" + kMark);
}

TEST(Utf8, ReplacesEveryByteThatCannotBeginACharacter) {
    EXPECT_EQ(asUtf8("a\xFF\xFE\x62"), "a" + kMark + kMark + "b");
    EXPECT_EQ(asUtf8("\xED\xA0\x80"), kMark + kMark + kMark);
    EXPECT_EQ(asUtf8(""), "");
}

}  // namespace
}  // namespace kx::ctl
