#include "ctl/top/TopKeys.h"

#include <gmock/gmock.h>

namespace kx::ctl {
namespace {

using Kind = TopKey::Kind;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(TopKeys, AreLettersAndArrows) {
    TopKeyReader reader;
    EXPECT_THAT(reader.take("q"), ElementsAre(TopKey{Kind::Letter, 'q'}));
    EXPECT_THAT(reader.take("\x1b[A\x1b[B\x1b[C\x1b[D"),
                ElementsAre(TopKey{Kind::Up}, TopKey{Kind::Down}, TopKey{Kind::Right}, TopKey{Kind::Left}));
    EXPECT_THAT(reader.take("\x1bOA\x1b[5~\x1b[6~"),
                ElementsAre(TopKey{Kind::Up}, TopKey{Kind::PageUp}, TopKey{Kind::PageDown}));
}

TEST(TopKeys, AreHomeAndEndAsEachKindOfTerminalSendsThem) {
    for (const char* const home : {"\x1b[H", "\x1bOH", "\x1b[1~", "\x1b[7~", "\x1b[1;5H"}) {
        EXPECT_THAT(TopKeyReader().take(home), ElementsAre(TopKey{Kind::Home}));
    }
    for (const char* const end : {"\x1b[F", "\x1bOF", "\x1b[4~", "\x1b[8~"}) {
        EXPECT_THAT(TopKeyReader().take(end), ElementsAre(TopKey{Kind::End}));
    }
}

TEST(TopKeys, AreEscapeWhereNothingFollows) {
    TopKeyReader reader;
    EXPECT_THAT(reader.take("a\x1b"), ElementsAre(TopKey{Kind::Letter, 'a'}));
    ASSERT_TRUE(reader.isPending());
    EXPECT_EQ(reader.takePending(), TopKey{Kind::Escape});
    EXPECT_FALSE(reader.isPending());
    reader.take("\x1b[");
    EXPECT_EQ(reader.takePending(), std::nullopt);
}

TEST(TopKeys, MayComeInParts) {
    TopKeyReader reader;
    EXPECT_THAT(reader.take("\x1b"), IsEmpty());
    EXPECT_THAT(reader.take("["), IsEmpty());
    EXPECT_THAT(reader.take("Cq"), ElementsAre(TopKey{Kind::Right}, TopKey{Kind::Letter, 'q'}));
}

TEST(TopKeys, ThatAreNotKnownDoNothingAndHideNoOthers) {
    TopKeyReader reader;
    EXPECT_THAT(reader.take("\x1b[3~\x1b[1;5P\x1bOPq"), ElementsAre(TopKey{Kind::Letter, 'q'}));
    EXPECT_THAT(reader.take("\x1bq"), ElementsAre(TopKey{Kind::Letter, 'q'}));
    reader.take("\x1b[" + std::string(100, '1'));
    EXPECT_THAT(reader.take("~q"), testing::Contains(TopKey{Kind::Letter, 'q'}));
}

}  // namespace
}  // namespace kx::ctl
