#include "agent/counters/CounterLedger.h"

#include <gmock/gmock.h>

#include <limits>
#include <random>

#include "agent/counters/CounterReport.h"

namespace kx::agent {
namespace {

using testing::ElementsAre;
using Moment = std::chrono::steady_clock::time_point;

constexpr auto kNet = "counters_kx_net";
constexpr auto kQuota = "counters_kx_quota";

Eid eidOf(std::uint8_t number) {
    Eid eid;
    eid.bytes.fill(number);
    return eid;
}

Moment second(int number) {
    return Moment() + std::chrono::seconds(number);
}

CounterNames names(std::vector<std::string> of) {
    return std::make_shared<const std::vector<std::string>>(std::move(of));
}

Vocabulary vocabularyOf(const std::string& className, const std::map<std::string, std::int64_t>& types) {
    Category category{className, {}};
    for (const auto& [name, type] : types) {
        category.parameters.push_back({name, std::nullopt, {{"counter_type", type}}});
    }
    return {kBasicFunctionality, {}, {category}};
}

/// A client that adds up what it is told, as the programs at the other end do.
class Client {
public:
    explicit Client(CounterScope scope) : scope_(std::move(scope)) {}

    void hear(const CounterImage& image, const CounterKinds& kinds, const CounterMemory& before) {
        std::set<std::string> present;
        for (const FrameBody& body : makeReport(image, scope_, kinds, before, told_, 7, 1000)) {
            wire::Frame frame;
            EXPECT_TRUE(frame.ParseFromString(*body));
            const wire::CounterSample& sample = frame.counter_sample();
            EXPECT_EQ(sample.monitor(), 7U);
            EXPECT_EQ(sample.time_ms(), 1000U);
            for (const wire::CounterGroup& group : sample.groups()) {
                addGroup(group, present);
            }
        }
        // Whoever is not in a report is forgotten with everything that was known of it.
        std::erase_if(totals_, [&](const auto& entry) { return present.count(entry.first.substr(0, 16)) == 0; });
    }

    /// @return the sum of the third numbers; nothing when it was never told
    std::optional<std::int64_t> total(const Eid& eid, const std::string& key) const {
        const auto found = totals_.find(eid.toWire() + key);
        return found == totals_.end() ? std::nullopt : std::optional(found->second);
    }

private:
    void addGroup(const wire::CounterGroup& group, std::set<std::string>& present) {
        for (int row = 0; row < group.instances_size(); ++row) {
            const std::string eid = group.eids().substr(static_cast<std::size_t>(row) * 16, 16);
            present.insert(eid);
            for (int counter = 0; counter < group.counters_size(); ++counter) {
                const std::string key = group.class_name() + "/" + group.instances(row) + "/" + group.counters(counter);
                totals_[eid + key] += group.values((row * group.counters_size() + counter) * 3 + 2);
            }
        }
    }

