#include "client/src/cache/EnvFeed.h"

#include <gtest/gtest.h>

#include "tests/support/MakeEnv.h"

namespace kx::client {
namespace {

using Outcome = EnvFeed::Outcome;
using test::wireEnv;

wire::SnapshotChunk chunkOf(std::uint64_t generation, std::uint32_t index, bool last, std::vector<int> numbers) {
    wire::SnapshotChunk chunk;
    chunk.set_generation(generation);
    chunk.set_index(index);
    chunk.set_last(last);
    for (const int number : numbers) {
        *chunk.add_environments() = wireEnv(number);
    }
    return chunk;
}

wire::Delta deltaOf(std::uint64_t generation, std::vector<int> changed, std::vector<int> removed = {}) {
    wire::Delta delta;
    delta.set_generation(generation);
    for (const int number : changed) {
        *delta.add_changed() = wireEnv(number);
        delta.mutable_changed(delta.changed_size() - 1)->set_state(static_cast<int>(generation));
    }
    for (const int number : removed) {
        delta.add_removed_eids(wireEnv(number).eid());
    }
    return delta;
}

std::vector<int> numbersOf(const EnvFeed& feed) {
    std::vector<int> numbers;
    for (const auto& env : feed.current()->environments) {
        numbers.push_back(env->getEID().bytes()[15]);
    }
    return numbers;
}

class EnvFeedAfterASnapshot : public testing::Test {
protected:
    EnvFeedAfterASnapshot() { EXPECT_EQ(feed.take(chunkOf(5, 0, true, {1, 2, 3})), Outcome::Updated); }
    EnvFeed feed;
};

TEST(EnvFeed, PutsASnapshotTogetherFromItsChunks) {
    EnvFeed feed;
    EXPECT_EQ(feed.take(chunkOf(5, 0, false, {3, 1})), Outcome::Pending);
    EXPECT_FALSE(feed.current());
    EXPECT_EQ(feed.take(chunkOf(5, 1, false, {7})), Outcome::Pending);
    EXPECT_EQ(feed.take(chunkOf(5, 2, true, {2})), Outcome::Updated);
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{3, 1, 7, 2}));
}

TEST(EnvFeed, TakesAnEmptySnapshot) {
    EnvFeed feed;
    EXPECT_EQ(feed.take(chunkOf(1, 0, true, {})), Outcome::Updated);
    EXPECT_TRUE(feed.current()->environments.empty());
}

TEST(EnvFeed, RefusesChunksOutOfOrder) {
    EXPECT_EQ(EnvFeed().take(chunkOf(5, 1, true, {1})), Outcome::Malformed);
    EnvFeed skipped;
    skipped.take(chunkOf(5, 0, false, {1}));
    EXPECT_EQ(skipped.take(chunkOf(5, 2, true, {2})), Outcome::Malformed);
    EnvFeed mixed;
    mixed.take(chunkOf(5, 0, false, {1}));
    EXPECT_EQ(mixed.take(chunkOf(6, 1, true, {2})), Outcome::Malformed);
    EXPECT_NE(mixed.reason(), "");
}

TEST(EnvFeed, RefusesAChunkWithTooManyEnvironments) {
    EXPECT_EQ(EnvFeed().take(chunkOf(5, 0, true, std::vector<int>(wire::kMaxEnvironmentsPerChunk, 1))),
              Outcome::Updated);
    EXPECT_EQ(EnvFeed().take(chunkOf(5, 0, true, std::vector<int>(wire::kMaxEnvironmentsPerChunk + 1, 1))),
              Outcome::Malformed);
}

TEST(EnvFeed, RefusesAnEnvironmentWithoutAnIdentifier) {
    auto chunk = chunkOf(5, 0, true, {1});
    chunk.mutable_environments(0)->clear_eid();
    EXPECT_EQ(EnvFeed().take(chunk), Outcome::Malformed);
}

TEST(EnvFeed, IgnoresDeltasUntilTheSnapshotIsThere) {
    EnvFeed feed;
    EXPECT_EQ(feed.take(deltaOf(6, {1})), Outcome::Ignored);
    feed.take(chunkOf(5, 0, false, {1}));
    EXPECT_EQ(feed.take(deltaOf(6, {1})), Outcome::Ignored);
}

TEST_F(EnvFeedAfterASnapshot, AChangedEnvironmentKeepsItsPlaceAndTheOthersAreShared) {
    const auto before = feed.current();
    EXPECT_EQ(feed.take(deltaOf(6, {2})), Outcome::Updated);
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(feed.current()->environments[0], before->environments[0]);
    EXPECT_NE(feed.current()->environments[1], before->environments[1]);
    EXPECT_EQ(feed.current()->environments[1]->getStatus()->state, 6);
    EXPECT_EQ(before->environments[1]->getStatus()->state, 0);
    EXPECT_EQ(feed.current()->index, before->index);
}

