// How reports change what is known of the containers that they are about.
#include "tests/unit/perf/MonitorAccess.h"
#include "tests/unit/perf/PerfFixture.h"

namespace kx::test {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

/// A monitor that is subscribed to the network class, of which nothing is known yet.
class Reports : public PerfFixture {
protected:
    Reports() { EXPECT_EQ(read(), Readings()); }
};

std::map<std::string, std::int64_t> bytes(std::int64_t value) {
    return {{"bytes_in", value}};
}

TEST_F(Reports, AreWhatReadsAreServedFrom) {
    report({groupOf(kNet, {"packets_in", "bytes_in"}, {rowOf(kWeb, "1", {7, 5}), rowOf(kStore, "2", {8, 6})})});
    agent().reset();
    EXPECT_EQ(read(), (Readings{{101, {{"1", {{"bytes_in", 5}, {"packets_in", 7}}}}},
                                {102, {{"2", {{"bytes_in", 6}, {"packets_in", 8}}}}}}));
    EXPECT_THAT(agent().queries(), IsEmpty());
    EXPECT_THAT(agent().starts(), IsEmpty());
}

TEST_F(Reports, AddUpOfACounterOfType2) {
    report({bytesOf({rowOf(kWeb, "1", {5})})});
    report({bytesOf({rowOf(kWeb, "1", {5})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", bytes(10)}}}}));
}

TEST_F(Reports, TakeTheTotalOfACounterOfType2BackWhereTheIncreaseIsNegative) {
    report({bytesOf({rowOf(kWeb, "1", {5})})});
    report({bytesOf({rowOf(kWeb, "1", {-7})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", bytes(-2)}}}}));
}

TEST_F(Reports, ReplaceACounterOfAnyOtherType) {
    agent().setVocabulary(
        vocabularyOf({{"all", {{"t0", 0}, {"t1", 1}, {"t2", 2}, {"t3", 3}, {"minus", -2}, {"none", std::nullopt}}}}));
    ASSERT_TRUE(settle());
    read("all");
    for (int i = 0; i < 2; ++i) {
        report({groupOf("all", {"t0", "t1", "t2", "t3", "minus", "none"}, {rowOf(kWeb, "", {5, 5, 5, 5, 5, 5})})});
    }
    EXPECT_EQ(read("all"),
              (Readings{{101, {{"", {{"t0", 5}, {"t1", 5}, {"t2", 10}, {"t3", 5}, {"minus", 5}, {"none", 5}}}}}}));
}

TEST_F(Reports, ReplaceACounterThatTheVocabularyDoesNotHave) {
    for (int i = 0; i < 2; ++i) {
        report({groupOf(kNet, {"unheard of"}, {rowOf(kWeb, "1", {5})})});
    }
    EXPECT_EQ(read(), (Readings{{101, {{"1", {{"unheard of", 5}}}}}}));
    EXPECT_EQ(counterTypes(monitor).at("unheard of"), 0);
}

TEST_F(Reports, GoOnReplacingACounterThatTheVocabularyHasOnlyLater) {
    report({groupOf(kNet, {"late"}, {rowOf(kWeb, "1", {5})})});
    agent().setVocabulary(vocabularyOf({{"other", {{"late", 2}}}}));
    ASSERT_TRUE(settle());
    agent().answerQueriesWith({groupOf("other", {"late"}, {rowOf(kWeb, "1", {1})})});
    read("other");
    report({groupOf(kNet, {"late"}, {rowOf(kWeb, "1", {5})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", {{"late", 5}}}}}}));
}

TEST_F(Reports, GoByTheTypeThatTheFirstClassGaveACounter) {
    agent().setVocabulary(vocabularyOf({{"other", {{"bytes_in", 1}}}}));
    ASSERT_TRUE(settle());
    agent().answerQueriesWith({bytesOf({rowOf(kWeb, "1", {1})}, "other")});
    read("other");
    for (int i = 0; i < 2; ++i) {
        report({bytesOf({rowOf(kWeb, "1", {5})}, "other")});
    }
    EXPECT_EQ(read("other"), (Readings{{101, {{"1", bytes(11)}}}})) << "types are by the counter's name alone";
}

// ---- instances and counters ---------------------------------------------------------------------------------------

TEST_F(Reports, LeaveCountersThatTheyOmitInInstancesThatTheyHave) {
    report({groupOf(kNet, {"bytes_in", "packets_in"}, {rowOf(kWeb, "1", {5, 7})})});
    report({bytesOf({rowOf(kWeb, "1", {5})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", {{"bytes_in", 10}, {"packets_in", 7}}}}}}));
}

TEST_F(Reports, LeaveAllCountersOfAnInstanceThatTheyGiveNoneOf) {
    report({bytesOf({rowOf(kWeb, "1", {5})})});
    report({groupOf(kNet, {}, {rowOf(kWeb, "1", {})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", bytes(5)}}}}));
}

TEST_F(Reports, EndInstancesThatTheyLack) {
    report({bytesOf({rowOf(kWeb, "1", {5}), rowOf(kWeb, "2", {6})})});
    report({bytesOf({rowOf(kWeb, "2", {1})})});
    EXPECT_EQ(read(), (Readings{{101, {{"2", bytes(7)}}}}));
}

TEST_F(Reports, BeginAnInstanceThatComesBackFromNothing) {
    report({bytesOf({rowOf(kWeb, "1", {5}), rowOf(kWeb, "2", {6})})});
    report({bytesOf({rowOf(kWeb, "2", {1})})});
    report({bytesOf({rowOf(kWeb, "1", {3}), rowOf(kWeb, "2", {1})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", bytes(3)}, {"2", bytes(8)}}}}));
}

TEST_F(Reports, KeepInstancesOfTheSameNameApart) {
    report({bytesOf({rowOf(kWeb, "1", {5}), rowOf(kStore, "1", {50})})});
    report({bytesOf({rowOf(kWeb, "1", {1}), rowOf(kStore, "1", {1})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", bytes(6)}}}, {102, {{"1", bytes(51)}}}}));
}

TEST_F(Reports, TellInstancesApartByEveryByteOfTheirNames) {
    const std::string nul("1\0", 2);
    report({bytesOf({rowOf(kWeb, "1", {1}), rowOf(kWeb, nul, {2}), rowOf(kWeb, "\xff", {3}), rowOf(kWeb, "", {4})})});
    EXPECT_EQ(read(), (Readings{{101, {{"", bytes(4)}, {"1", bytes(1)}, {nul, bytes(2)}, {"\xff", bytes(3)}}}}));
}

// ---- classes ------------------------------------------------------------------------------------------------------

TEST_F(Reports, OfTwoClassesAreKeptApart) {
    read(kQuota);
    report({bytesOf({rowOf(kWeb, "1", {5})}), groupOf(kQuota, {"q1"}, {rowOf(kWeb, "", {9})})});
    EXPECT_EQ(read(kNet), (Readings{{101, {{"1", bytes(5)}}}}));
    EXPECT_EQ(read(kQuota), (Readings{{101, {{"", {{"q1", 9}}}}}}));
}

TEST_F(Reports, OfOneClassLeaveTheOtherClassesOfTheContainerAsTheyAre) {
    read(kQuota);
    report({groupOf(kQuota, {"q1"}, {rowOf(kWeb, "", {9})})});
    report({bytesOf({rowOf(kWeb, "1", {5})})});
    EXPECT_EQ(read(kQuota), (Readings{{101, {{"", {{"q1", 9}}}}}}));
}

TEST_F(Reports, OfAClassThatNobodyAskedForMakeItKnown) {
    report({bytesOf({rowOf(kWeb, "1", {5})}), groupOf(kQuota, {"q1"}, {rowOf(kWeb, "", {9})})});
    agent().reset();
    EXPECT_EQ(read(kQuota), (Readings{{101, {{"", {{"q1", 9}}}}}}));
    EXPECT_TRUE(settle());
    EXPECT_THAT(agent().starts(), IsEmpty());
    EXPECT_THAT(agent().queries(), IsEmpty());
}

TEST_F(Reports, ComeInThePartsThatTheAgentLikes) {
    auto first = reportFrame(agent().monitor(), {bytesOf({rowOf(kWeb, "1", {5})})});
    first.mutable_counter_sample()->set_continued(true);
    agent().send(first);
    ASSERT_TRUE(settle());
    agent().answerQueriesWith({bytesOf({rowOf(kWeb, "1", {0})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", bytes(0)}}}})) << "half a report is none";
    report({bytesOf({rowOf(kStore, "1", {6})})});
    EXPECT_EQ(read(), (Readings{{101, {{"1", bytes(5)}}}, {102, {{"1", bytes(6)}}}}));
}

}  // namespace
}  // namespace kx::test
