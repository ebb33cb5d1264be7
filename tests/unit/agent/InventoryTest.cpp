#include "agent/inventory/Inventory.h"

#include "agent/inventory/Numbers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

#include "tests/unit/agent/Bodies.h"
#include "wire/Protocol.h"

namespace kx::agent {
namespace {

using test::container;
using test::deltasIn;
using test::hostOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::vector<std::string> namesIn(const Inventory& inventory) {
    std::vector<std::string> names;
    for (const Environment& environment : inventory.environments()) {
        names.push_back(environment.name);
    }
    return names;
}

std::vector<wire::SnapshotChunk> chunksOf(Inventory& inventory) {
    std::vector<wire::SnapshotChunk> chunks;
    for (const FrameBody& body : inventory.snapshot()->all()) {
        chunks.push_back(test::decode(body).snapshot_chunk());
    }
    return chunks;
}

std::vector<std::string> changedNames(const wire::Delta& delta) {
    std::vector<std::string> names;
    for (const auto& environment : delta.changed()) {
        names.push_back(environment.configuration().name());
    }
    return names;
}

TEST(Inventory, StartsWithTheHostAloneInGeneration1) {
    Inventory inventory(hostOf());
    EXPECT_EQ(inventory.generation(), 1U);
    const auto chunks = chunksOf(inventory);
    ASSERT_EQ(chunks.size(), 1U);
    EXPECT_EQ(chunks[0].generation(), 1U);
    EXPECT_EQ(chunks[0].index(), 0U);
    EXPECT_TRUE(chunks[0].last());
    ASSERT_EQ(chunks[0].environments_size(), 1);
    EXPECT_EQ(chunks[0].environments(0).type(), "host");
}

TEST(Inventory, NothingNewIsNoNewGeneration) {
    Inventory inventory(hostOf());
    EXPECT_THAT(inventory.apply({}), IsEmpty());
    inventory.apply({container("a"), container("b")});
    EXPECT_EQ(inventory.generation(), 2U);
    EXPECT_THAT(inventory.apply({container("a"), container("b")}), IsEmpty());
    EXPECT_THAT(inventory.apply({container("b"), container("a")}), IsEmpty()) << "known ones keep their place";
    EXPECT_EQ(inventory.generation(), 2U);
    EXPECT_THAT(namesIn(inventory), ElementsAre("the host", "a", "b"));
}

TEST(Inventory, ADeltaSaysWhatWentWhatChangedAndWhatCame) {
    Inventory inventory(hostOf());
    inventory.apply({container("a"), container("b"), container("c")});
    Environment changed = container("c");
    changed.state = 3;
    const auto deltas = deltasIn(inventory.apply({container("d"), changed, container("b"), container("e")}));
    ASSERT_EQ(deltas.size(), 1U);
    EXPECT_EQ(deltas[0].generation(), 3U);
    EXPECT_THAT(deltas[0].removed_eids(), ElementsAre(container("a").eid.toWire()));
    EXPECT_THAT(changedNames(deltas[0]), ElementsAre("c", "d", "e"));
    EXPECT_EQ(deltas[0].changed(0).state(), 3);
    EXPECT_THAT(namesIn(inventory), ElementsAre("the host", "b", "c", "d", "e"));
    EXPECT_EQ(inventory.environments()[2].state, 3);
}

TEST(Inventory, EveryFieldCountsAsAChange) {
    std::vector<Environment> variants(12, container("a"));
    variants[0].type = "other";
    variants[1].state = -1;
    variants[2].transition = 9;
    variants[3].name = "A";
    variants[4].veid = 7;
    variants[5].hostname = "";
    variants[6].description = "";
    variants[7].osTemplate = Template{"", ""};
    variants[8].baseSample = Eid();
    variants[9].addresses.emplace();
    variants[10].templates.emplace();
    variants[11].templates = {Template{"n", "v"}};
    for (const Environment& variant : variants) {
        Inventory inventory(hostOf());
        inventory.apply({container("a")});
        const auto deltas = deltasIn(inventory.apply({variant}));
        ASSERT_EQ(deltas.size(), 1U);
        EXPECT_EQ(deltas[0].changed_size(), 1);
    }
}

TEST(Inventory, KnownOnesAreFoundAgainAfterOthersHaveGone) {
    Inventory inventory(hostOf());
    inventory.apply({container("a"), container("b"), container("c"), container("d")});
    inventory.apply({container("b"), container("d")});
    Environment changed = container("d");
    changed.veid = 4;
    const auto deltas = deltasIn(inventory.apply({container("b"), changed, container("a")}));
    ASSERT_EQ(deltas.size(), 1U);
    EXPECT_THAT(deltas[0].removed_eids(), IsEmpty());
    EXPECT_THAT(changedNames(deltas[0]), ElementsAre("d", "a"));
    EXPECT_THAT(namesIn(inventory), ElementsAre("the host", "b", "d", "a"));
}

TEST(Inventory, TheHostNeverGoesNorChanges) {
    Inventory inventory(hostOf());
    Environment impostor = container("impostor");
    impostor.eid = hostOf().eid;
    EXPECT_THAT(inventory.apply({impostor}), IsEmpty());
    EXPECT_THAT(inventory.apply({}), IsEmpty());
    EXPECT_EQ(inventory.environments().front(), hostOf());
}

TEST(Inventory, OfSeveralWithOneIdentifierTheFirstCountsAndItIsLoggedOnce) {
    Inventory inventory(hostOf());
    Environment second = container("second");
    second.eid = container("first").eid;
    testing::internal::CaptureStderr();
    inventory.apply({container("first"), second, second});
    inventory.apply({container("first"), second});
    const std::string logged = testing::internal::GetCapturedStderr();
    EXPECT_THAT(namesIn(inventory), ElementsAre("the host", "first"));
    EXPECT_EQ(std::count(logged.begin(), logged.end(), '\n'), 1) << logged;
    EXPECT_THAT(logged, HasSubstr(second.eid.toString()));

    testing::internal::CaptureStderr();
    inventory.apply({container("first")});
    inventory.apply({container("first"), second});
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("second")) << "after it was mended it is news again";
}

TEST(Inventory, SnapshotsAreCutIntoChunksOfAThousand) {
    Inventory inventory(hostOf());
    std::vector<Environment> containers;
    for (int i = 0; i < 2500; ++i) {
        containers.push_back(container("c" + std::to_string(i)));
    }
    inventory.apply(containers);
    const auto chunks = chunksOf(inventory);
    ASSERT_EQ(chunks.size(), 3U);
    EXPECT_EQ(chunks[0].environments_size(), 1000);
    EXPECT_EQ(chunks[1].environments_size(), 1000);
    EXPECT_EQ(chunks[2].environments_size(), 501);
    for (std::uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(chunks[i].index(), i);
        EXPECT_EQ(chunks[i].generation(), 2U);
        EXPECT_EQ(chunks[i].last(), i == 2);
    }
    EXPECT_EQ(chunks[2].environments(500).configuration().name(), "c2499");
}

TEST(Inventory, ExactlyAThousandAreOneChunk) {
    Inventory inventory(hostOf());
    std::vector<Environment> containers;
    for (int i = 0; i < 999; ++i) {
        containers.push_back(container(std::to_string(i)));
    }
    inventory.apply(containers);
    EXPECT_EQ(inventory.snapshot()->all().size(), 1U);
}

TEST(Inventory, ASnapshotIsSharedWhileItIsHeldAndMadeAnewForTheNextGeneration) {
    Inventory inventory(hostOf());
    const auto held = inventory.snapshot()->all();
    EXPECT_EQ(inventory.snapshot()->all(), held);
    inventory.apply({container("a")});
    EXPECT_NE(inventory.snapshot()->all()[0], held[0]);
}

TEST(Inventory, LargeTextsAreSpreadOverFramesThatStayBelowTheLimit) {
    Inventory inventory(hostOf());
    std::vector<Environment> containers;
    for (int i = 0; i < 30; ++i) {
        containers.push_back(container(std::to_string(i)));
        containers.back().description = std::string(1024 * 1024, 'x');
    }
    const auto bodies = inventory.apply(containers).plain;
    ASSERT_GT(bodies.size(), 1U);
    std::vector<std::string> names;
    std::uint64_t generation = 1;
    for (const FrameBody& body : bodies) {
        ASSERT_TRUE(body);
        EXPECT_LT(body->size(), wire::kMaxFrameBytes);
        const wire::Delta delta = test::decode(body).delta();
        EXPECT_EQ(delta.generation(), ++generation);
        for (const auto& environment : delta.changed()) {
            names.push_back(environment.configuration().name());
        }
    }
    EXPECT_EQ(inventory.generation(), generation);
    EXPECT_EQ(names.size(), 30U);
    EXPECT_EQ(names.back(), "29");
    EXPECT_GT(inventory.snapshot()->all().size(), 1U);
    EXPECT_TRUE(chunksOf(inventory).back().last());
}

TEST(Inventory, AnEnvironmentTooLargeForAFrameIsLeftOutAndTheOthersAreThere) {
    Inventory inventory(hostOf());
    Environment huge = container("huge");
    huge.templates.emplace(1000, Template{std::string(10000, 'n'), ""});
    testing::internal::CaptureStderr();
    inventory.apply({huge, container("small")});
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("\"huge\""));
    EXPECT_THAT(namesIn(inventory), ElementsAre("the host", "small"));
}