TEST_F(EnvFeedAfterASnapshot, NewEnvironmentsAreAppendedAndGoneOnesRemoved) {
    EXPECT_EQ(feed.take(deltaOf(6, {9, 4}, {1})), Outcome::Updated);
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{2, 3, 9, 4}));
    EXPECT_EQ(feed.take(deltaOf(7, {4}, {2, 77})), Outcome::Updated);
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{3, 9, 4}));
    EXPECT_EQ(feed.current()->environments[2]->getStatus()->state, 7);
}

TEST_F(EnvFeedAfterASnapshot, AnEnvironmentAddedTwiceIsListedOnce) {
    EXPECT_EQ(feed.take(deltaOf(6, {9, 9})), Outcome::Updated);
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{1, 2, 3, 9}));
}

TEST_F(EnvFeedAfterASnapshot, ADeltaOfThePastIsIgnored) {
    EXPECT_EQ(feed.take(deltaOf(5, {9})), Outcome::Ignored);
    EXPECT_EQ(feed.take(deltaOf(4, {9})), Outcome::Ignored);
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{1, 2, 3}));
}

TEST_F(EnvFeedAfterASnapshot, AMissedGenerationAsksForANewSnapshot) {
    EXPECT_EQ(feed.take(deltaOf(7, {9})), Outcome::Gap);
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{1, 2, 3}));
    feed.expectSnapshot();
    EXPECT_EQ(feed.take(deltaOf(8, {9})), Outcome::Ignored);
    EXPECT_EQ(feed.take(chunkOf(8, 0, true, {9})), Outcome::Updated);
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{9}));
    EXPECT_EQ(feed.take(deltaOf(9, {1})), Outcome::Updated);
}

TEST_F(EnvFeedAfterASnapshot, ASnapshotNobodyAskedForIsRefused) {
    EXPECT_EQ(feed.take(chunkOf(6, 0, true, {1})), Outcome::Malformed);
}

TEST_F(EnvFeedAfterASnapshot, AMalformedDeltaChangesNothing) {
    auto delta = deltaOf(6, {1});
    delta.mutable_changed(0)->set_eid("short");
    EXPECT_EQ(feed.take(delta), Outcome::Malformed);
    delta = deltaOf(6, {}, {1});
    delta.add_removed_eids("short");
    EXPECT_EQ(feed.take(delta), Outcome::Malformed);
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{1, 2, 3}));
}

// ---- environments that are gone, but for alerts about them ----------------------------------------------------

wire::Environment departedEnv(int number) {
    auto env = wireEnv(number);
    env.set_departed(true);
    return env;
}

class DepartedEnvironments : public testing::Test {
protected:
    /// @return whether it is found by its identifier
    bool isFound(int number) const {
        const boost::intrusive_ptr<KXLEnvCache> cache(new KXLEnvCache);
        cache->store().publish(feed.current());
        return cache->getEnvCopy(test::makeEnv(wireEnv(number))->getEID()) != nullptr;
    }
    Outcome take(std::uint64_t generation, const std::vector<wire::Environment>& changed,
                 const std::vector<int>& removed = {}) {
        wire::Delta delta = deltaOf(generation, {}, removed);
        for (const auto& env : changed) {
            *delta.add_changed() = env;
        }
        return feed.take(delta);
    }

    EnvFeed feed;
};

TEST_F(DepartedEnvironments, OfASnapshotAreFoundAndNotListed) {
    auto chunk = chunkOf(1, 0, true, {1, 2});
    chunk.mutable_environments(0)->set_departed(true);
    ASSERT_EQ(feed.take(chunk), Outcome::Updated);
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{2}));
    EXPECT_TRUE(isFound(1));
    EXPECT_TRUE(isFound(2));
}

TEST_F(DepartedEnvironments, LeaveTheListAndStayUntilTheyAreRemoved) {
    ASSERT_EQ(feed.take(chunkOf(1, 0, true, {1, 2, 3})), Outcome::Updated);
    ASSERT_EQ(take(2, {departedEnv(2)}), Outcome::Updated);
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{1, 3}));
    EXPECT_TRUE(isFound(2));
    EXPECT_TRUE(isFound(3)) << "those behind it have moved";
    ASSERT_EQ(take(3, {wireEnv(1)}), Outcome::Updated);
    EXPECT_TRUE(isFound(2)) << "other changes leave it alone";
    ASSERT_EQ(take(4, {}, {2}), Outcome::Updated);
    EXPECT_FALSE(isFound(2));
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{1, 3}));
}

