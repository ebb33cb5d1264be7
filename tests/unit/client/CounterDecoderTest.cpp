// Reports of counters out of wire messages, well formed and not, in one frame and in many.
#include "client/src/counters/CounterDecoder.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <limits>
#include <random>

#include "client/src/values/Limits.h"
#include "tests/support/CounterScripts.h"

namespace kx::test {
namespace {

using client::SampleAssembler;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Outcome = SampleAssembler::Outcome;
using Report = std::vector<KXLMonitorData>;

const std::string kNet = "counters_kx_net";
const std::string kQuota = "counters_kx_quota";
const wire::Environment kWeb = wireEnv(1);
const wire::Environment kStore = wireEnv(2);

/// Frames that one report may have.
constexpr int kMostFrames = 1000;

Report decoded(const wire::CounterSample& sample) {
    Report report;
    std::string reason;
    EXPECT_TRUE(client::decodeCounters(sample, report, reason)) << reason;
    EXPECT_EQ(reason, "");
    return report;
}

Report decoded(const std::vector<wire::CounterGroup>& groups) {
    return decoded(sampleOf(groups));
}

void expectMalformed(const std::vector<wire::CounterGroup>& groups) {
    Report report;
    std::string reason;
    EXPECT_FALSE(client::decodeCounters(sampleOf(groups), report, reason));
    EXPECT_NE(reason, "");
}

KXLEID eidOf(const wire::Environment& environment) {
    KXLGUIDBase::Bytes bytes{};
    std::copy(environment.eid().begin(), environment.eid().end(), bytes.begin());
    return KXLEID(bytes);
}

std::vector<std::int64_t> integersOf(const KXLPerfStat& stat) {
    EXPECT_EQ(stat.kind, 1);
    EXPECT_EQ(stat.fourth, 0);
    return {stat.value1.integer, stat.value2.integer, stat.value3.integer};
}

/// Two counters of one instance of each container.
wire::CounterGroup goodGroup() {
    return groupOf(kNet, {"in", "out"}, {rowOf(kWeb, "1", {5, 7}), rowOf(kStore, "2", {50, 70})});
}

// ---- what a report says -------------------------------------------------------------------------------------------

TEST(CounterDecoder, ReadsTheThreeNumbersOfEachCounterOfEachRow) {
    const Report report = decoded({goodGroup()});
    ASSERT_THAT(report, SizeIs(2));
    EXPECT_EQ(report[0].eid, eidOf(kWeb));
    EXPECT_EQ(report[1].eid, eidOf(kStore));
    ASSERT_THAT(report[0].classes, SizeIs(1));
    ASSERT_THAT(report[0].classes.at(kNet), SizeIs(1));
    const auto& web = report[0].classes.at(kNet).at("1");
    ASSERT_THAT(web, SizeIs(2));
    EXPECT_THAT(integersOf(web.at("in")), ElementsAre(5, 10, 15));
    EXPECT_THAT(integersOf(web.at("out")), ElementsAre(7, 14, 21));
    const auto& store = report[1].classes.at(kNet).at("2");
    EXPECT_THAT(integersOf(store.at("in")), ElementsAre(50, 100, 150));
    EXPECT_THAT(integersOf(store.at("out")), ElementsAre(70, 140, 210));
}

TEST(CounterDecoder, ReadsCountersInAnyOrder) {
    const std::vector<std::string> names = {"m", "z", "a", "k", "", "\xff", "b"};
    const Report report = decoded(
        {groupOf(kNet, names, {rowOf(kWeb, "1", {0, 1, 2, 3, 4, 5, 6}), rowOf(kWeb, "2", {7, 8, 9, 10, 11, 12, 13})})});
    for (std::size_t i = 0; i < names.size(); ++i) {
        const auto& instances = report.at(0).classes.at(kNet);
        EXPECT_EQ(instances.at("1").at(names[i]).value1.integer, static_cast<std::int64_t>(i)) << names[i];
        EXPECT_EQ(instances.at("2").at(names[i]).value1.integer, static_cast<std::int64_t>(i + 7)) << names[i];
    }
}

TEST(CounterDecoder, ReadsTheLargestAndTheSmallestNumbers) {
    using Limits = std::numeric_limits<std::int64_t>;
    const Report report = decoded({groupOf(kNet, {"in"}, {{kWeb.eid(), "1", {Limits::max(), Limits::min(), -1}}})});
    EXPECT_THAT(integersOf(report.at(0).classes.at(kNet).at("1").at("in")),
                ElementsAre(Limits::max(), Limits::min(), -1));
}

TEST(CounterDecoder, ReadsDoubles) {
    auto group =
        groupOf(kNet, {"b", "a"}, {{kWeb.eid(), "1", {bitsOf(0.5), bitsOf(-1e300), bitsOf(0.0), bitsOf(1.5), 0, 0}}});
    group.set_doubles(true);
    const Report report = decoded({group});
    const KXLPerfStat& stat = report.at(0).classes.at(kNet).at("1").at("b");
    EXPECT_EQ(stat.kind, 0);
    EXPECT_EQ(stat.value1.real, 0.5);
    EXPECT_EQ(stat.value2.real, -1e300);
    EXPECT_EQ(stat.value3.real, 0.0);
    EXPECT_EQ(stat.fourth, 0);
    EXPECT_EQ(report.at(0).classes.at(kNet).at("1").at("a").value1.real, 1.5);
}

TEST(CounterDecoder, KeepsIntegersAndDoublesOfOneReportApart) {
    auto doubles = groupOf(kQuota, {"in"}, {{kWeb.eid(), "1", {bitsOf(0.5), 0, 0}}});
    doubles.set_doubles(true);
    const Report report = decoded({goodGroup(), doubles});
    EXPECT_EQ(report.at(0).classes.at(kNet).at("1").at("in").kind, 1);
    EXPECT_EQ(report.at(0).classes.at(kQuota).at("1").at("in").kind, 0);
}

/// All that a report says, as a text.
std::string textOf(const Report& report) {
    std::string text;
    for (const KXLMonitorData& container : report) {
        text += container.eid.toString() + "\n";
        for (const auto& [className, instances] : container.classes) {
            for (const auto& [instance, counters] : instances) {
                text += className + "/" + instance + ":";
                for (const auto& [name, stat] : counters) {
                    text += " " + name + "=" + std::to_string(stat.value1.integer) + "," + std::to_string(stat.kind);
                }
                text += "\n";
            }
        }
    }
    return text;
}

/// Makes reports up; containers, instances and counters come and go, and some are named twice.
wire::CounterSample anyReport(std::mt19937& random) {
    const auto below = [&](unsigned limit) { return static_cast<int>(random() % limit); };
    std::vector<wire::CounterGroup> groups;
    for (int group = below(4); group >= 0; --group) {
        std::vector<std::string> names;
        for (int counter = below(5); counter > 0; --counter) {
            names.push_back(std::string(1, static_cast<char>('a' + below(6))));
        }
        std::vector<CounterRow> rows;
        for (int row = below(6); row > 0; --row) {
            std::vector<std::int64_t> values(names.size());
            std::generate(values.begin(), values.end(), [&] { return below(1000); });
            rows.push_back(rowOf(wireEnv(below(4)), std::to_string(below(3)), values));
        }
        groups.push_back(groupOf(below(2) == 0 ? kNet : kQuota, names, rows));
    }
    return sampleOf(groups);
}

TEST(CounterDecoder, MarksTheCountersThatAreNotKnown) {
    wire::CounterGroup half = goodGroup();
    half.add_unknown("out");
    half.add_unknown("something else");
    Report report = decoded({half});
    EXPECT_TRUE(report[0].classes.at(kNet).at("1").at("in").isKnown);
    EXPECT_FALSE(report[0].classes.at(kNet).at("1").at("out").isKnown);
    EXPECT_THAT(integersOf(report[0].classes.at(kNet).at("1").at("out")), ElementsAre(7, 14, 21));
    std::string reason;
    ASSERT_TRUE(client::decodeCounters(sampleOf({goodGroup()}), report, reason));
    EXPECT_TRUE(report[0].classes.at(kNet).at("1").at("out").isKnown) << "each report says it anew";
}

TEST(CounterDecoder, LeavesNothingOfAnEarlierReportWhoseMemoryItUses) {
    std::mt19937 random(7);
    Report used;
    for (int i = 0; i < 2000; ++i) {
        const wire::CounterSample sample = anyReport(random);
        std::string reason;
        ASSERT_TRUE(client::decodeCounters(sample, used, reason)) << reason;
        ASSERT_EQ(textOf(used), textOf(decoded(sample))) << i;
    }
}

TEST(CounterDecoder, GathersAContainerFromSeveralGroupsAndClasses) {
    const Report report = decoded({groupOf(kNet, {"in"}, {rowOf(kStore, "1", {1}), rowOf(kWeb, "1", {2})}),
                                   groupOf(kQuota, {"used"}, {rowOf(kWeb, "", {3})}),
                                   groupOf(kNet, {"out"}, {rowOf(kWeb, "2", {4}), rowOf(kWeb, "1", {5})})});
    ASSERT_THAT(report, SizeIs(2));
    EXPECT_EQ(report[0].eid, eidOf(kStore)) << "in the order in which they first appear";
    EXPECT_EQ(report[1].eid, eidOf(kWeb));
    const auto& web = report[1].classes;
    ASSERT_THAT(web, SizeIs(2));
    ASSERT_THAT(web.at(kNet), SizeIs(2));
    EXPECT_EQ(web.at(kNet).at("1").at("in").value1.integer, 2);
    EXPECT_EQ(web.at(kNet).at("1").at("out").value1.integer, 5);
    EXPECT_EQ(web.at(kNet).at("2").at("out").value1.integer, 4);
    EXPECT_EQ(web.at(kQuota).at("").at("used").value1.integer, 3);
    EXPECT_THAT(report[0].classes, SizeIs(1));
}

TEST(CounterDecoder, TakesTheLastOfWhatIsSaidTwice) {
    const Report report =
        decoded({groupOf(kNet, {"in"}, {rowOf(kWeb, "1", {1}), rowOf(kWeb, "1", {2})}),
                 groupOf(kQuota, {"used"}, {rowOf(kWeb, "", {3})}), groupOf(kQuota, {"used"}, {rowOf(kWeb, "", {4})})});
    EXPECT_EQ(report.at(0).classes.at(kNet).at("1").at("in").value1.integer, 2);
    EXPECT_EQ(report.at(0).classes.at(kQuota).at("").at("used").value1.integer, 4);
}

TEST(CounterDecoder, ReadsRowsWithoutCountersAndGroupsWithoutRows) {
    const Report report = decoded(
        {groupOf(kNet, {}, {rowOf(kWeb, "1", {})}), groupOf(kQuota, {"used", "free"}, {}), groupOf("", {}, {})});
    ASSERT_THAT(report, SizeIs(1));
    ASSERT_THAT(report[0].classes, SizeIs(1));
    EXPECT_THAT(report[0].classes.at(kNet).at("1"), IsEmpty());
}

TEST(CounterDecoder, OfAReportOfNothingGivesNothing) {
    EXPECT_THAT(decoded(std::vector<wire::CounterGroup>()), IsEmpty());
}

// ---- columns that do not fit together -------------------------------------------------------------------------------

TEST(CounterDecoder, RefusesIdentifiersThatAreNoMultipleOfSixteenBytes) {
    for (const std::string rest : {"x", "fifteen bytes.."}) {
        auto group = goodGroup();
        group.mutable_eids()->append(rest);
        expectMalformed({group});
    }
    auto shorter = goodGroup();
    shorter.mutable_eids()->pop_back();
    expectMalformed({shorter});
}

TEST(CounterDecoder, RefusesMoreOrFewerInstancesThanIdentifiers) {
    auto more = goodGroup();
    more.add_instances("3");
    expectMalformed({more});
    auto fewer = goodGroup();
    fewer.mutable_instances()->RemoveLast();
    expectMalformed({fewer});
    auto none = goodGroup();
    none.clear_eids();
    expectMalformed({none});
}

TEST(CounterDecoder, RefusesMoreOrFewerNumbersThanThereArePlaces) {
    for (const int surplus : {1, 3, 6}) {
        auto more = goodGroup();
        for (int i = 0; i < surplus; ++i) {
            more.add_values(1);
        }
        expectMalformed({more});
        auto fewer = goodGroup();
        fewer.mutable_values()->Truncate(fewer.values_size() - surplus);
        expectMalformed({fewer});
    }
    auto none = goodGroup();
    none.clear_values();
    expectMalformed({none});
}

TEST(CounterDecoder, RefusesMoreOrFewerNamesThanThereAreNumbersFor) {
    auto more = goodGroup();
    more.add_counters("third");
    expectMalformed({more});
    auto fewer = goodGroup();
    fewer.mutable_counters()->RemoveLast();
    expectMalformed({fewer});
    auto values = groupOf(kNet, {"in"}, {});
    values.add_values(1);
    expectMalformed({values});
}

TEST(CounterDecoder, RefusesAReportOfWhichAnyGroupMakesNoSense) {
    auto bad = goodGroup();
    bad.add_values(1);
    expectMalformed({goodGroup(), bad});
    expectMalformed({bad, goodGroup()});
}

// ---- reports in several frames --------------------------------------------------------------------------------------

wire::CounterSample partOf(const std::vector<wire::CounterGroup>& groups, bool isContinued) {
    wire::CounterSample sample = sampleOf(groups);
    sample.set_continued(isContinued);
    return sample;
}

TEST(SampleAssembler, LeavesAReportInOneFrameAsItIs) {
    SampleAssembler assembler;
    wire::CounterSample sample = partOf({goodGroup()}, false);
    sample.set_monitor(4);
    EXPECT_EQ(assembler.take(4, sample), Outcome::Complete);
    EXPECT_THAT(sample.groups(), SizeIs(1));
    EXPECT_EQ(sample.monitor(), 4U);
}

TEST(SampleAssembler, PutsAReportTogetherInTheOrderOfItsFrames) {
    SampleAssembler assembler;
    wire::CounterSample first = partOf({groupOf("a", {}, {}), groupOf("b", {}, {})}, true);
    wire::CounterSample second = partOf({}, true);
    wire::CounterSample last = partOf({groupOf("c", {}, {})}, false);
    EXPECT_EQ(assembler.take(1, first), Outcome::Pending);
    EXPECT_EQ(assembler.take(1, second), Outcome::Pending);
    EXPECT_EQ(assembler.take(1, last), Outcome::Complete);
    ASSERT_THAT(last.groups(), SizeIs(3));
    EXPECT_EQ(last.groups(0).class_name(), "a");
    EXPECT_EQ(last.groups(1).class_name(), "b");
    EXPECT_EQ(last.groups(2).class_name(), "c");
}

TEST(SampleAssembler, BeginsTheNextReportFromNothing) {
    SampleAssembler assembler;
    for (int i = 0; i < 2; ++i) {
        wire::CounterSample first = partOf({goodGroup()}, true);
        wire::CounterSample last = partOf({goodGroup()}, false);
        EXPECT_EQ(assembler.take(1, first), Outcome::Pending);
        EXPECT_EQ(assembler.take(1, last), Outcome::Complete);
        EXPECT_THAT(last.groups(), SizeIs(2));
    }
    wire::CounterSample single = partOf({goodGroup()}, false);
    EXPECT_EQ(assembler.take(1, single), Outcome::Complete);
    EXPECT_THAT(single.groups(), SizeIs(1));
}

TEST(SampleAssembler, KeepsReportsThatComeAtTheSameTimeApart) {
    SampleAssembler assembler;
    wire::CounterSample one = partOf({groupOf("one", {}, {})}, true);
    wire::CounterSample other = partOf({groupOf("other", {}, {})}, true);
    wire::CounterSample whole = partOf({groupOf("whole", {}, {})}, false);
    EXPECT_EQ(assembler.take(1, one), Outcome::Pending);
    EXPECT_EQ(assembler.take(2, other), Outcome::Pending);
    EXPECT_EQ(assembler.take(3, whole), Outcome::Complete);
    EXPECT_THAT(whole.groups(), SizeIs(1));
    wire::CounterSample last = partOf({}, false);
    EXPECT_EQ(assembler.take(2, last), Outcome::Complete);
    ASSERT_THAT(last.groups(), SizeIs(1));
    EXPECT_EQ(last.groups(0).class_name(), "other");
}

TEST(SampleAssembler, TakesAThousandFramesAndNotOneMore) {
    for (const bool tooMany : {false, true}) {
        SampleAssembler assembler;
        for (int i = 1; i < kMostFrames; ++i) {
            wire::CounterSample part = partOf({groupOf("a", {}, {})}, true);
            ASSERT_EQ(assembler.take(1, part), Outcome::Pending);
        }
        wire::CounterSample last = partOf({}, tooMany);
        ASSERT_EQ(assembler.take(1, last), tooMany ? Outcome::Pending : Outcome::Complete);
        wire::CounterSample surplus = partOf({}, false);
        EXPECT_EQ(assembler.take(1, surplus), tooMany ? Outcome::Endless : Outcome::Complete);
        EXPECT_EQ(last.groups_size(), tooMany ? 0 : kMostFrames - 1);
    }
}

/// A group whose rows take `bytes` once decoded, or a little more.
wire::CounterGroup groupOfBytes(std::size_t bytes) {
    wire::CounterGroup group;
    for (std::size_t row = 0; row <= bytes / client::kReportRowBytes; ++row) {
        group.mutable_eids()->append(kWeb.eid());
        group.add_instances("");
    }
    return group;
}

TEST(SampleAssembler, DropsAReportThatTakesTooMuchAndKeepsNothingOfIt) {
    SampleAssembler assembler;
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 20; ++i) {
            wire::CounterSample part = partOf({groupOfBytes(client::kMaxReportBytes / 8)}, true);
            ASSERT_EQ(assembler.take(1, part), Outcome::Pending);
        }
        wire::CounterSample last = partOf({}, false);
        EXPECT_EQ(assembler.take(1, last), Outcome::TooLarge);
        wire::CounterSample next = partOf({goodGroup()}, true);
        EXPECT_EQ(assembler.take(1, next), Outcome::Pending) << "the next one is as good as any";
        EXPECT_EQ(assembler.take(1, last), Outcome::Complete);
    }
}

