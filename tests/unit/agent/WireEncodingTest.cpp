#include "agent/inventory/WireEncoding.h"

#include <gtest/gtest.h>

#include "agent/inventory/FrameBody.h"

namespace kx::agent {
namespace {

/// Every field set, texts with what texts may hold.
Environment fullEnvironment() {
    Environment made;
    made.eid = *Eid::parse("0f8e5c1a-7a44-4c3b-9d1e-000000000101");
    made.type = "lumetra";
    made.state = 2;
    made.transition = -2147483647 - 1;
    made.name = std::string("a\0\"b\xff", 5);
    made.veid = -5;
    made.hostname = "";
    made.description = std::string(4000, 'd');
    made.osTemplate = Template{"debian", "12"};
    made.baseSample = *Eid::parse("0f8e5c1a-7a44-4c3b-9d1e-0000000000aa");
    made.addresses = {Address{"10.0.0.1", "255.255.255.0"}, Address{"not an address", ""}};
    made.templates = {Template{"nginx", "1.24"}};
    made.inet6Addresses = {Inet6Address{"2001:db8::1", 64}, Inet6Address{"fd00::2", 128}};
    return made;
}

TEST(WireEncoding, everyFieldArrivesByteForByte) {
    const Environment from = fullEnvironment();
    wire::Environment sent;
    toWire(from, sent);
    wire::Environment got;
    ASSERT_TRUE(got.ParseFromString(sent.SerializeAsString()));
    EXPECT_EQ(got.eid(), from.eid.toWire());
    EXPECT_EQ(got.type(), "lumetra");
    EXPECT_EQ(got.state(), 2);
    EXPECT_EQ(got.transition(), from.transition);
    const wire::Configuration& configuration = got.configuration();
    EXPECT_EQ(configuration.name(), from.name);
    EXPECT_EQ(configuration.veid(), -5);
    EXPECT_TRUE(configuration.has_hostname());
    EXPECT_EQ(configuration.hostname(), "");
    EXPECT_EQ(configuration.description(), *from.description);
    EXPECT_EQ(configuration.os_template().name(), "debian");
    EXPECT_EQ(configuration.os_template().version(), "12");
    EXPECT_EQ(configuration.base_sample(), from.baseSample->toWire());
    ASSERT_EQ(configuration.addresses().addresses_size(), 2);
    EXPECT_EQ(configuration.addresses().addresses(0).address(), "10.0.0.1");
    EXPECT_EQ(configuration.addresses().addresses(0).mask(), "255.255.255.0");
    EXPECT_EQ(configuration.addresses().addresses(1).address(), "not an address");
    ASSERT_EQ(configuration.templates().templates_size(), 1);
    EXPECT_EQ(configuration.templates().templates(0).name(), "nginx");
    EXPECT_EQ(configuration.templates().templates(0).version(), "1.24");
    ASSERT_EQ(configuration.inet6_addresses().addresses_size(), 2);
    EXPECT_EQ(configuration.inet6_addresses().addresses(0).address(), "2001:db8::1");
    EXPECT_EQ(configuration.inet6_addresses().addresses(0).prefix_length(), 64U);
}

TEST(WireEncoding, whatIsAbsentStaysAbsent) {
    wire::Environment sent;
    toWire(Environment(), sent);
    const wire::Configuration& configuration = sent.configuration();
    EXPECT_TRUE(sent.has_configuration());
    EXPECT_FALSE(configuration.has_veid());
    EXPECT_FALSE(configuration.has_hostname());
    EXPECT_FALSE(configuration.has_description());
    EXPECT_FALSE(configuration.has_os_template());
    EXPECT_FALSE(configuration.has_base_sample());
    EXPECT_FALSE(configuration.has_addresses());
    EXPECT_FALSE(configuration.has_templates());
    EXPECT_FALSE(configuration.has_inet6_addresses());
}

TEST(WireEncoding, anEmptyListIsNotAnAbsentOne) {
    Environment from;
    from.addresses.emplace();
    from.templates.emplace();
    from.inet6Addresses.emplace();
    wire::Environment sent;
    toWire(from, sent);
    wire::Environment got;
    ASSERT_TRUE(got.ParseFromString(sent.SerializeAsString()));
    EXPECT_TRUE(got.configuration().has_addresses());
    EXPECT_TRUE(got.configuration().has_templates());
    EXPECT_TRUE(got.configuration().has_inet6_addresses());
}

TEST(WireEncoding, theBoundIsNeverBelowTheTruthAndNotFarAbove) {
    std::vector<Environment> samples{Environment(), fullEnvironment(), fullEnvironment()};
    samples[2].addresses = std::vector<Address>(10000, Address{"192.168.100.100", "255.255.255.255"});
    samples[2].inet6Addresses = std::vector<Inet6Address>(10000, Inet6Address{"2001:db8:1:2:3:4:5:6", 128});
    samples[2].templates = std::vector<Template>(10000);
    samples[2].description = std::string(3000000, 'x');
    for (const Environment& sample : samples) {
        wire::SnapshotChunk chunk;
        toWire(sample, *chunk.add_environments());
        EXPECT_GE(wireBytesAtMost(sample), chunk.ByteSizeLong());
        EXPECT_LE(wireBytesAtMost(sample), 2 * chunk.ByteSizeLong() + 1000000);
    }
}

TEST(WireEncoding, vocabulariesKeepTheirOrderAndTheirGaps) {
    Vocabulary from{
        "KXABasicFunctionality",
        {{std::nullopt, "value only", {}}},
        {{"z", {{"second", std::nullopt, {{"counter_type", -2}, {"other", 1}}}, {"first", "", {}}}}, {"a", {}}}};
    wire::Vocabulary sent;
    toWire(from, sent);
    EXPECT_EQ(sent.name(), "KXABasicFunctionality");
    ASSERT_EQ(sent.parameters_size(), 1);
    EXPECT_FALSE(sent.parameters(0).has_id());
    EXPECT_EQ(sent.parameters(0).value(), "value only");
    ASSERT_EQ(sent.categories_size(), 2);
    EXPECT_EQ(sent.categories(0).name(), "z");
    EXPECT_EQ(sent.categories(1).name(), "a");
    ASSERT_EQ(sent.categories(0).parameters_size(), 2);
    const wire::Parameter& second = sent.categories(0).parameters(0);
    EXPECT_EQ(second.id(), "second");
    EXPECT_FALSE(second.has_value());
    EXPECT_EQ(second.attributes().at("counter_type"), -2);
    EXPECT_TRUE(sent.categories(0).parameters(1).has_value());
}

TEST(FrameBody, headAndBodyTogetherAreAFrameWithTheRequestsNumber) {
    wire::Frame frame;
    frame.mutable_delta()->set_generation(7);
    const FrameBody body = encodeBody(frame);
    ASSERT_TRUE(body);
    for (const std::uint64_t requestId : {std::uint64_t{0}, std::uint64_t{1}, ~std::uint64_t{0}}) {
        wire::FrameReader reader;
        reader.append(encodeHead(requestId, body->size()));
        reader.append(*body);
        const auto result = reader.next();
        ASSERT_EQ(result.status, wire::FrameReader::Status::Frame);
        wire::Frame got;
        ASSERT_TRUE(wire::decodeFrame(result.payload, got));
        EXPECT_EQ(got.request_id(), requestId);
        EXPECT_EQ(got.delta().generation(), 7U);
        EXPECT_EQ(reader.buffered(), 0U);
    }
}

TEST(FrameBody, aFrameOverTheLimitHasNone) {
    wire::Frame frame;
    frame.mutable_error()->set_text(std::string(wire::kMaxFrameBytes, 'x'));
    EXPECT_FALSE(encodeBody(frame));
    frame.mutable_error()->set_text(std::string(wire::kMaxFrameBytes - 64, 'x'));
    ASSERT_TRUE(encodeBody(frame));
}

}  // namespace
}  // namespace kx::agent