TEST(Inventory, TextsAndListsArriveByteForByte) {
    Environment odd = container(std::string("a\0\"\xff\n", 5));
    odd.veid = -1;
    odd.hostname = "";
    odd.description = std::string(4000, 'd');
    odd.osTemplate = Template{"debian", "12"};
    odd.baseSample = Eid::parse("0f8e5c1a-7a44-4c3b-9d1e-0000000000aa");
    odd.addresses = {Address{"10.0.0.1", "not a mask"}};
    odd.templates.emplace();
    Inventory inventory(hostOf());
    inventory.apply({odd});
    const auto chunks = chunksOf(inventory);
    const wire::Environment& sent = chunks[0].environments(1);
    const wire::Configuration& configuration = sent.configuration();
    EXPECT_EQ(sent.eid(), odd.eid.toWire());
    EXPECT_EQ(configuration.name(), odd.name);
    EXPECT_EQ(configuration.veid(), -1);
    EXPECT_TRUE(configuration.has_hostname());
    EXPECT_EQ(configuration.description(), *odd.description);
    EXPECT_EQ(configuration.os_template().version(), "12");
    EXPECT_EQ(configuration.base_sample(), odd.baseSample->toWire());
    EXPECT_EQ(configuration.addresses().addresses(0).mask(), "not a mask");
    EXPECT_TRUE(configuration.has_templates()) << "an empty list is not a missing one";
    EXPECT_EQ(configuration.templates().templates_size(), 0);
    EXPECT_FALSE(chunks[0].environments(0).configuration().has_addresses());
    EXPECT_FALSE(chunks[0].environments(0).configuration().has_veid());
}

