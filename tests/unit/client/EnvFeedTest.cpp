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
    EXPECT_EQ(feed.take(chunkOf(5, 1, false, {})), Outcome::Pending);
    EXPECT_EQ(feed.take(chunkOf(5, 2, true, {2})), Outcome::Updated);
    EXPECT_EQ(numbersOf(feed), (std::vector<int>{3, 1, 2}));
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

}  // namespace
}  // namespace kx::client
