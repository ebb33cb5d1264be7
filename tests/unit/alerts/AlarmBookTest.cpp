#include "agent/alerts/AlarmBook.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/alerts/Alerts.h"

namespace kx::agent {
namespace {

using test::clearOf;
using test::eidOf;
using test::signalOf;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

bool always(const Eid&) {
    return true;
}

AlertSignal initial(AlertSignal signal) {
    signal.initial = true;
    return signal;
}

TEST(AlarmBook, AnAlarmIsRaisedUntilItsSourceClearsIt) {
    AlarmBook book;
    EXPECT_TRUE(book.take(signalOf("oom", 7)));
    EXPECT_TRUE(book.holds(signalOf("oom").about));
    const auto clears = book.clearsFor(always, AlarmBook::kGoneText);
    ASSERT_THAT(clears, SizeIs(1));
    EXPECT_EQ(clears[0].code, kAlertClear);
    EXPECT_EQ(clears[0].value, 7);
    EXPECT_EQ(clears[0].key(), signalOf("oom").key());
    EXPECT_TRUE(book.take(clears[0]));
    EXPECT_TRUE(book.empty());
    EXPECT_TRUE(book.take(clearOf("over"))) << "a clear of nothing is reported too";
}

TEST(AlarmBook, WhatNobodyCouldClearIsNotRemembered) {
    AlarmBook book;
    EXPECT_TRUE(book.take(signalOf("oom"), false));
    EXPECT_TRUE(book.empty());
}

TEST(AlarmBook, AnInitialStateCountsOnlyWhereItDiffers) {
    AlarmBook book;
    EXPECT_FALSE(book.take(initial(clearOf("over"))));
    book.restore({signalOf("oom")});
    EXPECT_FALSE(book.take(initial(signalOf("oom"))));
    EXPECT_THAT(book.clearsForRestored(always, ""), IsEmpty()) << "its source has found it";
    EXPECT_TRUE(book.take(initial(clearOf("over"))));
    EXPECT_TRUE(book.empty());
    EXPECT_TRUE(book.take(initial(signalOf("oom"))));
    EXPECT_FALSE(book.empty());
}

TEST(AlarmBook, WhatWasRestoredAndNotFoundAgainIsKnown) {
    AlarmBook book;
    book.restore({signalOf("oom")});
    book.take({eidOf("another"), "source", kAlertWarning, "new", 0});
    const auto clears = book.clearsForRestored(always, AlarmBook::kStoppedText);
    ASSERT_THAT(clears, SizeIs(1));
    EXPECT_EQ(clears[0].about, signalOf("oom").about);
    EXPECT_THAT(book.raised(), SizeIs(2));
}

}  // namespace
}  // namespace kx::agent
