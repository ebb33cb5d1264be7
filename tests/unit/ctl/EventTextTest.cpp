#include "ctl/events/EventText.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>
#include <cstdlib>
#include <ctime>
#include <limits>

namespace kx::ctl {
namespace {

constexpr std::uint64_t kTime = 1'700'000'000'123;

class EventText : public testing::Test {
protected:
    EventText() { setZone("UTC"); }
    ~EventText() override {
        ::unsetenv("TZ");
        ::tzset();
    }

    static void setZone(const char* zone) {
        ::setenv("TZ", zone, 1);
        ::tzset();
    }

    static KXLEvent alert(std::int32_t code, const std::string& text, std::int64_t value) {
        const auto data = boost::make_shared<KXLResourceAlertData>();
        data->alertCode = code;
        data->alertText = text;
        data->alertValue = value;
        KXLEvent event(KXLResourceAlertData::category, data);
        event.setTimeMs(kTime);
        return event;
    }

    static KXLEvent change(KXLEnvironmentChangeData::Kind kind, std::int32_t state, std::int32_t transition) {
        const auto data = boost::make_shared<KXLEnvironmentChangeData>();
        data->kind = kind;
        data->state = state;
        data->transition = transition;
        KXLEvent event(KXLEnvironmentChangeData::category, data);
        event.setTimeMs(kTime);
        return event;
    }

    static ContainerName container(std::optional<std::int32_t> veid, std::optional<std::string> name) {
        ContainerName made;
        EXPECT_EQ(made.eid.fromString("0f8e5c1a-7a44-4c3b-9d1e-000000000101"), 0);
        made.veid = veid;
        made.name = std::move(name);
        return made;
    }

    /// The line from the third column on.
    static std::string rest(const KXLEvent& event, const std::optional<ContainerName>& about) {
        return textLine(event, about).substr(33);
    }
};

TEST_F(EventText, HasTimeKindContainerSeverityValueAndText) {
    EXPECT_EQ(textLine(alert(2, "out of memory", 7), container(101, "web")),
              "2023-11-14 22:13:20.123  alert   101 web               critical  7  out of memory");
    EXPECT_EQ(textLine(change(KXLEnvironmentChangeData::Kind::Added, 2, 0), container(101, "web")),
              "2023-11-14 22:13:20.123  change  101 web               running   -  added");
}

TEST_F(EventText, HasTheTimeOfWhereItIsRead) {
    setZone("Asia/Kolkata");
    EXPECT_EQ(localTime(kTime), "2023-11-15 03:43:20.123");
}

TEST_F(EventText, HasTimesThatAreOdd) {
    EXPECT_EQ(localTime(0), "-");
    EXPECT_EQ(localTime(1), "1970-01-01 00:00:00.001");
    EXPECT_EQ(localTime(1000), "1970-01-01 00:00:01.000");
    EXPECT_EQ(localTime(std::numeric_limits<std::uint64_t>::max()), "584556019-04-03 14:25:51.615");
}

TEST_F(EventText, HasWordsForTheKnownSeveritiesAndNumbersForOthers) {
    EXPECT_EQ(rest(alert(0, "", 0), container(1, "a")), "1 a                   clear     0");
    EXPECT_EQ(rest(alert(1, "", 0), container(1, "a")), "1 a                   warning   0");
    EXPECT_EQ(rest(alert(3, "", 0), container(1, "a")), "1 a                   3         0");
    EXPECT_EQ(rest(alert(-1, "", 0), container(1, "a")), "1 a                   -1        0");
    EXPECT_EQ(rest(alert(std::numeric_limits<std::int32_t>::min(), "", std::numeric_limits<std::int64_t>::min()),
                   container(1, "a")),
              "1 a                   -2147483648  -9223372036854775808");
}

TEST_F(EventText, HasWordsForStatesTransitionsAndChanges) {
    using Kind = KXLEnvironmentChangeData::Kind;
    const auto state = [](std::int32_t number, std::int32_t transition, Kind kind) {
        return rest(change(kind, number, transition), container(1, "a")).substr(22);
    };
    EXPECT_EQ(state(0, 0, Kind::Unknown), "unknown   -  unknown");
    EXPECT_EQ(state(1, 1, Kind::Modified), "stopped,starting  -  modified");
    EXPECT_EQ(state(3, 0, Kind::Removed), "frozen    -  removed");
    EXPECT_EQ(state(4, 6, Kind::Modified), "4,6       -  modified");
    EXPECT_EQ(state(-1, -1, Kind::Modified), "-1,-1     -  modified");
}

TEST_F(EventText, NamesContainersAsFarAsTheyAreKnown) {
    const auto column = [](const std::optional<ContainerName>& about) {
        const std::string line = rest(alert(0, "", 0), about);
        return line.substr(0, line.find("  "));
    };
    const std::string eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000101";
    EXPECT_EQ(column(container(-7, "web")), "-7 web");
    EXPECT_EQ(column(container(101, "")), "101");
    EXPECT_EQ(column(container(101, std::nullopt)), "101");
    EXPECT_EQ(column(container(std::nullopt, "web")), eid + " web");
    EXPECT_EQ(column(container(std::nullopt, std::nullopt)), eid);
    EXPECT_EQ(column(std::nullopt), "-");
    ContainerName host = container(std::nullopt, "the machine");
    host.isHost = true;
    EXPECT_EQ(column(host), "host");
}

TEST_F(EventText, EscapesWhatComesFromOutside) {
    EXPECT_EQ(rest(alert(1, "a\nb\x1b[2J\xff", 0), container(1, "x\ny  critical")),
              "1 \"x\\ny  critical\"    warning   0  a\\nb\\x1b[2J\\xff");
}

TEST_F(EventText, ShowsThatAnEventOfAnUnknownKindCame) {
    EXPECT_EQ(textLine(KXLEvent("new\nkind", nullptr), std::nullopt),
              "-  new\\nkind  -                     -         -  (what it says is not known here)");
}

}  // namespace
}  // namespace kx::ctl
