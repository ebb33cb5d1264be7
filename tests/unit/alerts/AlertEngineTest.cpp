// Each rule of the engine by itself; AlertAccountTest.cpp has all of them at once.
#include "agent/alerts/AlertEngine.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "tests/unit/alerts/Alerts.h"

namespace kx::agent {
namespace {

using test::clearOf;
using test::eidOf;
using test::EngineWithClock;
using test::milliseconds;
using test::seconds;
using test::signalOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

AlertLimits limitsOf(double perSecond, std::uint32_t burst, milliseconds repeat = seconds(60)) {
    return {repeat, perSecond, burst};
}

/// Lets one alert through every 100 s, which is as good as never here, once the first has gone.
AlertLimits oneOnly() {
    return limitsOf(0.01, 1);
}

TEST(AlertEngine, TellsAnAlertAtOnceAndUnchanged) {
    EngineWithClock clock;
    const AlertSignal signal{eidOf("web"), "raised", std::numeric_limits<std::int32_t>::min(),
                             std::string("a\0\xff", 3), std::numeric_limits<std::int64_t>::max()};
    clock.take(signal);
    EXPECT_THAT(clock.told(), ElementsAre(Alert{signal, 0, seconds(0)}));
    clock.pass(std::chrono::hours(1));
    EXPECT_THAT(clock.texts(), IsEmpty());
}

TEST(AlertEngine, AnEmptyTextIsATextToo) {
    EngineWithClock clock;
    for (int i = 0; i < 3; ++i) {
        clock.take(signalOf(""));
    }
    clock.pass(seconds(60));
    EXPECT_THAT(clock.texts(), ElementsAre("", " (and 1 more)"));
}

// ---- the same alert again ----

TEST(AlertEngine, TellsTheSameAlertAgainWhenItsTimeIsOverWithTheLatestValueAndTheNumber) {
    EngineWithClock clock;
    clock.take(signalOf("oom", 1));
    for (int value = 2; value <= 5; ++value) {
        clock.pass(seconds(10));
        clock.take(signalOf("oom", value));
    }
    EXPECT_THAT(clock.texts(), ElementsAre("oom"));
    clock.pass(milliseconds(19'999));
    EXPECT_THAT(clock.texts(), IsEmpty());
    clock.pass(milliseconds(1));
    const auto told = clock.told();
    ASSERT_THAT(told, SizeIs(1));
    EXPECT_EQ(told[0].signal, signalOf("oom", 5));
    EXPECT_EQ(textOf(told[0]), "oom (and 3 more)");
    EXPECT_EQ(told[0].more, 3U);
    EXPECT_EQ(told[0].age, seconds(20)) << "the latest came 40 s after the first";
}

TEST(AlertEngine, OneThatWasCountedOnceIsToldAgainWithoutANumber) {
    EngineWithClock clock;
    clock.take(signalOf("oom", 1));
    clock.take(signalOf("oom", 2));
    clock.pass(seconds(60));
    const auto told = clock.told();
    ASSERT_THAT(told, SizeIs(2));
    EXPECT_EQ(told[1].signal, signalOf("oom", 2));
}

TEST(AlertEngine, TheTimeCountsFromEachTelling) {
    EngineWithClock clock;
    clock.take(signalOf("oom"));
    clock.pass(seconds(30));
    clock.take(signalOf("oom"));
    clock.pass(seconds(30));
    EXPECT_THAT(clock.texts(), SizeIs(2));
    clock.take(signalOf("oom"));
    clock.pass(milliseconds(59'999));
    EXPECT_THAT(clock.texts(), IsEmpty());
    clock.pass(milliseconds(1));
    EXPECT_THAT(clock.texts(), ElementsAre("oom"));
}

TEST(AlertEngine, AfterItsTimeAnAlertIsToldAtOnceAgain) {
    EngineWithClock clock;
    clock.take(signalOf("oom"));
    clock.pass(seconds(60));
    clock.take(signalOf("oom"));
    EXPECT_THAT(clock.texts(), ElementsAre("oom", "oom"));
}

TEST(AlertEngine, WhatDiffersInAnythingIsAnotherAlert) {
    EngineWithClock clock;
    clock.take(signalOf("oom"));
    clock.take(signalOf("ooms"));
    clock.take(signalOf("oom", 0, kAlertWarning));
    clock.take(signalOf("oom", 0, kAlertCritical, "database"));
    clock.take(signalOf("oom", 0, kAlertCritical, "web", "host.oom"));
    EXPECT_THAT(clock.texts(), SizeIs(5));
    clock.take(signalOf("oom", 7));
    EXPECT_THAT(clock.texts(), IsEmpty()) << "another value does not make it another alert";
}

TEST(AlertEngine, ARepeatThatIsNotHeldBackIsToldEachTime) {
    EngineWithClock clock(limitsOf(50, 100, milliseconds(0)));
    for (int i = 0; i < 3; ++i) {
        clock.take(signalOf("oom"));
    }
    EXPECT_THAT(clock.texts(), ElementsAre("oom", "oom", "oom"));
}

// ---- raised and cleared ----

TEST(AlertEngine, ARevokedAlertIsNotToldAgainButItsNumberIs) {
    EngineWithClock clock;
    clock.take(signalOf("oom", 1));
    clock.take(signalOf("oom", 2));
    clock.take(signalOf("oom", 3));
    clock.pass(seconds(20));
    clock.take(clearOf("over", 4));
    EXPECT_THAT(clock.texts(), ElementsAre("oom", "over"));
    clock.pass(seconds(40));
    EXPECT_THAT(clock.texts(), IsEmpty()) << "it would look raised";
    clock.pass(seconds(20));
    const auto told = clock.told();
    ASSERT_THAT(told, SizeIs(1));
    EXPECT_EQ(textOf(told[0]), "over (and 1 more)");
    EXPECT_EQ(told[0].signal, clearOf("over", 4)) << "for the two that were only counted";
}

TEST(AlertEngine, OneRaisedAgainWhileItsRepeatIsHeldBackIsToldInTheEnd) {
    EngineWithClock clock;
    clock.take(signalOf("low"));
    clock.take(clearOf("over"));
    clock.take(signalOf("low"));
    EXPECT_THAT(clock.texts(), ElementsAre("low", "over"));
    clock.pass(seconds(60));
    EXPECT_THAT(clock.texts(), ElementsAre("low"));
}

TEST(AlertEngine, WhatWaitsTakesOverTheNumberOfARevokedAlert) {
    EngineWithClock clock(limitsOf(0.1, 2, seconds(8)));
    clock.take(signalOf("low"));
    clock.take(signalOf("low"));
    clock.pass(seconds(5));
    clock.take(clearOf("over"));
    clock.take(signalOf("new", 0, kAlertWarning));
    EXPECT_THAT(clock.texts(), ElementsAre("low", "over"));
    clock.pass(seconds(5));
    EXPECT_THAT(clock.texts(), ElementsAre("new (and 1 more)"));
    clock.pass(seconds(100));
    EXPECT_THAT(clock.texts(), IsEmpty());
}

TEST(AlertEngine, AnotherTextOfTheSameCodeDoesNotRevokeAnAlert) {
    EngineWithClock clock;
    clock.take(signalOf("one", 1));
    clock.take(signalOf("one", 2));
    clock.take(signalOf("two"));
    clock.pass(seconds(60));
    EXPECT_THAT(clock.texts(), ElementsAre("one", "two", "one"));
}

// ---- too many at once ----

TEST(AlertEngine, TellsABurstAtOnceAndTheRestAtItsRate) {
    EngineWithClock clock;
    for (int i = 0; i < 150; ++i) {
        clock.take(signalOf("oom", i, kAlertCritical, fmt::format("ct{}", i)));
    }
    EXPECT_THAT(clock.texts(), SizeIs(100));
    EXPECT_EQ(clock.engine().status().waiting, 50U);
    clock.pass(milliseconds(500));
    EXPECT_THAT(clock.texts(), SizeIs(25));
    clock.pass(milliseconds(500));
    EXPECT_THAT(clock.texts(), SizeIs(25));
    EXPECT_EQ(clock.engine().status().waiting, 0U);
}

TEST(AlertEngine, TheLatestOfASourceWaitsForThoseItHasReplaced) {
    EngineWithClock clock(limitsOf(1, 1));
    clock.take(signalOf("first"));
    clock.take(signalOf("second", 2));
    clock.take(clearOf("third", 3));
    clock.pass(milliseconds(300));
    clock.take(signalOf("fourth", 4, kAlertWarning));
    clock.pass(seconds(1));
    const auto told = clock.told();
    ASSERT_THAT(told, SizeIs(2));
    EXPECT_EQ(told[1].signal, signalOf("fourth", 4, kAlertWarning));
    EXPECT_EQ(told[1].more, 2U);
    EXPECT_EQ(told[1].age, milliseconds(700));
}

TEST(AlertEngine, TheWaitingAreToldInTheOrderInWhichTheyBeganToWait) {
    EngineWithClock clock(limitsOf(1, 1));
    clock.take(signalOf("none waits", 0, kAlertCritical, "web"));
    clock.take(signalOf("a", 0, kAlertCritical, "b"));
    clock.take(signalOf("b", 0, kAlertCritical, "a"));
    clock.take(signalOf("c", 0, kAlertCritical, "a", "other"));
    clock.take(signalOf("a2", 0, kAlertCritical, "b"));
    clock.pass(seconds(10));
    EXPECT_THAT(clock.texts(), ElementsAre("none waits", "a2 (and 1 more)", "b", "c"));
}

TEST(AlertEngine, AFreshAlertDoesNotOvertakeThoseThatWait) {
    EngineWithClock clock(limitsOf(1, 1));
    clock.take(signalOf("first"));
    clock.take(signalOf("waits", 0, kAlertCritical, "a"));
    clock.jump(seconds(1));
    clock.take(signalOf("late", 0, kAlertCritical, "b"));
    EXPECT_THAT(clock.texts(), ElementsAre("first", "waits"));
}

TEST(AlertEngine, ARepeatNeedsItsTurnToo) {
    EngineWithClock clock(limitsOf(0.1, 1, seconds(1)));
    clock.take(signalOf("oom", 1));
    clock.take(signalOf("oom", 2));
    clock.take(signalOf("oom", 3));
    clock.pass(seconds(9));
    EXPECT_THAT(clock.texts(), ElementsAre("oom"));
    clock.take(signalOf("oom", 4));
    clock.pass(seconds(1));
    EXPECT_THAT(clock.texts(), ElementsAre("oom (and 2 more)"));
}

TEST(AlertEngine, OneThatHasBecomeTheSameAsTheLastToldIsCountedAndTakesNoTurn) {
    EngineWithClock clock(limitsOf(1, 1));
    clock.take(signalOf("oom", 1));
    clock.take(clearOf("over", 2));
    clock.take(signalOf("oom", 3));
    clock.take(signalOf("other", 0, kAlertCritical, "a"));
    clock.pass(seconds(1));
    EXPECT_THAT(clock.texts(), ElementsAre("oom", "other"));
    EXPECT_EQ(clock.engine().status().counted, 2U);
    clock.pass(seconds(60));
    const auto told = clock.told();
    ASSERT_THAT(told, SizeIs(1));
    EXPECT_EQ(told[0].signal, signalOf("oom", 3));
    EXPECT_EQ(told[0].more, 1U);
}

TEST(AlertEngine, OfTwoRepeatsThatCannotBeToldAtOnceTheLaterOneIs) {
    for (const bool lastIsFirst : {false, true}) {
        EngineWithClock clock(limitsOf(0.01, 3, seconds(1)));
        clock.take(signalOf("one", 1));
        clock.take(signalOf("two", 1));
        clock.take(signalOf("takes the last turn", 0, kAlertCritical, "database"));
        for (const std::int64_t value : {2, 3}) {
            clock.take(signalOf(lastIsFirst ? "two" : "one", value));
        }
        clock.pass(milliseconds(1));
        for (const std::int64_t value : {4, 5}) {
            clock.take(signalOf(lastIsFirst ? "one" : "two", value));
        }
        EXPECT_THAT(clock.texts(), SizeIs(3));
        clock.pass(seconds(200));
        const auto told = clock.told();
        ASSERT_THAT(told, SizeIs(1));
        EXPECT_EQ(told[0].signal, signalOf(lastIsFirst ? "one" : "two", 5));
        EXPECT_EQ(told[0].more, 3U);
    }
}

TEST(AlertEngine, ALateCallTellsNoMoreThanTheBurstAllows) {
    EngineWithClock clock(limitsOf(10, 5, milliseconds(100)));
    for (int i = 0; i < 100; ++i) {
        clock.take(signalOf("oom", i, kAlertCritical, fmt::format("ct{}", i)));
    }
    clock.texts();
    clock.jump(seconds(30));
    clock.advance();
    EXPECT_THAT(clock.texts(), SizeIs(5));
}

// ---- when to call ----

TEST(AlertEngine, WantsToBeCalledOnlyWhenThereIsSomethingToDo) {
    EngineWithClock clock(limitsOf(2, 1));
    EXPECT_FALSE(clock.engine().nextDeadline());
    const auto start = clock.now();
    clock.take(signalOf("oom"));
    EXPECT_EQ(clock.engine().nextDeadline(), start + seconds(60));
    clock.take(signalOf("oom", 0, kAlertCritical, "a"));
    EXPECT_EQ(clock.engine().nextDeadline(), start + milliseconds(500));
    clock.pass(seconds(61));
    EXPECT_FALSE(clock.engine().nextDeadline());
}

TEST(AlertEngine, OtherLimitsHoldForWhatHasBeenToldToo) {
    EngineWithClock clock;
    clock.take(signalOf("oom", 1));
    clock.take(signalOf("oom", 2));
    clock.pass(seconds(5));
    clock.setLimits(limitsOf(50, 100, seconds(5)));
    EXPECT_THAT(clock.texts(), ElementsAre("oom", "oom"));
}

TEST(AlertEngine, AnotherRateHoldsForThoseThatWaitAlready) {
    EngineWithClock clock(oneOnly());
    clock.take(signalOf("first"));
    clock.take(signalOf("waits"));
    clock.setLimits(limitsOf(2, 1));
    clock.pass(milliseconds(499));
    EXPECT_THAT(clock.texts(), ElementsAre("first"));
    clock.pass(milliseconds(1));
    EXPECT_THAT(clock.texts(), ElementsAre("waits"));
}

// ---- bounds ----

TEST(AlertEngine, ForgetsWhatWasToldWhenItsTimeIsOver) {
    EngineWithClock clock(limitsOf(100'000, 10'000));
    for (int i = 0; i < 10'000; ++i) {
        clock.take(signalOf("oom", 0, kAlertCritical, fmt::format("ct{}", i)));
    }
    EXPECT_EQ(clock.engine().entries(), 10'000U);
    clock.pass(seconds(60));
    EXPECT_EQ(clock.engine().entries(), 0U);
}

TEST(AlertEngine, BeyondItsBoundsItCountsInOneAlertAboutTheHostAndClearsThat) {
    EngineWithClock clock(limitsOf(1000, 1000), AlertBounds{3, 1000});
    for (int i = 0; i < 10; ++i) {
        clock.take(signalOf("oom", 0, kAlertCritical, fmt::format("ct{}", i)));
    }
    auto told = clock.told();
    ASSERT_THAT(told, SizeIs(4));
    EXPECT_EQ(told[3].signal,
              (AlertSignal{eidOf("host"), AlertEngine::kOverflowSource, kAlertWarning, AlertEngine::kOverflowText, 1}));
    clock.pass(seconds(60));
    told = clock.told();
    ASSERT_THAT(told, SizeIs(1));
    EXPECT_EQ(textOf(told[0]), std::string(AlertEngine::kOverflowText) + " (and 5 more)");
    EXPECT_EQ(told[0].signal.value, 7);
    clock.pass(seconds(60));
    told = clock.told();
    ASSERT_THAT(told, SizeIs(1));
    EXPECT_EQ(told[0].signal, (AlertSignal{eidOf("host"), AlertEngine::kOverflowSource, kAlertClear,
                                           AlertEngine::kOverflowEndText, 7}));
    clock.pass(seconds(60));
    EXPECT_EQ(clock.engine().entries(), 0U);
    for (int i = 0; i < 4; ++i) {
        clock.take(signalOf("oom", 0, kAlertCritical, fmt::format("ct{}", i)));
    }
    told = clock.told();
    ASSERT_THAT(told, SizeIs(4));
    EXPECT_EQ(told[0].signal.text, "oom");
    EXPECT_EQ(told[3].signal.value, 1) << "it counts anew";
}

TEST(AlertEngine, WhatIsKnownIsCountedEvenWhereThereIsNoRoomForMore) {
    EngineWithClock clock(limitsOf(1000, 1000), AlertBounds{1, 1000});
    clock.take(signalOf("oom"));
    clock.take(signalOf("oom"));
    EXPECT_THAT(clock.texts(), ElementsAre("oom"));
    clock.pass(seconds(60));
    EXPECT_THAT(clock.texts(), ElementsAre("oom"));
}

TEST(AlertEngine, LongTextsAreBoundedTogether) {
    EngineWithClock clock(limitsOf(1000, 1000), AlertBounds{1000, 1000});
    for (int i = 0; i < 10; ++i) {
        clock.take(signalOf(std::string(300, static_cast<char>('a' + i)), 0, kAlertCritical, "web", ""));
    }
    const auto told = clock.told();
    ASSERT_THAT(told, SizeIs(4));
    EXPECT_EQ(told[3].signal.text, AlertEngine::kOverflowText);
    clock.pass(seconds(300));
    clock.texts();
    clock.take(signalOf(std::string(1000, 'x'), 0, kAlertCritical, "web", ""));
    EXPECT_THAT(clock.texts(), ElementsAre(std::string(1000, 'x'))) << "what is forgotten takes no room";
}

TEST(AlertEngine, AWaitingAlertIsNotReplacedByOneThatThereIsNoRoomFor) {
    EngineWithClock clock(oneOnly(), AlertBounds{1000, 1000});
    clock.take(signalOf("first", 0, kAlertCritical, "a"));
    clock.take(signalOf("short"));
    clock.take(signalOf(std::string(2000, 'x')));
    EXPECT_EQ(clock.engine().status().waiting, 2U) << "the other one is about the host";
    clock.pass(seconds(100));
    EXPECT_THAT(clock.texts(), ElementsAre("first", "short"));
}

// ---- over a restart ----

TEST(AlertEngine, HandsOverWhatIsCountedAndWhatWaitsAsOneAlertOfEachSource) {
    AlertEngine engine(eidOf("host"), limitsOf(0.01, 1));
    AlertEngine::TimePoint now{};
    EXPECT_TRUE(engine.outstanding(now).empty());
    engine.take(signalOf("oom", 1), now);
    EXPECT_FALSE(engine.isOutstanding(signalOf("oom").about)) << "it was reported";
    now += seconds(1);
    engine.take(signalOf("oom", 2), now);
    engine.take(signalOf("oom", 3), now);
    engine.take(signalOf("other", 4), now + seconds(1));
    EXPECT_TRUE(engine.isOutstanding(signalOf("oom").about));
    EXPECT_FALSE(engine.isOutstanding(eidOf("nobody")));
    const auto outstanding = engine.outstanding(now + seconds(2));
    EXPECT_THAT(outstanding, ElementsAre(Alert{signalOf("other", 4), 2, seconds(1)}));

    AlertEngine fresh(eidOf("host"), {});
    EXPECT_THAT(fresh.restore(outstanding, now), ElementsAre(Alert{signalOf("other", 4), 2, seconds(1)}));
    EXPECT_EQ(fresh.status().signals, 3U);
    EXPECT_EQ(fresh.status().told, 3U);
}

TEST(AlertEngine, HandsOverNoRevokedAlertThatWouldLookRaised) {
    AlertEngine engine(eidOf("host"), {});
    const AlertEngine::TimePoint now{};
    engine.take(signalOf("oom"), now);
    engine.take(clearOf("over"), now);
    engine.take(signalOf("oom"), now);
    engine.take(clearOf("over"), now);
    const auto outstanding = engine.outstanding(now);
    ASSERT_THAT(outstanding, SizeIs(1));
    EXPECT_EQ(outstanding[0].signal.code, kAlertClear);
    EXPECT_EQ(outstanding[0].more, 1U);
}

// ---- bounds are of what is remembered now ----

TEST(AlertEngine, TextsThatAreForgottenTakeNoSpaceHoweverOftenThatHappens) {
    AlertEngine engine(eidOf("host"), limitsOf(0.01, 1), {100, 1000});
    AlertEngine::TimePoint now{};
    engine.take(signalOf("takes the only token"), now);
    for (int i = 0; i < 50; ++i) {
        engine.take(signalOf(std::string(i % 2 == 0 ? 400 : 10, 'x'), i), now);
    }
    EXPECT_EQ(engine.status().waitingSignals, 50U) << "each has replaced the one before";
    EXPECT_EQ(engine.entries(), 2U);
}

TEST(AlertEngine, AnAlertThatReplacesAWaitingOneTakesItsSpace) {
    AlertEngine engine(eidOf("host"), limitsOf(0.01, 2), {100, 1000});
    AlertEngine::TimePoint now{};
    const std::string one(300, 'a');
    const std::string two(300, 'b');
    for (int i = 0; i < 2; ++i) {
        engine.take(signalOf(one), now);
        engine.take(signalOf(two), now += seconds(1));
    }
    engine.advance(now += seconds(60));
    ASSERT_EQ(engine.status().waiting, 1U) << "the second has replaced the first, which was to be reported again too";
    engine.take({eidOf("other"), "source", kAlertCritical, std::string(600, 'y'), 0}, now);
    EXPECT_EQ(engine.status().waiting, 2U);
    EXPECT_FALSE(engine.isOutstanding(eidOf("host"))) << "there was space for it";
}

}  // namespace
}  // namespace kx::agent
