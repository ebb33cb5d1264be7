#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include <kxa/KXAEnvConfig.h>

#include "tests/support/MakeEnv.h"

namespace {

thread_local std::size_t allocations = 0;

}  // namespace

// Counts what this binary allocates, to show that reading a VE id allocates nothing.
[[gnu::noinline]] void* operator new(std::size_t size) {
    ++allocations;
    if (void* memory = std::malloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace kx::test {
namespace {

wire::Environment described() {
    wire::Environment env = wireEnv(1);
    env.set_state(2);
    env.set_transition(-7);
    auto& config = *env.mutable_configuration();
    config.set_name("web");
    config.set_veid(101);
    config.set_hostname("web.example");
    config.set_description("front end");
    config.mutable_os_template()->set_name("debian");
    config.mutable_os_template()->set_version("12");
    config.set_base_sample(std::string(16, '\xaa'));
    auto* address = config.mutable_addresses()->add_addresses();
    address->set_address("10.0.0.1");
    address->set_mask("255.0.0.0");
    auto* inet6 = config.mutable_inet6_addresses()->add_addresses();
    inet6->set_address("2001:db8::1");
    inet6->set_prefix_length(64);
    auto* application = config.mutable_templates()->add_templates();
    application->set_name("nginx");
    application->set_version("1.24");
    return env;
}

TEST(EnvConfig, GivesWhatTheAgentSent) {
    const auto env = makeEnv(described());
    EXPECT_EQ(env->getType(), "lumetra");
    EXPECT_EQ(env->getStatus()->state, 2);
    EXPECT_EQ(env->getStatus()->transition, -7);
    EXPECT_STREQ(env->getConfig().getCoreBasic()->getText(), "web");

    const KXAEnvConfig config(env->getConfig());
    int veid = -1;
    EXPECT_EQ(config.getVeid(veid), 0);
    EXPECT_EQ(veid, 101);
    KXLOptionalProperty<std::string> text;
    EXPECT_EQ(config.getHostname(text), 0);
    EXPECT_EQ(text.get(), "web.example");
    EXPECT_EQ(config.getDescription(text), 0);
    EXPECT_EQ(text.get(), "front end");
    KXLOptionalProperty<KXATemplate> osTemplate;
    EXPECT_EQ(config.getOsTemplate(osTemplate), 0);
    EXPECT_EQ(osTemplate.get().getName(), "debian");
    EXPECT_EQ(osTemplate.get().getVersion(), "12");
    KXLOptionalProperty<KXLGUID> sample;
    EXPECT_EQ(config.getBaseSampleId(sample), 0);
    EXPECT_EQ(sample.get().toString(), "aaaaaaaa-aaaa-aaaa-aaaa-aaaaaaaaaaaa");
    KXLOptionalProperty<std::vector<KXLIPAddress>> addresses;
    EXPECT_EQ(config.getAddresses(addresses), 0);
    ASSERT_EQ(addresses.get().size(), 1U);
    EXPECT_EQ(addresses.get()[0].compare(KXLIPAddress("10.0.0.1", "255.0.0.0")), 0);
    KXLOptionalProperty<std::vector<KXLInet6Address>> inet6Addresses;
    EXPECT_EQ(config.getInet6Addresses(inet6Addresses), 0);
    ASSERT_EQ(inet6Addresses.get().size(), 1U);
    EXPECT_EQ(inet6Addresses.get()[0].getAddress(), "2001:db8::1");
    EXPECT_EQ(inet6Addresses.get()[0].getPrefixLength(), 64U);
    KXLOptionalProperty<std::vector<KXATemplate>> templates;
    EXPECT_EQ(config.getTemplates(templates), 0);
    ASSERT_EQ(templates.get().size(), 1U);
    EXPECT_EQ(templates.get()[0].getName(), "nginx");
}

void expectNothing(const KXAEnvConfig& config) {
    int veid = -1;
    EXPECT_NE(config.getVeid(veid), 0);
    EXPECT_EQ(veid, -1);
    KXLOptionalProperty<std::string> text("preset");
    EXPECT_NE(config.getHostname(text), 0);
    EXPECT_NE(config.getDescription(text), 0);
    EXPECT_EQ(text.get(), "preset");
    KXLOptionalProperty<KXATemplate> osTemplate;
    EXPECT_NE(config.getOsTemplate(osTemplate), 0);
    KXLOptionalProperty<KXLGUID> sample;
    EXPECT_NE(config.getBaseSampleId(sample), 0);
    KXLOptionalProperty<std::vector<KXLIPAddress>> addresses;
    EXPECT_NE(config.getAddresses(addresses), 0);
    KXLOptionalProperty<std::vector<KXLInet6Address>> inet6Addresses;
    EXPECT_NE(config.getInet6Addresses(inet6Addresses), 0);
    KXLOptionalProperty<std::vector<KXATemplate>> templates;
    EXPECT_NE(config.getTemplates(templates), 0);
}

TEST(EnvConfig, LeavesArgumentsAloneWhereTheConfigurationHasNothing) {
    expectNothing(KXAEnvConfig(makeEnv(wireEnv(1))->getConfig()));
    expectNothing(KXAEnvConfig(KXLEnvConfig()));
}

TEST(EnvConfig, TellsAnEmptyListFromNoList) {
    wire::Environment env = wireEnv(1);
    env.mutable_configuration()->mutable_addresses();
    KXLOptionalProperty<std::vector<KXLIPAddress>> addresses;
    EXPECT_EQ(makeEnv(env)->getConfig().getAddresses(addresses), 0);
    EXPECT_TRUE(addresses.get().empty());
}

TEST(EnvConfig, HasNoCoreRecordOnlyWhenMadeWithout) {
    EXPECT_FALSE(KXLEnvConfig().getCoreBasic());
    EXPECT_STREQ(makeEnv(wireEnv(1))->getConfig().getCoreBasic()->getText(), "");
}

TEST(EnvConfig, ReadingAVeidAllocatesNothing) {
    const auto env = makeEnv(described());
    const std::size_t before = allocations;
    int veid = -1;
    for (int i = 0; i < 100; ++i) {
        KXAEnvConfig(env->getConfig()).getVeid(veid);
    }
    EXPECT_EQ(allocations, before);
    EXPECT_EQ(veid, 101);
}

TEST(EnvConfig, OutlivesItsEnvironment) {
    auto env = makeEnv(described());
    const KXAEnvConfig config(env->getConfig());
    env.reset();
    int veid = -1;
    EXPECT_EQ(config.getVeid(veid), 0);
}

TEST(EnvDecoder, RefusesIdentifiersOfAnotherLength) {
    std::string reason;
    wire::Environment env = wireEnv(1);
    env.set_eid("short");
    EXPECT_FALSE(client::decodeEnvironment(env, reason));
    EXPECT_NE(reason, "");
    env = wireEnv(1);
    env.mutable_configuration()->set_base_sample(std::string(17, 'x'));
    EXPECT_FALSE(client::decodeEnvironment(env, reason));
}

}  // namespace
}  // namespace kx::test
