#include "ctl/top/TopView.h"

#include <gmock/gmock.h>

#include <boost/make_shared.hpp>

#include "ctl/view/TextWidth.h"

namespace kx::ctl {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

const Painter kPlain(false);

TopView viewOf(std::size_t containers) {
    TopView view;
    view.time = "2026-01-02 03:04:05.678";
    view.timeMs = 7;
    for (std::size_t at = 0; at < containers; ++at) {
        TopRow row;
        row.environment.veid = static_cast<std::int32_t>(at);
        row.environment.name = "ve" + std::to_string(at) + "-\x1b\xe6\x97\xa5";
        row.environment.state = 2;
        row.rates = NetworkRates{2048, 0, 5, 0};
        row.space = QuotaUse{90, 0, 100, 0};
        view.rows.push_back(row);
    }
    return view;
}

TEST(TopView, FillsNoMoreThanTheTerminal) {
    TopView view = viewOf(40);
    view.alerts = {"an alert that is longer than the terminal of this test is wide, by far indeed", "second"};
    for (std::size_t columns = 1; columns < 100; columns += 3) {
        for (std::size_t rows = 1; rows < 50; ++rows) {
            const auto lines = topScreen(view, {columns, rows}, kPlain);
            EXPECT_LE(lines.size(), rows);
            for (const std::string& line : lines) {
                EXPECT_LE(widthOf(line), columns);
            }
        }
    }
}

TEST(TopView, ShowsRatesAndABar) {
    EXPECT_THAT(topScreen(viewOf(1), {90, 24}, kPlain)[3],
                testing::MatchesRegex(" *0  ve0-.*  running  2\\.0K +0 +5 +0 +90  \\[#########\\.\\]  90%"));
}

TEST(TopView, GivesUpTheBarThenPacketsBeforeNames) {
    TopView view = viewOf(1);
    view.rows[0].environment.name = "a-name-that-is-long";
    EXPECT_THAT(topScreen(view, {90, 24}, kPlain)[3], HasSubstr("a-name-that-is-long  running"));
    EXPECT_THAT(topScreen(view, {90, 24}, kPlain)[3], HasSubstr("[#"));
    EXPECT_THAT(topScreen(view, {80, 24}, kPlain)[3],
                testing::MatchesRegex(" *0  a-name-that-is-long  running  2\\.0K +0 +5 +0 +90 +90%"));
    EXPECT_THAT(topScreen(view, {64, 24}, kPlain)[3],
                testing::MatchesRegex(" *0  a-name-that-is-long  running  2\\.0K +0 +90 +90%"));
    EXPECT_THAT(topScreen(view, {50, 24}, kPlain)[3],
                testing::MatchesRegex(" *0  a-na.*…  running  2\\.0K +0 +90 +90%"));
}

TEST(TopView, SaysWhichRowsAreShown) {
    TopView view = viewOf(1000);
    view.firstRow = 15;
    EXPECT_THAT(topScreen(view, {80, 24}, kPlain)[1], testing::StartsWith("16-30 of 1000, by in   "));
    view.search = "99";
    view.firstRow = 0;
    EXPECT_THAT(topScreen(view, {80, 24}, kPlain)[1], testing::StartsWith("1-15 of 19 with 99, by in   "));
    view.search = "no such";
    EXPECT_THAT(topScreen(view, {80, 24}, kPlain)[1], testing::StartsWith("0-0 of 0 with \"no such\", by in   "));
}

TEST(TopView, FindsNumbersAndNamesInEitherCase) {
    TopView view = viewOf(12);
    view.rows[3].environment.name = "Web-Front";
    view.search = "web";
    EXPECT_THAT(foundRows(view), testing::ElementsAre(&view.rows[3]));
    view.search = "11";
    EXPECT_THAT(foundRows(view), testing::ElementsAre(&view.rows[11]));
    view.search = "";
    EXPECT_THAT(foundRows(view), SizeIs(12));
}

TEST(TopView, ShowsTheKeysInsteadOfTheRows) {
    TopView view = viewOf(1);
    view.isHelp = true;
    const auto lines = topScreen(view, {80, 24}, kPlain);
    EXPECT_THAT(lines, testing::Contains(HasSubstr("Home, End")));
    EXPECT_THAT(lines, testing::Each(Not(HasSubstr("ve0"))));
    EXPECT_THAT(topScreen(view, {20, 5}, kPlain), SizeIs(5));
}

TEST(TopView, EscapesWhatAContainerIsCalled) {
    for (const std::string& line : topScreen(viewOf(1), {90, 24}, kPlain)) {
        EXPECT_THAT(line, Not(HasSubstr("\x1b")));
    }
}

TEST(TopView, HasTheLatestAlertsAtTheBottom) {
    TopView view = viewOf(40);
    for (int at = 0; at < 20; ++at) {
        view.alerts.push_back("alert " + std::to_string(at));
    }
    const auto lines = topScreen(view, {80, 24}, kPlain);
    ASSERT_THAT(lines, SizeIs(24));
    EXPECT_EQ(lines[18], "Latest alerts");
    EXPECT_EQ(lines[19], "alert 15");
    EXPECT_EQ(lines[23], "alert 19");
}

TEST(TopView, GivesASmallTerminalToTheContainers) {
    EXPECT_EQ(topRowsThatFit({80, 7}), 4U);
    EXPECT_EQ(topRowsThatFit({80, 24}), 15U);
    EXPECT_EQ(topRowsThatFit({80, 2}), 0U);
}

TEST(TopView, ShowsWhatItIsScrolledTo) {
    TopView view = viewOf(40);
    view.firstRow = 39;
    const auto lines = topScreen(view, {80, 24}, kPlain);
    EXPECT_THAT(lines[3], HasSubstr("39  ve39"));
    EXPECT_EQ(lines[4], "");
}

TEST(TopView, SaysWhyValuesAreOld) {
    TopView view = viewOf(1);
    view.trouble = "the agent is away";
    EXPECT_EQ(topScreen(view, {80, 24}, kPlain)[1], "the agent is away");
    EXPECT_THAT(topText(view, kPlain)[1], HasSubstr("away"));
}

TEST(TopView, MarksTheColumnThatItIsSortedBy) {
    TopView view = viewOf(1);
    view.order = TopOrder::Quota;
    EXPECT_THAT(topScreen(view, {90, 24}, Painter(true))[2], HasSubstr("\x1b[7mQUOTA\x1b[0m"));
}

TEST(TopView, HasExactNumbersInJson) {
    TopView view = viewOf(1);
    view.rows[0].environment.name = "web";
    Json alert;
    alert.put("code", 2);
    view.alertsAsJson = {alert};
    EXPECT_EQ(topJson(view).line(),
              R"({"time_ms":7,"sorted_by":"in","containers":[{"eid":"00000000-0000-0000-0000-000000000000","veid":0,)"
              R"("name":"web","state":2,"state_name":"running","per_second":{"bytes_in":2048,"bytes_out":0,)"
              R"("packets_in":5,"packets_out":0},"diskspace":{"used":90,"softlimit":0,"hardlimit":100,"grace":0,)"
              R"("percent":90}}],"alerts":[{"code":2}]})");
}

TEST(TopView, SaysThatTheUseOfSpaceIsNotKnown) {
    TopView view = viewOf(1);
    view.rows[0].space = QuotaUse{std::nullopt, 0, 100, 0};
    EXPECT_THAT(topScreen(view, {90, 24}, kPlain)[3], testing::MatchesRegex(".* +unknown  -"));
    EXPECT_THAT(topJson(view).line(),
                HasSubstr(R"("diskspace":{"used":"unknown","softlimit":0,"hardlimit":100,"grace":0})"));
}

TEST(TopView, SaysHowManyAlertsItLeavesOut) {
    TopView view = viewOf(1);
    EXPECT_THAT(topJson(view).line(), Not(HasSubstr("left_out")));
    view.alertsLeftOut = 17;
    EXPECT_THAT(topJson(view).line(), HasSubstr(R"("alerts":[],"alerts_left_out":17})"));
    EXPECT_THAT(topText(view, kPlain), testing::Contains("(17 more alerts are left out)"));
}

TEST(TopView, HasAlertsInShort) {
    KXLResourceAlertData alert;
    alert.alertCode = 2;
    alert.alertText = "full\n";
    KXLEvent event;
    ContainerName web;
    web.veid = 101;
    web.name = "web";
    EXPECT_EQ(topAlertLine(event, alert, web), "-  critical  101 web  full\\n");
    alert.alertValue = 7;
    event.setTimeMs(1'700'000'000'123);
    EXPECT_THAT(topAlertLine(event, alert, std::nullopt),
                testing::MatchesRegex("[0-9][0-9]:[0-9][0-9]:20  critical  -  full\\\\n \\(7\\)"));
}

}  // namespace
}  // namespace kx::ctl