    CounterScope scope_;
    CounterMemory told_;
    std::map<std::string, std::int64_t> totals_;
};

CounterSampleValues one(const CounterNames& name, bool isIncrease, std::int64_t now, Moment at,
                        const CounterMemory::Shown* before, const CounterMemory::Shown* told) {
    return sampleOf({eidOf(1), "", {now}}, name, {isIncrease}, at, before, told).at(0);
}

class Samples : public testing::Test {
protected:
    const CounterNames name_ = names({"counter"});
    CounterMemory::Shown shown(std::int64_t value, int at) const { return {name_, {value}, second(at)}; }
};

TEST_F(Samples, OfALevelAreNowMeanAndMaximum) {
    EXPECT_EQ(one(name_, false, 10, second(30), nullptr, nullptr), (CounterSampleValues{10, 10, 10}));
    const auto told = shown(4, 0);
    EXPECT_EQ(one(name_, false, 10, second(30), nullptr, &told), (CounterSampleValues{10, 7, 10}));
    EXPECT_EQ(one(name_, false, 2, second(30), nullptr, &told), (CounterSampleValues{2, 3, 4}));
}

TEST_F(Samples, OfALevelAreOfTheClientsOwnPeriod) {
    const auto before = shown(100, 29);
    const auto told = shown(4, 0);
    EXPECT_EQ(one(name_, false, 10, second(30), &before, &told), (CounterSampleValues{10, 7, 10}))
        << "what others had read in between is nothing to it";
}

TEST_F(Samples, HaveRatesWithinTheRangeOfTheType) {
    const CounterMemory::Shown told{name_, {0}, second(0)};
    const auto soon = second(0) + std::chrono::microseconds(1);
    for (const std::int64_t sign : {1, -1}) {
        const std::int64_t rate = one(name_, true, sign * 9'000'000'000'000'000'000, soon, &told, &told).first;
        EXPECT_GT(rate * sign, 9'000'000'000'000'000'000);
    }
}

TEST_F(Samples, OfAnIncreaseAreTheRatesAndWhatWasAddedSinceItWasTold) {
    EXPECT_EQ(one(name_, true, 100, second(30), nullptr, nullptr), (CounterSampleValues{0, 0, 100}))
        << "the first counts from the container's start";
    const auto before = shown(100, 20);
    const auto told = shown(40, 0);
    EXPECT_EQ(one(name_, true, 160, second(30), &before, &told), (CounterSampleValues{6, 4, 120}));
    EXPECT_EQ(one(name_, true, 160, second(30), &before, nullptr), (CounterSampleValues{6, 0, 160}));
}

TEST_F(Samples, OfACounterThatWasSetBackAreNegative) {
    const auto told = shown(1000, 0);
    EXPECT_EQ(one(name_, true, 10, second(10), nullptr, &told).third, -990);
}

TEST_F(Samples, WrapAroundAsTheKernelsCountersDo) {
    const auto told = shown(std::numeric_limits<std::int64_t>::max(), 0);
    EXPECT_EQ(one(name_, true, std::numeric_limits<std::int64_t>::min(), second(10), nullptr, &told).third, 1);
    const auto lowest = shown(std::numeric_limits<std::int64_t>::min(), 0);
    EXPECT_EQ(one(name_, false, std::numeric_limits<std::int64_t>::max(), second(10), nullptr, &lowest).first,
              std::numeric_limits<std::int64_t>::max());
}

TEST_F(Samples, FindACounterByItsNameWhereItsPlaceHasChanged) {
    const CounterMemory::Shown told{names({"a", "b"}), {10, 20}, second(0)};
    const auto sample =
        sampleOf({eidOf(1), "", {25, 11, 5}}, names({"b", "a", "c"}), {true, true, true}, second(1), nullptr, &told);
    EXPECT_EQ(sample[0].third, 5);
    EXPECT_EQ(sample[1].third, 1);
    EXPECT_EQ(sample[2].third, 5) << "a counter that was not there is told whole";
}

TEST_F(Samples, TakenInOneMomentHaveNoRate) {
    const auto before = shown(1, 5);
    EXPECT_EQ(one(name_, true, 9, second(5), &before, &before), (CounterSampleValues{0, 0, 8}));
}

TEST(CounterKinds, AreSaidByTheVocabularyOfTheCounters) {
    const CounterKinds kinds({{"", {}, {}}, vocabularyOf(kNet, {{"bytes", 2}, {"level", 1}, {"odd", 3}})});
    EXPECT_THAT(kinds.increases(kNet, {"level", "bytes", "odd", "unknown"}), ElementsAre(false, true, false, false));
    EXPECT_THAT(kinds.increases(kQuota, {"bytes"}), ElementsAre(false));
    EXPECT_THAT(CounterKinds().increases(kNet, {"bytes"}), ElementsAre(false));
}

class Reports : public testing::Test {
protected:
    /// Readings of one counter a class; a container is absent where it has no value.
    CounterImage image(const std::map<std::uint8_t, std::int64_t>& net,
                       const std::map<std::uint8_t, std::int64_t>& quota) {
        CounterImage result{second(++time_), {}};
        for (const auto& [className, values] : {std::pair(kNet, net), std::pair(kQuota, quota)}) {
            CounterTable table{className, name_, {}};
            for (const auto& [number, value] : values) {
                table.rows.push_back({eidOf(number), "1", {value}});
            }
            result.tables.push_back(std::move(table));
        }
        return result;
    }

