// Sequences of looks: what is told, and when it is over.
#include "agent/backends/lxc/ResourceWatchAlarm.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace kx::agent::lxc {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr HitAlarm::TimePoint kStart{std::chrono::hours(1)};

char letterOf(AlarmTurn turn) {
    switch (turn) {
        case AlarmTurn::Raise:
            return 'R';
        case AlarmTurn::Clear:
            return 'C';
        case AlarmTurn::None:
            return '.';
    }
    return '?';
}

/// One look a second. 'h': hit, '-': none, 'b': none, and the resource is not at ease ("busy").
std::string turnsOf(HitAlarm alarm, const std::string& looks) {
    std::string turns;
    for (std::size_t i = 0; i < looks.size(); ++i) {
        turns += letterOf(alarm.look(looks[i] == 'h', looks[i] != 'b', kStart + seconds(i)));
    }
    return turns;
}

TEST(HitAlarm, SaysNothingWhileNothingHappens) {
    EXPECT_EQ(turnsOf(HitAlarm(seconds(3)), "--b-----"), "........");
}

TEST(HitAlarm, IsRaisedByEveryHitAndClearedOnceWhenItWasQuiet) {
    EXPECT_EQ(turnsOf(HitAlarm(seconds(3)), "-h------"), ".R..C...");
    EXPECT_EQ(turnsOf(HitAlarm(seconds(3)), "hh-h----h---"), "RR.R..C.R..C");
}

TEST(HitAlarm, ANewHitBeginsTheQuietTimeAnew) {
    EXPECT_EQ(turnsOf(HitAlarm(seconds(3)), "h--h--h---"), "R..R..R..C");
}

TEST(HitAlarm, IsNotClearedWhileTheResourceIsNotAtEase) {
    EXPECT_EQ(turnsOf(HitAlarm(seconds(3)), "hbbbbbb-"), "R......C");
    EXPECT_EQ(turnsOf(HitAlarm(seconds(3)), "h--b--"), "R...C.") << "only at that moment";
}

TEST(HitAlarm, KnowsWhetherItIsRaised) {
    HitAlarm alarm(seconds(3));
    EXPECT_FALSE(alarm.isRaised());
    alarm.look(true, true, kStart);
    EXPECT_TRUE(alarm.isRaised());
    alarm.look(false, true, kStart + seconds(3));
    EXPECT_FALSE(alarm.isRaised());
}

/// One look a second. 'H', 'M', 'L': a hit at a high, middle or low level; 'h', 'm', 'l': the same without a hit.
std::string turnsOf(LevelAlarm& alarm, const std::string& looks) {
    std::string turns;
    for (std::size_t i = 0; i < looks.size(); ++i) {
        const char kind = static_cast<char>(std::tolower(looks[i]));
        const double level = kind == 'h' ? 0.95 : kind == 'm' ? 0.949 : 0.849;
        turns += letterOf(alarm.look(std::isupper(looks[i]) != 0, level, kStart + seconds(i)));
    }
    return turns;
}

std::string turnsOf(const std::string& looks) {
    LevelAlarm alarm({0.95, 0.85, seconds(2), seconds(3)});
    return turnsOf(alarm, looks);
}

TEST(LevelAlarm, AHighLevelWithoutAHitIsHealthy) {
    EXPECT_EQ(turnsOf("hhhhhhhh"), "........");
}

TEST(LevelAlarm, AHitAtALowerLevelIsHealthy) {
    EXPECT_EQ(turnsOf("MMMMLLLL"), "........") << "the file cache fills the limit";
}

TEST(LevelAlarm, AHitIsToldWhenTheLevelHasStayedHigh) {
    EXPECT_EQ(turnsOf("hHhhh"), "...R.");
    EXPECT_EQ(turnsOf("HHH"), "..R");
}

TEST(LevelAlarm, AMomentBelowForgetsTheHit) {
    EXPECT_EQ(turnsOf("HhmhhhhhHhh"), "..........R");
}

TEST(LevelAlarm, AHitBelowDoesNotCountForALaterHighLevel) {
    EXPECT_EQ(turnsOf("Mhhhhh"), "......");
}

TEST(LevelAlarm, IsToldAgainWhileTheLimitIsHitAtAHighLevel) {
    EXPECT_EQ(turnsOf("HhHHhHM"), "..RR.R.");
}

TEST(LevelAlarm, IsOverWhenTheLevelHasStayedLow) {
    EXPECT_EQ(turnsOf("HHHmmmmllllll"), "..R.......C..");
    EXPECT_EQ(turnsOf("HHHllmlllhlll"), "..R..........") << "it has to stay";
    EXPECT_EQ(turnsOf("HHHllll"), "..R...C");
}

TEST(LevelAlarm, CanBeRaisedAgain) {
    EXPECT_EQ(turnsOf("HHHllllHHHllll"), "..R...C..R...C");
}

TEST(LevelAlarm, WithoutALimitItIsOver) {
    LevelAlarm alarm({0.95, 0.85, seconds(2), seconds(3)});
    turnsOf(alarm, "HHH");
    EXPECT_EQ(alarm.look(false, 0.0, kStart + seconds(3)), AlarmTurn::None);
    EXPECT_EQ(alarm.look(false, 0.0, kStart + seconds(6)), AlarmTurn::Clear);
}

TEST(LevelAlarm, KnowsWhenTheLevelMustBeLookedAt) {
    LevelAlarm alarm({0.95, 0.85, seconds(2), seconds(3)});
    turnsOf(alarm, "hhM");
    EXPECT_FALSE(alarm.isUnderWay());
    turnsOf(alarm, "H");
    EXPECT_TRUE(alarm.isUnderWay()) << "to be confirmed";
    EXPECT_FALSE(alarm.isRaised());
    turnsOf(alarm, "hhh");
    EXPECT_TRUE(alarm.isRaised());
    EXPECT_TRUE(alarm.isUnderWay());
}

}  // namespace
}  // namespace kx::agent::lxc