TEST_F(DepartedEnvironments, ThatAreBackAreListedAgain) {
    ASSERT_EQ(feed.take(chunkOf(1, 0, true, {1, 2})), Outcome::Updated);
    ASSERT_EQ(take(2, {departedEnv(1)}), Outcome::Updated);
    ASSERT_EQ(take(3, {wireEnv(1)}), Outcome::Updated);
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{2, 1}));
    ASSERT_EQ(take(4, {}, {1}), Outcome::Updated);
    EXPECT_FALSE(isFound(1));
}

TEST_F(DepartedEnvironments, OfOneDeltaAreWhatWasSaidLast) {
    ASSERT_EQ(feed.take(chunkOf(1, 0, true, {1})), Outcome::Updated);
    ASSERT_EQ(take(2, {departedEnv(1), wireEnv(1), wireEnv(2), departedEnv(2)}), Outcome::Updated);
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{1}));
    EXPECT_TRUE(isFound(2));
}

// ---- memory ---------------------------------------------------------------------------------------------------------

/// A chunk of as many environments as there may be, with texts of a size.
wire::SnapshotChunk largeChunk(std::uint32_t index, std::size_t textBytes) {
    auto chunk = chunkOf(1, index, false, {});
    for (std::size_t i = 0; i < wire::kMaxEnvironmentsPerChunk; ++i) {
        auto& env = *chunk.add_environments();
        env = wireEnv(static_cast<int>(index * wire::kMaxEnvironmentsPerChunk + i));
        env.mutable_configuration()->set_description(std::string(textBytes, 'x'));
    }
    return chunk;
}

TEST(EnvFeedMemory, EndsASnapshotThatTakesTooMuch) {
    EnvFeed feed;
    Outcome outcome = Outcome::Pending;
    std::uint32_t chunks = 0;
    while (outcome == Outcome::Pending && chunks < 100) {
        outcome = feed.take(largeChunk(chunks++, 4000));
    }
    EXPECT_EQ(outcome, Outcome::Malformed);
    EXPECT_EQ(feed.reason(), "a snapshot that would take too much memory");
    EXPECT_LE(chunks, 17U);
}

TEST(EnvFeedMemory, TakesWhatIsTheSameFromTheListBefore) {
    EnvFeed first;
    for (std::uint32_t index = 0; index < 10; ++index) {
        ASSERT_EQ(first.take(largeChunk(index, 4000)), Outcome::Pending);
    }
    ASSERT_EQ(first.take(chunkOf(1, 10, true, {})), Outcome::Updated);
    // Twice this list would be too much.
    EnvFeed second(first.current());
    auto changed = largeChunk(0, 4000);
    changed.mutable_environments(1)->set_state(7);
    ASSERT_EQ(second.take(changed), Outcome::Pending);
    for (std::uint32_t index = 1; index < 10; ++index) {
        ASSERT_EQ(second.take(largeChunk(index, 4000)), Outcome::Pending);
    }
    ASSERT_EQ(second.take(chunkOf(1, 10, true, {})), Outcome::Updated);
    EXPECT_EQ(second.current()->environments[0], first.current()->environments[0]);
    EXPECT_NE(second.current()->environments[1], first.current()->environments[1]);
    EXPECT_EQ(second.current()->environments[1]->getStatus()->state, 7);
}

TEST(EnvFeedMemory, EndsDeltasThatTakeTooMuch) {
    EnvFeed feed;
    ASSERT_EQ(feed.take(chunkOf(1, 0, true, {})), Outcome::Updated);
    Outcome outcome = Outcome::Updated;
    std::uint64_t generation = 1;
    while (outcome == Outcome::Updated && generation < 100) {
        wire::Delta delta = deltaOf(++generation, {});
        delta.mutable_changed()->CopyFrom(largeChunk(static_cast<std::uint32_t>(generation), 4000).environments());
        outcome = feed.take(delta);
    }
    EXPECT_EQ(outcome, Outcome::Malformed);
    EXPECT_EQ(feed.reason(), "a delta that would take too much memory");
}

TEST(EnvFeedMemory, RefusesEmptyChunksWithoutEnd) {
    EnvFeed feed;
    EXPECT_EQ(feed.take(chunkOf(1, 0, false, {})), Outcome::Malformed);
}

}  // namespace
}  // namespace kx::client
