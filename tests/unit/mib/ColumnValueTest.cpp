#include "mib/ColumnValue.h"

#include <gmock/gmock.h>

#include <limits>

#include "Varbinds.h"

namespace {

using kx::test::bytesOf;
using kx::test::numberOf;

ColumnValue fromString(std::uint8_t type, const std::string& text) {
    ColumnValue value(type);
    value.setFromString(text);
    return value;
}

ColumnValue fromInt32(std::uint8_t type, std::int32_t number) {
    ColumnValue value(type);
    value.setInt32(number);
    return value;
}

std::int64_t whole(const ColumnValue& value) {
    return std::int64_t{value.getHigh()} * 0x100000000 + static_cast<std::uint32_t>(value.getLow());
}

class NumberType : public testing::TestWithParam<unsigned> {
protected:
    std::uint8_t type() const { return static_cast<std::uint8_t>(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(All, NumberType,
                         testing::Values(ASN_INTEGER, ASN_IPADDRESS, ASN_COUNTER, ASN_UNSIGNED, ASN_TIMETICKS,
                                         ASN_COUNTER64));

class OtherType : public testing::TestWithParam<unsigned> {
protected:
    std::uint8_t type() const { return static_cast<std::uint8_t>(GetParam()); }
};

// 68 and 71 stand just outside the range of the application types that hold numbers.
INSTANTIATE_TEST_SUITE_P(All, OtherType,
                         testing::Values(0U, ASN_BIT_STR, ASN_OCTET_STR, ASN_NULL, ASN_OBJECT_ID, 63U, ASN_OPAQUE, 69U,
                                         71U, 255U));

TEST(ColumnValue, DefaultMadeHasNoValue) {
    const ColumnValue value;
    EXPECT_TRUE(value.isNull());
    EXPECT_EQ(value.getType(), ASN_NULL);
}

TEST(ColumnValue, MadeFromATypeAloneIsEmpty) {
    const ColumnValue value(ASN_COUNTER64);
    EXPECT_FALSE(value.isNull());
    EXPECT_EQ(value.getType(), ASN_COUNTER64);
    EXPECT_EQ(whole(value), 0);
    EXPECT_EQ(value.getText(), "");
}

TEST(ColumnValue, CopiesOwnTheirText) {
    ColumnValue value = fromString(ASN_OCTET_STR, "before");
    const ColumnValue copy = value;
    value.setFromString("after");
    EXPECT_EQ(copy.getText(), "before");
}

TEST_P(NumberType, TakesA32BitNumberAndClearsTheHighHalf) {
    ColumnValue value(type());
    value.setInt64(-1);
    value.setInt32(7);
    EXPECT_EQ(value.getLow(), 7);
    EXPECT_EQ(value.getHigh(), 0);
    value.setInt32(-7);
    EXPECT_EQ(value.getLow(), -7);
    EXPECT_EQ(value.getHigh(), 0);
}

TEST_P(NumberType, TakesBothHalvesOfA64BitNumber) {
    ColumnValue value(type());
    value.setInt64(0x1234567890abcdef);
    EXPECT_EQ(static_cast<std::uint32_t>(value.getLow()), 0x90abcdefU);
    EXPECT_EQ(value.getHigh(), 0x12345678);
    value.setInt64(std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(value.getLow(), 0);
    EXPECT_EQ(value.getHigh(), std::numeric_limits<std::int32_t>::min());
}

TEST_P(OtherType, IgnoresNumbers) {
    ColumnValue value(type());
    value.setInt32(7);
    value.setInt64(0x700000007);
    EXPECT_EQ(whole(value), 0);
}

TEST_P(OtherType, StoresATextOnlyWhenItIsAText) {
    ColumnValue value(type());
    value.setFromString("12");
    EXPECT_EQ(value.getText(), type() == ASN_OCTET_STR ? "12" : "");
    EXPECT_EQ(whole(value), 0);
}

TEST_P(NumberType, NeverStoresAText) {
    EXPECT_EQ(fromString(type(), "12").getText(), "");
}

TEST(ColumnValueFromString, ReadsADecimalNumber) {
    for (const unsigned type : {unsigned{ASN_INTEGER}, unsigned{ASN_COUNTER}, unsigned{ASN_UNSIGNED},
                                unsigned{ASN_TIMETICKS}, unsigned{ASN_COUNTER64}}) {
        const auto tag = static_cast<std::uint8_t>(type);
        EXPECT_EQ(whole(fromString(tag, "42")), 42);
        EXPECT_EQ(whole(fromString(tag, "-42")), -42);
        EXPECT_EQ(whole(fromString(tag, " \t\n+42")), 42) << "leading blanks are skipped";
        EXPECT_EQ(whole(fromString(tag, "2.6")), 2) << "reading stops at the first non-digit";
        EXPECT_EQ(whole(fromString(tag, "12abc")), 12);
        EXPECT_EQ(whole(fromString(tag, "0x10")), 0) << "decimal only";
        EXPECT_EQ(whole(fromString(tag, "010")), 10) << "decimal only";
        EXPECT_EQ(whole(fromString(tag, "")), 0);
        EXPECT_EQ(whole(fromString(tag, "abc")), 0);
    }
}

TEST(ColumnValueFromString, KeepsTheLow32BitsOfALongNumberInA32BitType) {
    const ColumnValue value = fromString(ASN_UNSIGNED, "4294967298");
    EXPECT_EQ(value.getLow(), 2);
    EXPECT_EQ(numberOf(*value.toVariable()), 2);
}

TEST(ColumnValueFromString, ReplacesAnEarlierNumber) {
    ColumnValue value = fromString(ASN_COUNTER64, "4294967298");
    value.setFromString("none");
    EXPECT_EQ(whole(value), 0);
}

TEST(ColumnValueFromString, KeepsATextByteForByte) {
    const std::string text("a\0b \xff", 5);
    EXPECT_EQ(fromString(ASN_OCTET_STR, text).getText(), text);
}

TEST(ColumnValueFromString, HoldsAnAddressInHostOrder) {
    const ColumnValue value = fromString(ASN_IPADDRESS, "10.1.2.3");
    EXPECT_EQ(value.getLow(), 0x0a010203);
    EXPECT_EQ(value.getHigh(), 0);
}

TEST(ColumnValueFromString, MakesAllOnesOfWhatIsNoAddress) {
    for (const char* text : {"", "web.example", "10.0.0.256", "10.0.0.1.2", "fe80::1", "255.255.255.255"}) {
        const ColumnValue value = fromString(ASN_IPADDRESS, text);
        EXPECT_EQ(value.getLow(), -1) << text;
        EXPECT_EQ(value.getHigh(), 0) << text;
        EXPECT_EQ(bytesOf(*value.toVariable()), "\xff\xff\xff\xff") << text;
    }
}

TEST(ColumnValueToVariable, SignExtendsNumbersToANativeLong) {
    for (const unsigned type : {unsigned{ASN_INTEGER}, unsigned{ASN_UNSIGNED}}) {
        const auto tag = static_cast<std::uint8_t>(type);
        for (const std::int32_t number :
             {0, 1, -1, std::numeric_limits<std::int32_t>::max(), std::numeric_limits<std::int32_t>::min()}) {
            const VarbindPtr variable = fromInt32(tag, number).toVariable();
            EXPECT_EQ(variable->type, tag);
            EXPECT_EQ(variable->val_len, sizeof(long));
            EXPECT_EQ(numberOf(*variable), long{number});
        }
    }
}

TEST(ColumnValueToVariable, PutsAnAddressInNetworkOrderIntoFourBytes) {
    const VarbindPtr variable = fromString(ASN_IPADDRESS, "192.168.0.1").toVariable();
    EXPECT_EQ(variable->type, ASN_IPADDRESS);
    EXPECT_EQ(bytesOf(*variable), std::string("\xc0\xa8\0\x01", 4));
}

TEST(ColumnValueToVariable, CopiesTextsOfEveryLength) {
    // 40 bytes is where the library leaves the variable's own buffer.
    for (const std::size_t length : {0U, 1U, 39U, 40U, 41U, 4000U}) {
        const std::string text(length, 'x');
        const VarbindPtr variable = fromString(ASN_OCTET_STR, text).toVariable();
        EXPECT_EQ(variable->type, ASN_OCTET_STR);
        EXPECT_EQ(variable->val_len, length);
        EXPECT_EQ(bytesOf(*variable), text);
    }
    const std::string withNul("a\0b", 3);
    EXPECT_EQ(bytesOf(*fromString(ASN_OCTET_STR, withNul).toVariable()), withNul);
}

TEST(ColumnValueToVariable, SignExtendsEachHalfOfACounter64) {
    ColumnValue value(ASN_COUNTER64);
    value.setInt64(static_cast<std::int64_t>(0x80000001fffffffeU));
    const VarbindPtr variable = value.toVariable();
    EXPECT_EQ(variable->type, ASN_COUNTER64);
    EXPECT_EQ(variable->val_len, sizeof(counter64));
    EXPECT_EQ(variable->val.counter64->high, 0xffffffff80000001U);
    EXPECT_EQ(variable->val.counter64->low, 0xfffffffffffffffeU);
}

TEST(ColumnValueToVariable, KeepsTheTypeButNoValueOfOtherTypes) {
    for (const unsigned type : {unsigned{ASN_NULL}, unsigned{ASN_COUNTER}, unsigned{ASN_TIMETICKS}}) {
        const auto tag = static_cast<std::uint8_t>(type);
        const VarbindPtr variable = fromInt32(tag, 7).toVariable();
        EXPECT_EQ(variable->type, tag);
        EXPECT_EQ(variable->val_len, 0U);
    }
}

TEST(ColumnValueToVariable, MakesAVariableWithoutANameAndWithoutANext) {
    const VarbindPtr variable = fromInt32(ASN_INTEGER, 1).toVariable();
    EXPECT_EQ(variable->name, nullptr);
    EXPECT_EQ(variable->name_length, 0U);
    EXPECT_EQ(variable->next_variable, nullptr);
}

}  // namespace
