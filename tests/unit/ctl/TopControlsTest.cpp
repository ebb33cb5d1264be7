#include "ctl/top/TopControls.h"

#include <gmock/gmock.h>

namespace kx::ctl {
namespace {

using Kind = TopKey::Kind;

constexpr std::size_t kPage = 10;

struct TopControls : testing::Test {
    TopControls() {
        for (int number = 0; number < 25; ++number) {
            TopRow row;
            row.environment.veid = number;
            row.environment.name = "ve-" + std::to_string(number);
            view.rows.push_back(row);
        }
    }

    bool take(const TopKey& key) { return takeTopKey(view, key, kPage); }

    void type(const std::string& text) {
        for (const char letter : text) {
            EXPECT_TRUE(take({Kind::Letter, letter}));
        }
    }

    TopView view;
};

TEST_F(TopControls, ScrollByLinePageAndToTheEnds) {
    take({Kind::Up});
    EXPECT_EQ(view.firstRow, 0U);
    take({Kind::Down});
    take({Kind::PageDown});
    EXPECT_EQ(view.firstRow, 11U);
    take({Kind::PageDown});
    EXPECT_EQ(view.firstRow, 15U);
    take({Kind::PageUp});
    EXPECT_EQ(view.firstRow, 5U);
    take({Kind::End});
    EXPECT_EQ(view.firstRow, 15U);
    take({Kind::Home});
    EXPECT_EQ(view.firstRow, 0U);
}

TEST_F(TopControls, ChooseTheColumnGoingRoundAndReverse) {
    view.order = TopOrder::Id;
    take({Kind::Left});
    EXPECT_EQ(view.order, TopOrder::Quota);
    take({Kind::Right});
    EXPECT_EQ(view.order, TopOrder::Id);
    type("r");
    EXPECT_EQ(view.rows.front().environment.veid, 24);
}

TEST_F(TopControls, EditTheSearch) {
    take({Kind::End});
    type("/q1\xC3\xA4");
    EXPECT_EQ(view.firstRow, 0U);
    type("\x7f");
    EXPECT_EQ(view.search, "q1");
    type("\b");
    EXPECT_EQ(view.search, "q");
    type("\n");
    EXPECT_FALSE(view.isSearching);
    EXPECT_EQ(view.search, "q");
    take({Kind::Escape});
    EXPECT_EQ(view.search, "");
    type("/x");
    take({Kind::Escape});
    EXPECT_FALSE(view.isSearching);
    EXPECT_EQ(view.search, "");
}

TEST_F(TopControls, StartEachSearchAnew) {
    type("/a\n/");
    EXPECT_EQ(view.search, "");
    EXPECT_TRUE(view.isSearching);
}

TEST_F(TopControls, ShowTheHelpUntilAnyKey) {
    type("?");
    EXPECT_TRUE(view.isHelp);
    EXPECT_TRUE(take({Kind::Letter, 'q'}));
    EXPECT_FALSE(view.isHelp);
}

TEST_F(TopControls, QuitByLetterOnly) {
    EXPECT_FALSE(take({Kind::Letter, 'q'}));
    EXPECT_TRUE(take({Kind::Letter, 'x'}));
    EXPECT_TRUE(take({Kind::Escape}));
}

TEST_F(TopControls, KeepTheLastPageFull) {
    view.firstRow = 24;
    keepInRange(view, kPage);
    EXPECT_EQ(view.firstRow, 15U);
    view.search = "no such";
    keepInRange(view, kPage);
    EXPECT_EQ(view.firstRow, 0U);
}

}  // namespace
}  // namespace kx::ctl
