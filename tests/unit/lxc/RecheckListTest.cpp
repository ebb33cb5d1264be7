#include "agent/backends/lxc/RecheckList.h"

#include <gmock/gmock.h>

namespace kx::agent::lxc {
namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

const Clock::time_point kStart = Clock::time_point(std::chrono::hours(1));

TEST(RecheckListTest, givesOutWhatIsDueOnce) {
    RecheckList list;
    list.add("web", kNeedLook, kStart);
    list.add("db", kNeedNotes, kStart + milliseconds(10));
    EXPECT_THAT(list.takeDue(kStart), ElementsAre(Pair("web", kNeedLook)));
    EXPECT_THAT(list.takeDue(kStart), IsEmpty());
    EXPECT_EQ(list.earliest(), kStart + milliseconds(10));
    EXPECT_THAT(list.takeDue(kStart + milliseconds(10)), ElementsAre(Pair("db", kNeedNotes)));
    EXPECT_EQ(list.earliest(), std::nullopt);
}

TEST(RecheckListTest, addsUpWhatIsNeededAtTheEarliestTime) {
    RecheckList list;
    list.add("web", kNeedLook, kStart + milliseconds(20));
    list.add("web", kNeedFreezer, kStart);
    list.add("web", kNeedOs, kStart + milliseconds(90));
    EXPECT_THAT(list.takeDue(kStart), ElementsAre(Pair("web", kNeedLook | kNeedFreezer | kNeedOs)));
}

TEST(RecheckListTest, forgetsAContainer) {
    RecheckList list;
    list.add("web", kNeedLook, kStart);
    list.remove("web");
    EXPECT_THAT(list.takeDue(kStart), IsEmpty());
}

}  // namespace
}  // namespace kx::agent::lxc