TEST(SampleAssembler, DropsAReportInOneFrameThatTakesTooMuch) {
    SampleAssembler assembler;
    wire::CounterSample single = partOf({groupOfBytes(client::kMaxReportBytes)}, false);
    EXPECT_EQ(assembler.take(1, single), Outcome::TooLarge);
}

TEST(SampleAssembler, CountsAllReportsThatComeAtTheSameTime) {
    SampleAssembler assembler;
    for (std::uint64_t key = 1; key <= 3; ++key) {
        wire::CounterSample part = partOf({groupOfBytes(client::kMaxReportBytes * 2 / 5)}, true);
        ASSERT_EQ(assembler.take(key, part), Outcome::Pending);
    }
    for (std::uint64_t key = 1; key <= 3; ++key) {
        wire::CounterSample last = partOf({}, false);
        EXPECT_EQ(assembler.take(key, last), key == 3 ? Outcome::TooLarge : Outcome::Complete);
    }
}

TEST(SampleAssembler, ForgetsWhatIsIncomplete) {
    SampleAssembler assembler;
    wire::CounterSample first = partOf({goodGroup()}, true);
    EXPECT_EQ(assembler.take(1, first), Outcome::Pending);
    assembler.clear();
    wire::CounterSample single = partOf({goodGroup()}, false);
    EXPECT_EQ(assembler.take(1, single), Outcome::Complete);
    EXPECT_THAT(single.groups(), SizeIs(1));
}

}  // namespace
}  // namespace kx::test
