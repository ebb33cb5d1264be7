#include "agent/inventory/Eid.h"

#include <gtest/gtest.h>

namespace kx::agent {
namespace {

constexpr const char* kMachine = "0123456789abcdef0123456789abcdef";

TEST(Eid, OfANameStaysWhatItHasAlwaysBeen) {
    // Clients keep these for years. A change here is a change of every identifier of every host.
    EXPECT_EQ(Eid::fromName(kMachine, "host").toString(), "effcb26d-5713-5a10-bc57-341e27541fd6");
    EXPECT_EQ(Eid::fromName(kMachine, "lxc/101").toString(), "237a0ca8-e68f-57ef-a56f-40f48d21db59");
}

TEST(Eid, OfANameIsAUuidOfVersion5) {
    const Eid eid = Eid::fromName(kMachine, "host");
    EXPECT_EQ(eid.bytes[6] >> 4, 5);
    EXPECT_EQ(eid.bytes[8] >> 6, 2);
}

TEST(Eid, DiffersByMachineAndByName) {
    EXPECT_EQ(Eid::fromName("a", "b"), Eid::fromName("a", "b"));
    EXPECT_NE(Eid::fromName("a", "b"), Eid::fromName("a", "c"));
    EXPECT_NE(Eid::fromName("a", "b"), Eid::fromName("c", "b"));
    EXPECT_NE(Eid::fromName("ab", "c"), Eid::fromName("a", "bc"));
}

TEST(Eid, IsReadInEitherCaseAndShownInLowerCase) {
    const auto eid = Eid::parse("0F8E5C1A-7a44-4C3b-9d1e-0000000000FF");
    ASSERT_TRUE(eid);
    EXPECT_EQ(eid->toString(), "0f8e5c1a-7a44-4c3b-9d1e-0000000000ff");
    EXPECT_EQ(eid->bytes[0], 0x0f);
    EXPECT_EQ(eid->bytes[15], 0xff);
}

TEST(Eid, DefaultMadeIsTheNilUuid) {
    EXPECT_EQ(Eid().toString(), "00000000-0000-0000-0000-000000000000");
}

TEST(Eid, GoesOntoTheWireAsItsSixteenBytes) {
    const std::string wire = Eid::parse("00112233-4455-6677-8899-aabbccddeeff")->toWire();
    EXPECT_EQ(wire, std::string("\x00\x11\x22\x33\x44\x55\x66\x77\x88\x99\xaa\xbb\xcc\xdd\xee\xff", 16));
}

TEST(Eid, OtherTextsAreRefused) {
    for (const char* text :
         {"", "0f8e5c1a", "0f8e5c1a-7a44-4c3b-9d1e-00000000000", "0f8e5c1a-7a44-4c3b-9d1e-0000000000000",
          "0f8e5c1a-7a44-4c3b-9d1e-00000000000g", "0f8e5c1a+7a44-4c3b-9d1e-000000000000",
          "{f8e5c1a-7a44-4c3b-9d1e-00000000000}", "0f8e5c1a7-a44-4c3b-9d1e-000000000000",
          "+f8e5c1a-7a44-4c3b-9d1e-000000000000", "-18e5c1a-7a44-4c3b-9d1e-000000000000",
          "0x8e5c1a-7a44-4c3b-9d1e-000000000000", " f8e5c1a-7a44-4c3b-9d1e-000000000000"}) {
        EXPECT_FALSE(Eid::parse(text)) << text;
    }
}

TEST(Eid, ComesBackFromTheWire) {
    const Eid eid = Eid::fromName("machine", "lxc/web");
    EXPECT_EQ(Eid::fromWire(eid.toWire()), eid);
    EXPECT_FALSE(Eid::fromWire(eid.toWire() + "x"));
    EXPECT_FALSE(Eid::fromWire(""));
}

}  // namespace
}  // namespace kx::agent
