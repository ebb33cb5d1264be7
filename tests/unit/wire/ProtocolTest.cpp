#include "wire/Protocol.h"

#include <gtest/gtest.h>

namespace kx::wire {
namespace {

TEST(Hello, NamesVersionProgramAndCapabilities) {
    const Hello hello = makeHello("kxsnmp");
    EXPECT_EQ(hello.protocol_major(), kProtocolMajor);
    EXPECT_EQ(hello.protocol_minor(), kProtocolMinor);
    EXPECT_EQ(hello.program(), "kxsnmp");
    EXPECT_TRUE(hasCapability(hello, kCapabilitySnapshot));
    EXPECT_TRUE(hasCapability(hello, kCapabilityVocabulary));
    EXPECT_FALSE(hasCapability(hello, "teleport"));
}

TEST(Hello, CutsAnOverlongProgramName) {
    EXPECT_EQ(makeHello(std::string(1000, 'p')).program().size(), kMaxNameBytes);
}

TEST(Printable, ReplacesControlBytesAndCutsLength) {
    EXPECT_EQ(printable(std::string_view("a\nb\0c\x7f", 6)), "a?b?c?");
    EXPECT_EQ(printable("gr\xc3\xbc\xc3\x9f"), "gr\xc3\xbc\xc3\x9f");
    EXPECT_EQ(printable(std::string(1000, 'p')).size(), kMaxNameBytes);
}

TEST(ErrorFrame, CarriesCodeAndText) {
    const Frame frame = makeErrorFrame(ERROR_NOT_ALLOWED, "not you");
    EXPECT_EQ(frame.error().code(), ERROR_NOT_ALLOWED);
    EXPECT_EQ(frame.error().text(), "not you");
}

}  // namespace
}  // namespace kx::wire
