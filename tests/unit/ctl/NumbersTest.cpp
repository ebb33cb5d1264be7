#include "ctl/Numbers.h"

#include <gtest/gtest.h>

#include <limits>

#include "ctl/ExitCode.h"

namespace kx::ctl {
namespace {

constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();

std::string problemOf(const std::string& text, std::int64_t from = kLowest, std::int64_t to = kHighest) {
    try {
        readNumber("--n", text, from, to);
        return "none";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.code(), ExitCode::WrongUsage);
        return failure.what();
    }
}

TEST(Numbers, AreReadToTheirExtremes) {
    EXPECT_EQ(readNumber("--n", "-9223372036854775808", kLowest, kHighest), kLowest);
    EXPECT_EQ(readNumber("--n", "9223372036854775807", kLowest, kHighest), kHighest);
    EXPECT_EQ(readNumber("--n", "0", kLowest, kHighest), 0);
}

TEST(Numbers, AreDecimalWhateverTheyBeginWith) {
    EXPECT_EQ(readNumber("--n", "010", kLowest, kHighest), 10);
    EXPECT_EQ(problemOf("0x10"), "--n: 0x10 is no number");
}

TEST(Numbers, AreNothingElse) {
    for (const char* const text : {"", " 1", "1 ", "1.5", "one", "+1", "--1", "1e3"}) {
        EXPECT_NE(problemOf(text).find("is no number"), std::string::npos) << text;
    }
}

TEST(Numbers, StayWithinTheirRange) {
    EXPECT_EQ(problemOf("5", 1, 4), "--n: 5 is outside of 1 to 4");
    EXPECT_EQ(problemOf("0", 1, 4), "--n: 0 is outside of 1 to 4");
    EXPECT_EQ(problemOf("4", 1, 4), "none");
    EXPECT_NE(problemOf("9223372036854775808").find("is outside of"), std::string::npos);
    EXPECT_NE(problemOf("-99999999999999999999").find("is outside of"), std::string::npos);
}

TEST(Numbers, MayHaveAFractionWhereThatIsAskedFor) {
    EXPECT_EQ(readDecimal("--interval", "0.5", 0.1, 10), 0.5);
    EXPECT_EQ(readDecimal("--interval", "10", 0.1, 10), 10);
    for (const char* const wrong : {"0.09", "10.1", "-1", "nan", "inf", "1.5s", "", "1,5"}) {
        EXPECT_THROW(readDecimal("--interval", wrong, 0.1, 10), Failure) << wrong;
    }
}

TEST(Times, AreHowLongAgoOrLocal) {
    constexpr std::time_t kNow = 1'700'000'000;
    EXPECT_EQ(readSince("--since", "90s", kNow), 1'699'999'910U);
    EXPECT_EQ(readSince("--since", "10m", kNow), 1'699'999'400U);
    EXPECT_EQ(readSince("--since", "2h", kNow), 1'699'992'800U);
    EXPECT_EQ(readSince("--since", "1d", kNow), 1'699'913'600U);
    std::tm parts{};
    ::localtime_r(&kNow, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    EXPECT_EQ(readSince("--since", text, kNow), 1'700'000'000U);
    EXPECT_EQ(readSince("--since", text + 11, kNow), 1'700'000'000U);
    EXPECT_EQ(readSince("--since", std::string(text, 16), kNow), 1'700'000'000U - static_cast<unsigned>(parts.tm_sec));
    for (const char* const wrong : {"", "s", "10", "-1s", "1.5h", "10x", "24:61", "2100-01-01 00:00", "9999999999d"}) {
        EXPECT_THROW(readSince("--since", wrong, kNow), Failure) << wrong;
    }
}

TEST(Words, AreAmongThoseThatThereAre) {
    EXPECT_EQ(readWord("--sort", "b", {"a", "b"}), 1U);
    EXPECT_THROW(readWord("--sort", "c", {"a", "b"}), Failure);
}

}  // namespace
}  // namespace kx::ctl
