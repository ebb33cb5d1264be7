#include "ctl/events/EventJson.h"

#include <gmock/gmock.h>

#include <boost/make_shared.hpp>
#include <limits>

namespace kx::ctl {
namespace {

KXLEvent alert(std::int32_t code, std::int64_t value, const std::string& text) {
    const auto data = boost::make_shared<KXLResourceAlertData>();
    data->alertCode = code;
    data->alertValue = value;
    data->alertText = text;
    KXLEvent event(KXLResourceAlertData::category, data);
    event.setTimeMs(1'700'000'000'123);
    return event;
}

ContainerName web() {
    ContainerName made;
    EXPECT_EQ(made.eid.fromString("0f8e5c1a-7a44-4c3b-9d1e-000000000101"), 0);
    made.veid = 101;
    made.name = "web";
    return made;
}

TEST(EventJson, HasEverythingOfAnAlert) {
    EXPECT_EQ(eventJson(alert(2, 7, "full"), web()).line(),
              R"({"kind":"alert","time_ms":1700000000123,"eid":"0f8e5c1a-7a44-4c3b-9d1e-000000000101","host":false,)"
              R"("veid":101,"name":"web","code":2,"severity":"critical","value":7,"text":"full"})");
}

TEST(EventJson, HasEverythingOfAChange) {
    const auto data = boost::make_shared<KXLEnvironmentChangeData>();
    data->kind = KXLEnvironmentChangeData::Kind::Modified;
    data->state = 2;
    data->transition = 3;
    EXPECT_EQ(eventJson(KXLEvent(KXLEnvironmentChangeData::category, data), web()).line(),
              R"({"kind":"change","eid":"0f8e5c1a-7a44-4c3b-9d1e-000000000101","host":false,"veid":101,"name":"web",)"
              R"("change":"modified","state":2,"state_name":"running","transition":3,"transition_name":"freezing"})");
}

TEST(EventJson, LeavesOutWhatIsNotKnown) {
    ContainerName unknown = web();
    unknown.veid.reset();
    unknown.name.reset();
    unknown.isHost = true;
    KXLEvent event = alert(7, 0, "");
    event.setTimeMs(0);
    EXPECT_EQ(
        eventJson(event, unknown).line(),
        R"({"kind":"alert","eid":"0f8e5c1a-7a44-4c3b-9d1e-000000000101","host":true,"code":7,"value":0,"text":""})");
}

TEST(EventJson, KeepsNumbersAndBytesExact) {
    const KXLEvent event =
        alert(std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int64_t>::min(), "a\xff");
    const std::string line = eventJson(event, std::nullopt).line();
    EXPECT_THAT(line, testing::HasSubstr(R"("code":-2147483648,)"));
    EXPECT_THAT(line, testing::HasSubstr(R"("value":-9223372036854775808,)"));
    EXPECT_THAT(line, testing::HasSubstr(R"("text_base64":"Yf8=")"));
}

TEST(EventJson, GivesTheExactBytesOfANameToo) {
    ContainerName odd = web();
    odd.name = "\xff";
    EXPECT_THAT(eventJson(alert(0, 0, ""), odd).line(), testing::HasSubstr(R"("name_base64":"/w==")"));
}

TEST(EventJson, ShowsThatAnEventOfAnUnknownKindCame) {
    EXPECT_EQ(eventJson(KXLEvent("new kind", nullptr), std::nullopt).line(), R"({"kind":"new kind"})");
}

}  // namespace
}  // namespace kx::ctl
