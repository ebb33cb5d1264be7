#include "ctl/events/EventFilter.h"

#include <gmock/gmock.h>

#include <boost/make_shared.hpp>

#include "ctl/ExitCode.h"

namespace kx::ctl {
namespace {

KXLEvent alert(std::int32_t code) {
    const auto data = boost::make_shared<KXLResourceAlertData>();
    data->alertCode = code;
    return {KXLResourceAlertData::category, data};
}

KXLEvent change(KXLEnvironmentChangeData::Kind kind, std::int32_t state) {
    const auto data = boost::make_shared<KXLEnvironmentChangeData>();
    data->kind = kind;
    data->state = state;
    return {KXLEnvironmentChangeData::category, data};
}

ContainerName web() {
    ContainerName name;
    name.veid = 101;
    name.name = "web-1";
    return name;
}

bool matches(const std::vector<std::string>& conditions, const KXLEvent& event,
             const std::optional<ContainerName>& about = web()) {
    return EventFilter(conditions).matches(event, about);
}

TEST(EventFilter, PassesEverythingWithoutConditions) {
    EXPECT_TRUE(matches({}, alert(2)));
    EXPECT_TRUE(matches({}, KXLEvent("something new", nullptr), std::nullopt));
}

TEST(EventFilter, TellsKindsSeveritiesChangesAndStatesApart) {
    const KXLEvent removed = change(KXLEnvironmentChangeData::Kind::Removed, 3);
    EXPECT_TRUE(matches({"kind=alert"}, alert(2)));
    EXPECT_FALSE(matches({"kind=alert"}, removed));
    EXPECT_TRUE(matches({"severity=critical"}, alert(2)));
    EXPECT_FALSE(matches({"severity=critical"}, alert(1)));
    EXPECT_FALSE(matches({"severity=critical"}, removed));
    EXPECT_TRUE(matches({"change=removed"}, removed));
    EXPECT_FALSE(matches({"change=added"}, removed));
    EXPECT_TRUE(matches({"state=frozen"}, removed));
    EXPECT_FALSE(matches({"state=running"}, removed));
    EXPECT_FALSE(matches({"state=frozen"}, alert(2)));
}

TEST(EventFilter, FindsContainersByNumberNameIdentifierAndPattern) {
    for (const char* const word :
         {"ve=101", "ve=web-1", "ve=10?", "ve=web*", "ve=00000000-0000-0000-0000-000000000000"}) {
        EXPECT_TRUE(matches({word}, alert(2))) << word;
    }
    EXPECT_FALSE(matches({"ve=web"}, alert(2)));
    EXPECT_FALSE(matches({"ve=host"}, alert(2)));
    EXPECT_FALSE(matches({"ve=*"}, alert(2), std::nullopt));
    ContainerName host;
    host.isHost = true;
    EXPECT_TRUE(matches({"ve=host"}, alert(2), host));
}

TEST(EventFilter, TakesValuesOfOneKeyAsAlternativesAndAllKeysTogether) {
    EXPECT_TRUE(matches({"severity=warning", "severity=critical"}, alert(2)));
    EXPECT_FALSE(matches({"severity=critical", "ve=db"}, alert(2)));
    EXPECT_TRUE(matches({"severity=critical", "ve=db", "ve=web-1"}, alert(2)));
}

TEST(EventFilter, NamesTheWordThatItDoesNotUnderstand) {
    for (const auto& [condition, words] : std::vector<std::pair<std::string, std::string>>{
             {"severe", "severe is not of the form KEY=VALUE"},
             {"ve=", "ve= is not of the form KEY=VALUE"},
             {"colour=red", "colour is none of kind, severity, change, state, ve"},
             {"severity=bad", "--filter severity: bad is none of clear, warning, critical"}}) {
        try {
            const EventFilter filter({condition});
            ADD_FAILURE() << condition;
        } catch (const Failure& failure) {
            EXPECT_EQ(failure.code(), ExitCode::WrongUsage);
            EXPECT_THAT(failure.what(), testing::HasSubstr(words));
        }
    }
}

}  // namespace
}  // namespace kx::ctl