TEST(Inventory, TellsWhatBecameOfEachEnvironmentInTheOrderOfTheDelta) {
    Inventory inventory(hostOf());
    Environment gone = container("a");
    gone.state = 2;
    inventory.apply({gone, container("b"), container("c")});
    Environment changed = container("c");
    changed.state = 3;
    changed.transition = 4;
    std::vector<EnvironmentChange> changes;
    inventory.apply({container("d"), changed, container("b")}, &changes);
    EXPECT_THAT(changes, ElementsAre(EnvironmentChange{gone.eid, ChangeKind::Removed, "a", 2, 0},
                                     EnvironmentChange{changed.eid, ChangeKind::Modified, "c", 3, 4},
                                     EnvironmentChange{container("d").eid, ChangeKind::Added, "d", 0, 0}));
    changes.clear();
    inventory.apply({container("d"), changed, container("b")}, &changes);
    EXPECT_THAT(changes, IsEmpty());
}

TEST(Inventory, AnyDifferenceIsAModification) {
    Inventory inventory(hostOf());
    Environment one = container("a");
    inventory.apply({one});
    const auto isModified = [&] {
        std::vector<EnvironmentChange> changes;
        inventory.apply({one}, &changes);
        return changes.size() == 1 && changes[0].kind == ChangeKind::Modified;
    };
    one.description = "";
    EXPECT_TRUE(isModified());
    one.addresses = std::vector<Address>();
    EXPECT_TRUE(isModified());
    one.veid = 0;
    EXPECT_TRUE(isModified());
    EXPECT_FALSE(isModified());
}

TEST(Inventory, FindsTheFirstEnvironmentOfANumber) {
    Inventory inventory(hostOf());
    Environment one = container("a");
    Environment other = container("b");
    one.veid = other.veid = -5;
    inventory.apply({container("none"), one, other});
    EXPECT_EQ(inventory.findByNumber(-5), one.eid);
    EXPECT_EQ(inventory.findByNumber(0), std::nullopt) << "no number is not the number 0";
}