    const CounterNames name_ = names({"counter"});
    const CounterKinds kinds_{{vocabularyOf(kNet, {{"counter", 2}})}};
    const CounterMemory nothingBefore_;
    int time_ = 0;
};

TEST_F(Reports, AddUpToWhatTheCounterShowsForEveryClient) {
    Client early({{kNet}, {}});
    Client late({{kNet}, {}});
    std::int64_t value = 1000;
    for (int round = 0; round < 10; ++round) {
        value += round * 7;
        const auto now = image({{1, value}}, {});
        early.hear(now, kinds_, nothingBefore_);
        if (round > 4) {
            late.hear(now, kinds_, nothingBefore_);
            EXPECT_EQ(late.total(eidOf(1), "counters_kx_net/1/counter"), value);
        }
        EXPECT_EQ(early.total(eidOf(1), "counters_kx_net/1/counter"), value);
    }
}

TEST_F(Reports, TellAContainerThatComesBackFromItsStart) {
    Client client({{kNet}, {}});
    client.hear(image({{1, 500}, {2, 50}}, {}), kinds_, nothingBefore_);
    client.hear(image({{2, 60}}, {}), kinds_, nothingBefore_);
    EXPECT_EQ(client.total(eidOf(1), "counters_kx_net/1/counter"), std::nullopt);
    client.hear(image({{1, 30}, {2, 70}}, {}), kinds_, nothingBefore_);
    EXPECT_EQ(client.total(eidOf(1), "counters_kx_net/1/counter"), 30);
    EXPECT_EQ(client.total(eidOf(2), "counters_kx_net/1/counter"), 70);
}

TEST_F(Reports, OfOneClassForgetAContainerInAllAsTheClientDoes) {
    CounterMemory told;
    const auto report = [&](const std::string& className, const CounterImage& now) {
        wire::Frame frame;
        frame.ParseFromString(*makeReport(now, {{className}, {}}, kinds_, nothingBefore_, told, 0, 0).at(0));
        return frame.counter_sample();
    };
    report(kNet, image({{1, 100}}, {{1, 5}}));
    report(kQuota, image({{1, 110}}, {}));
    const auto after = report(kNet, image({{1, 120}}, {}));
    EXPECT_EQ(after.groups(0).values(2), 120)
        << "the client lost what it had when the quota report lacked the container";
}

TEST_F(Reports, KeepToTheirScope) {
    Client client({{kNet}, {eidOf(2)}});
    client.hear(image({{1, 1}, {2, 2}, {3, 3}}, {{2, 9}}), kinds_, nothingBefore_);
    EXPECT_EQ(client.total(eidOf(2), "counters_kx_net/1/counter"), 2);
    EXPECT_EQ(client.total(eidOf(1), "counters_kx_net/1/counter"), std::nullopt);
    EXPECT_EQ(client.total(eidOf(2), "counters_kx_quota/1/counter"), std::nullopt);
}

TEST_F(Reports, NameTheCountersThatAreNotKnownOfEachGroupOfRows) {
    const CounterNames both = names({"counter", "other"});
    const CounterTable known{kQuota, both, {{eidOf(1), "", {5, 6}}}};
    const CounterTable unknown{kQuota, both, {{eidOf(2), "", {0, 6}}}, {"counter"}};
    CounterMemory told;
    wire::Frame frame;
    frame.ParseFromString(
        *makeReport({second(1), {known, unknown}}, {{kQuota}, {}}, kinds_, nothingBefore_, told, 0, 0).at(0));
    ASSERT_EQ(frame.counter_sample().groups_size(), 2);
    EXPECT_EQ(frame.counter_sample().groups(0).unknown_size(), 0);
    ASSERT_EQ(frame.counter_sample().groups(1).unknown_size(), 1);
    EXPECT_EQ(frame.counter_sample().groups(1).unknown(0), "counter");
    EXPECT_EQ(frame.counter_sample().groups(1).counters_size(), 2) << "their numbers are there all the same";
}

TEST_F(Reports, ThatAreEmptyAreAFrameAllTheSame) {
    CounterMemory told;
    const auto bodies = makeReport(image({}, {}), {{kNet}, {}}, kinds_, nothingBefore_, told, 3, 4);
    ASSERT_EQ(bodies.size(), 1U);
    wire::Frame frame;
    ASSERT_TRUE(frame.ParseFromString(*bodies[0]));
    EXPECT_TRUE(frame.has_counter_sample());
    EXPECT_FALSE(frame.counter_sample().continued());
}

TEST_F(Reports, ThatAreLargeGoOnInFurtherFrames) {
    CounterTable table{kNet, names({"a", "b", "c", "d"}), {}};
    for (int row = 0; row < 60000; ++row) {
        Eid eid;
        eid.bytes[0] = static_cast<std::uint8_t>(row);
        eid.bytes[1] = static_cast<std::uint8_t>(row >> 8);
        table.rows.push_back({eid, "1", {row, 2, 3, 4}});
    }
    CounterMemory told;
    const auto bodies = makeReport({second(1), {table}}, {{kNet}, {}}, kinds_, nothingBefore_, told, 0, 0);
    ASSERT_GT(bodies.size(), 1U);
    int rows = 0;
    for (std::size_t i = 0; i < bodies.size(); ++i) {
        wire::Frame frame;
        ASSERT_TRUE(frame.ParseFromString(*bodies[i]));
        EXPECT_EQ(frame.counter_sample().continued(), i + 1 < bodies.size());
        EXPECT_LT(bodies[i]->size(), wire::kMaxFrameBytes / 2);
        for (const wire::CounterGroup& group : frame.counter_sample().groups()) {
            EXPECT_EQ(group.counters_size(), 4);
            rows += group.instances_size();
        }
    }
    EXPECT_EQ(rows, 60000);
}

TEST_F(Reports, AgreeWithTheCounterWhateverComesAndGoes) {
    std::minstd_rand random(1);
    std::map<std::uint8_t, std::int64_t> counters;
    Client client({{kNet}, {}});
    for (int round = 0; round < 2000; ++round) {
        const auto number = static_cast<std::uint8_t>(random() % 5);
        switch (random() % 5) {
            case 0:
                counters.erase(number);
                break;
            case 1:
                counters[number] = static_cast<std::int64_t>(random() % 100);  // started, or started again
                break;
            default:
                if (counters.count(number) != 0) {
                    counters[number] += static_cast<std::int64_t>(random());
                }
        }
        if (random() % 3 == 0) {
            client.hear(image(counters, {}), kinds_, nothingBefore_);
            for (std::uint8_t each = 0; each < 5; ++each) {
                const auto shown = counters.count(each) != 0 ? std::optional(counters[each]) : std::nullopt;
                ASSERT_EQ(client.total(eidOf(each), "counters_kx_net/1/counter"), shown) << "round " << round;
            }
        }
    }
}

/// @return the groups of a report, of all its frames
std::vector<wire::CounterGroup> groupsOf(const std::vector<FrameBody>& bodies) {
    std::vector<wire::CounterGroup> groups;
    for (const FrameBody& body : bodies) {
        wire::Frame frame;
        EXPECT_TRUE(frame.ParseFromString(*body));
        groups.insert(groups.end(), frame.counter_sample().groups().begin(), frame.counter_sample().groups().end());
    }
    return groups;
}

/// @return the increase that a report tells of the only counter of each row
std::vector<std::int64_t> increasesIn(const std::vector<FrameBody>& bodies) {
    std::vector<std::int64_t> increases;
    for (const wire::CounterGroup& group : groupsOf(bodies)) {
        for (int i = 2; i < group.values_size(); i += 3) {
            increases.push_back(group.values(i));
        }
    }
    return increases;
}

class Report : public testing::Test {
protected:
    std::vector<FrameBody> report(const CounterImage& image, const std::set<std::string>& classes = {kNet}) {
        return makeReport(image, {classes, {}}, kinds_, before_, told_, 7, 1000);
    }
    CounterTable net(std::vector<CounterRow> rows) { return {kNet, names({"bytes_in"}), std::move(rows)}; }

