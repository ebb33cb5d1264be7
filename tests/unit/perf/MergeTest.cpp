// How one sample of counters is merged into what is held: by the counter's type, and by the kind of what is held.
#include "tests/unit/perf/MonitorAccess.h"
#include "tests/unit/perf/PerfFixture.h"

#include <limits>

namespace kx::test {
namespace {

using testing::SizeIs;

KXLPerfStat integers(std::int64_t first, std::int64_t second, std::int64_t third, std::int64_t fourth = 0) {
    KXLPerfStat stat;
    stat.value1.integer = first;
    stat.value2.integer = second;
    stat.value3.integer = third;
    stat.fourth = fourth;
    return stat;
}

KXLPerfStat doubles(double first, double second, double third, std::int64_t fourth = 0) {
    return [&](KXLPerfStat stat) {
        stat.kind = 0;
        return stat;
    }(integers(bitsOf(first), bitsOf(second), bitsOf(third), fourth));
}

/// Kind, the bits of the three values, and the fourth word.
std::vector<std::int64_t> partsOf(const KXLPerfStat& stat) {
    return {stat.kind, stat.value1.integer, stat.value2.integer, stat.value3.integer, stat.fourth};
}

class Merge : public testing::Test {
protected:
    /// What "c" is after a sample was merged into what is held of it.
    std::vector<std::int64_t> merged(const CounterMap& held, const KXLPerfStat& incoming, int type) {
        SNMPNodePerfomanceMonitor monitor;
        counterTypes(monitor)["c"] = type;
        CounterMap target = held;
        mergeStats(monitor, {{"c", incoming}}, target);
        EXPECT_THAT(target, SizeIs(1));
        return partsOf(target["c"]);
    }
};

TEST_F(Merge, OfACounterThatIsNotAccumulatedTakesTheSampleWholeItsFourthWordToo) {
    for (const int type : {0, 1, 3, -1}) {
        EXPECT_EQ(merged({{"c", integers(1, 2, 3, 4)}}, integers(10, 20, 30, 40), type),
                  partsOf(integers(10, 20, 30, 40)));
        EXPECT_EQ(merged({{"c", integers(1, 2, 3, 4)}}, doubles(0.5, 1.5, 2.5, 40), type),
                  partsOf(doubles(0.5, 1.5, 2.5, 40)));
        EXPECT_EQ(merged({{"c", doubles(0.5, 1.5, 2.5)}}, integers(10, 20, 30), type), partsOf(integers(10, 20, 30)));
        EXPECT_EQ(merged({}, doubles(0.5, 1.5, 2.5, 40), type), partsOf(doubles(0.5, 1.5, 2.5, 40)));
    }
}

TEST_F(Merge, AddsIntegersToIntegersAndClearsTheFourthWord) {
    EXPECT_EQ(merged({{"c", integers(1, 2, 3, 4)}}, integers(10, 20, 30, 40), 2), partsOf(integers(11, 22, 33, 0)));
}

TEST_F(Merge, AddsDoublesToDoublesAndClearsTheFourthWord) {
    EXPECT_EQ(merged({{"c", doubles(0.5, 1.5, 2.5, 4)}}, doubles(0.25, 100, -2.5, 40), 2),
              partsOf(doubles(0.75, 101.5, 0.0, 0)));
}

TEST_F(Merge, AddsTheBitsOfDoublesToIntegersAsIntegers) {
    EXPECT_EQ(merged({{"c", integers(1, 2, 3)}}, doubles(0.5, 1.5, 2.5), 2),
              partsOf(integers(1 + bitsOf(0.5), 2 + bitsOf(1.5), 3 + bitsOf(2.5))));
}

// The bits of a small integer are those of a double next to nothing; these are not next to nothing.
TEST_F(Merge, AddsTheBitsOfIntegersToDoublesAsDoubles) {
    EXPECT_EQ(merged({{"c", doubles(0.5, 1.5, 2.5)}}, integers(bitsOf(1.0), bitsOf(2.0), bitsOf(-1.0)), 2),
              partsOf(doubles(1.5, 3.5, 1.5)));
}

TEST_F(Merge, BeginsAnAccumulatedCounterWithIntegersWhateverTheSampleIs) {
    EXPECT_EQ(merged({}, integers(10, 20, 30, 40), 2), partsOf(integers(10, 20, 30, 0)));
    EXPECT_EQ(merged({}, doubles(0.5, 1.5, 2.5, 40), 2), partsOf(integers(bitsOf(0.5), bitsOf(1.5), bitsOf(2.5), 0)));
}

TEST_F(Merge, TakesAnyKindButZeroForIntegers) {
    KXLPerfStat held = integers(bitsOf(1.0), 2, 3);
    held.kind = 255;
    KXLPerfStat expected = integers(bitsOf(1.0) + bitsOf(1.0), 2, 3);
    expected.kind = 255;
    EXPECT_EQ(merged({{"c", held}}, integers(bitsOf(1.0), 0, 0), 2), partsOf(expected));
}

TEST_F(Merge, WrapsAroundBeyondTheLargestInteger) {
    using Limits = std::numeric_limits<std::int64_t>;
    EXPECT_EQ(merged({{"c", integers(Limits::max(), Limits::min(), -1)}}, integers(1, -1, Limits::max()), 2),
              partsOf(integers(Limits::min(), Limits::max(), Limits::max() - 1)));
}

TEST_F(Merge, LeavesCountersThatTheSampleLacksUntouchedTheirFourthWordToo) {
    SNMPNodePerfomanceMonitor monitor;
    counterTypes(monitor) = {{"c", 2}, {"other", 2}};
    CounterMap target = {{"other", integers(1, 2, 3, 4)}};
    mergeStats(monitor, {{"c", integers(5, 6, 7)}}, target);
    EXPECT_THAT(target, SizeIs(2));
    EXPECT_EQ(partsOf(target["other"]), partsOf(integers(1, 2, 3, 4)));
}

TEST_F(Merge, EntersACounterThatIsNotKnownWithTypeZero) {
    SNMPNodePerfomanceMonitor monitor;
    CounterMap target = {{"c", integers(1, 2, 3)}};
    mergeStats(monitor, {{"c", integers(5, 6, 7)}}, target);
    EXPECT_EQ(partsOf(target["c"]), partsOf(integers(5, 6, 7)));
    EXPECT_EQ(counterTypes(monitor), (std::map<std::string, std::int32_t>{{"c", 0}}));
}

TEST_F(Merge, OfASampleWithoutCountersChangesNothing) {
    SNMPNodePerfomanceMonitor monitor;
    CounterMap target = {{"c", integers(1, 2, 3, 4)}};
    mergeStats(monitor, {}, target);
    EXPECT_EQ(partsOf(target["c"]), partsOf(integers(1, 2, 3, 4)));
    EXPECT_TRUE(counterTypes(monitor).empty());
}

}  // namespace
}  // namespace kx::test