TEST(Inventory, TakesTenThousandContainersQuickly) {
    std::vector<Environment> containers;
    for (int i = 0; i < 10000; ++i) {
        containers.push_back(container("container " + std::to_string(i)));
    }
    Inventory inventory(hostOf());
    inventory.apply(containers);
    containers[5000].state = 7;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(inventory.apply(containers).size(), 1U);
    // Comparing each with each would take many seconds, also in a sanitized build.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST(Inventory, LargeContainersShareChunksAsFarAsTheyFit) {
    Inventory inventory(hostOf());
    std::vector<Environment> containers;
    for (int i = 0; i < 40; ++i) {
        containers.push_back(container(std::to_string(i)));
        containers.back().description = std::string(1000 * 1000, 'd');
    }
    const auto deltas = inventory.apply(containers);
    EXPECT_EQ(deltas.size(), 10U);
    EXPECT_EQ(inventory.snapshot()->size(), 10U);
}

// ---- environments that are gone ----

TEST(Inventory, WhatSomethingIsOutstandingAboutStaysDepartedForThoseWhoKnowThat) {
    Inventory inventory(hostOf());
    inventory.apply({container("a"), container("b"), container("c")});
    std::vector<EnvironmentChange> changes;
    const auto isA = [](const Eid& eid) { return eid == container("a").eid; };
    const auto deltas = inventory.apply({container("c")}, &changes, isA);
    EXPECT_EQ(changes.size(), 2U) << "both are gone";
    ASSERT_EQ(deltas.size(), 1U);
    const wire::Delta plain = test::decode(deltas.plain[0]).delta();
    EXPECT_EQ(plain.removed_eids_size(), 2);
    EXPECT_EQ(plain.changed_size(), 0);
    const wire::Delta aware = test::decode(deltas.withDeparted[0]).delta();
    EXPECT_EQ(aware.generation(), plain.generation());
    EXPECT_EQ(aware.removed_eids_size(), 1);
    ASSERT_EQ(aware.changed_size(), 1);
    EXPECT_TRUE(aware.changed(0).departed());
    EXPECT_EQ(aware.changed(0).eid(), container("a").eid.toWire());
    EXPECT_FALSE(inventory.contains(container("a").eid));
    EXPECT_NE(inventory.find(container("a").eid), nullptr);
    EXPECT_EQ(test::decode(inventory.snapshot(false)->chunk(0)).snapshot_chunk().environments_size(), 2);
    EXPECT_EQ(test::decode(inventory.snapshot(true)->chunk(0)).snapshot_chunk().environments_size(), 3);

    EXPECT_TRUE(inventory.release(isA).empty());
    const auto last = inventory.release([](const Eid&) { return false; });
    ASSERT_EQ(last.size(), 1U);
    EXPECT_EQ(test::decode(last.withDeparted[0]).delta().removed_eids_size(), 1);
    EXPECT_EQ(test::decode(last.plain[0]).delta().removed_eids_size(), 0);
    EXPECT_EQ(test::decode(last.plain[0]).delta().generation(), inventory.generation());
    EXPECT_EQ(inventory.find(container("a").eid), nullptr);
}

TEST(Inventory, ASnapshotThatIsBeingSentStaysAsItWasTaken) {
    Inventory inventory(hostOf());
    inventory.apply({container("a")});
    const auto snapshot = inventory.snapshot();
    inventory.apply({});
    EXPECT_EQ(test::decode(snapshot->chunk(0)).snapshot_chunk().environments_size(), 2);
}

TEST(Numbers, WhoTakesAnothersNumberAndWhoChangesItsOwnIsRenumbered) {
    const auto numbered = [](const std::string& name, std::optional<std::int32_t> number) {
        Environment made = container(name);
        made.veid = number;
        return made;
    };
    const Eid a = container("a").eid;
    const Eid b = container("b").eid;
    const Eid c = container("c").eid;
    Numbers numbers;
    EXPECT_TRUE(numbers.update({numbered("a", 1), numbered("b", 2)}).empty());
    EXPECT_EQ(numbers.update({numbered("a", 2), numbered("b", 1)}), (std::vector<Renumbered>{{a, b}, {b, a}}))
        << "they have swapped";
    EXPECT_EQ(numbers.update({numbered("a", 3), numbered("b", 1)}), (std::vector<Renumbered>{{a, std::nullopt}}));
    EXPECT_EQ(numbers.update({numbered("c", 3), numbered("b", 1)}), (std::vector<Renumbered>{{c, a}}));
    EXPECT_TRUE(numbers.update({numbered("c", 3), numbered("b", 1), numbered("a", 1)}).empty()) << "b has it still";
}

}  // namespace
}  // namespace kx::agent