    CounterKinds kinds_{{vocabularyOf(kNet, {{"bytes_in", 2}})}};
    CounterMemory before_;
    CounterMemory told_;
};

TEST_F(Report, AnInterfaceThatGoesAndReturnsCountsFromItsStartAgain) {
    const CounterRow one{eidOf(1), "1", {100}};
    const CounterRow two{eidOf(1), "2", {500}};
    EXPECT_THAT(increasesIn(report({second(1), {net({one, two})}})), ElementsAre(100, 500));
    EXPECT_THAT(increasesIn(report({second(2), {net({one})}})), ElementsAre(0));
    EXPECT_THAT(increasesIn(report({second(3), {net({one, two})}})), ElementsAre(0, 500)) << "it was forgotten";
}

TEST_F(Report, ManyRowsShareFrames) {
    CounterTable table{kNet, names(std::vector<std::string>(1000, "bytes_in")), {}};
    for (int i = 0; i < 450; ++i) {
        table.rows.push_back({eidOf(1), std::to_string(i), std::vector<std::int64_t>(1000)});
    }
    EXPECT_EQ(report({second(1), {table}}).size(), 3U);
}

TEST_F(Report, WhoSwapsNumbersGoesOnFromWhatTheNumberShowed) {
    const auto image = [&](int at, std::int64_t one, std::int64_t two) {
        return CounterImage{second(at), {net({{eidOf(1), "1", {one}}, {eidOf(2), "1", {two}}})}};
    };
    report(image(1, 1000, 10));
    told_.renumber({{eidOf(1), eidOf(2)}, {eidOf(2), eidOf(1)}});
    EXPECT_THAT(increasesIn(report(image(2, 1001, 12))), ElementsAre(991, -988)) << "10 and 1000 were told under them";
    EXPECT_THAT(increasesIn(report(image(3, 1002, 13))), ElementsAre(1, 1));
}

TEST_F(Report, WhoGetsANumberThatWasNobodysCountsFromItsStart) {
    const CounterImage image{second(1), {net({{eidOf(1), "1", {1000}}})}};
    report(image);
    told_.renumber({{eidOf(1), std::nullopt}});
    EXPECT_THAT(increasesIn(report(image)), ElementsAre(1000));
}

}  // namespace
}  // namespace kx::agent
