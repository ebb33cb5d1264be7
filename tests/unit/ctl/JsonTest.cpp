#include "ctl/Json.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>

namespace kx::ctl {
namespace {

std::string lineWith(std::string_view text) {
    Json object;
    object.putText("text", text);
    return object.line();
}

TEST(Json, HasTextsThatAreUtf8AsTheyAre) {
    EXPECT_EQ(lineWith(""), R"({"text":""})");
    EXPECT_EQ(lineWith("\xC3\xBC"), "{\"text\":\"\xC3\xBC\"}");
}

TEST(Json, StaysOnOneLineWhateverTheTextIs) {
    EXPECT_EQ(lineWith(std::string("a\0\n\"\\", 5)), R"({"text":"a\u0000\n\"\\"})");
}

TEST(Json, GivesTheExactBytesOfATextThatIsNoUtf8) {
    EXPECT_EQ(lineWith("a\xFF"), "{\"text\":\"a\xEF\xBF\xBD\",\"text_base64\":\"Yf8=\"}");
}

// RFC 4648, section 10, with a byte in front that makes them no UTF-8; and all digits.
TEST(Json, WritesBase64WithItsPadding) {
    const auto encoded = [](std::string_view bytes) {
        Json object;
        object.putText("t", bytes);
        return nlohmann::json::parse(object.line())["t_base64"].get<std::string>();
    };
    EXPECT_EQ(encoded("\xFF"), "/w==");
    EXPECT_EQ(encoded("\xFF\xFE"), "//4=");
    EXPECT_EQ(encoded("\xFF\xFE\xFD"), "//79");
    EXPECT_EQ(encoded("\xFF"
                      "foobar"),
              "/2Zvb2Jhcg==");
    EXPECT_EQ(encoded(std::string("\xFF\0\0\0", 4)), "/wAAAA==");
    EXPECT_EQ(encoded("\xFB\xEF\xBE\x01"), "++++AQ==");
}

TEST(Json, KeepsNumbersExact) {
    Json object;
    object.put("low", std::numeric_limits<std::int64_t>::min());
    object.put("high", std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(object.line(), R"({"low":-9223372036854775808,"high":18446744073709551615})");
}

TEST(Json, NestsAndKeepsTheOrderOfKeys) {
    Json list = Json::array();
    Json element;
    element.put("z", true);
    element.put("a", 0.5);
    list.add(element);
    Json object;
    object.put("list", list);
    object.put("none", Json::array());
    object.put("word", "w");
    const Json copy = object;
    object.put("word", "changed");
    EXPECT_EQ(copy.line(), R"({"list":[{"z":true,"a":0.5}],"none":[],"word":"w"})");
}

}  // namespace
}  // namespace kx::ctl
