// The addresses of real containers: configured while they are stopped, the kernel's while they run.
#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <fstream>

#include "agent/backends/lxc/AddressDump.h"
#include "tests/unit/lxc/LabRig.h"

namespace kx::agent::lxc {
namespace {

using ::testing::Each;
using ::testing::IsEmpty;
using Addresses = std::vector<Address>;

/// What the lab gives to the first container it makes.
const Address kFirst{"10.77.1.2", "255.255.0.0"};

Address slash24(const std::string& address) {
    return {address, "255.255.255.0"};
}

class LabAddressesTest : public LabTest {
protected:
    bool has(const std::string& name, const Addresses& addresses) const {
        return host_.find(name) != nullptr && host_.find(name)->addresses == addresses;
    }

    void expectSeen(const std::string& name, const Addresses& addresses, std::chrono::milliseconds limit = kNoticed) {
        EXPECT_TRUE(host_.waitUntil([&] { return has(name, addresses); }, limit))
            << "shown: " << (host_.find(name) != nullptr ? shown(*host_.find(name)) : "nothing");
    }

    static std::string shown(const Environment& container) {
        std::string text = container.addresses ? "" : "absent";
        for (const Address& one : container.addresses.value_or(Addresses())) {
            text += one.address + "/" + one.mask + " ";
        }
        return text;
    }

    void start(const std::string& name) {
        host_.act({"start", name}, [&] { return host_.is(name, State::Running); });
    }

    void stop(const std::string& name) {
        host_.act({"stop", name}, [&] { return host_.is(name, State::Stopped); });
    }

    /// Runs `ip` in a container's network namespace.
    void ip(pid_t init, const std::vector<std::string>& words) {
        ASSERT_TRUE(host_.run(ipCommand(init, words))) << words[0] << " " << words[1];
    }

    void ip(const std::string& name, const std::vector<std::string>& words) { ip(initOf(name), words); }

    void ipBatch(const std::string& name, const std::string& lines) {
        writeFile("/var/lib/lxc/.batch", lines);
        ip(name, {"-batch", "/var/lib/lxc/.batch"});
    }

    /// Gives a container other networks than the lab has.
    static void setNetworks(const std::string& name, const std::string& lines) {
        const std::string file = "/var/lib/lxc/" + name + "/config";
        std::ifstream old(file);
        std::string text;
        for (std::string line; std::getline(old, line);) {
            if (line.rfind("lxc.net.", 0) != 0) {
                text += line + "\n";
            }
        }
        writeFile(file, text + lines);
    }
};

TEST_F(LabAddressesTest, areConfiguredWhileItIsStoppedAndTheKernelsAsSoonAsItIsShownToRun) {
    make("web");
    const std::string hook = "/var/lib/lxc/web/rootfs/hook";
    writeFile(hook, "#!/bin/sh\nip addr add 10.99.0.1/24 dev eth0\n");
    std::filesystem::permissions(hook, std::filesystem::perms::owner_all);
    writeFile("/var/lib/lxc/web/config", "lxc.hook.start = /hook\n", true);
    host_.start();
    expectSeen("web", {kFirst});
    const Addresses kernels{kFirst, slash24("10.99.0.1")};
    // It is held back for them, but not for ever: the best of several.
    std::string wrong;
    for (int round = 0; round < 3; ++round) {
        host_.forgetPast();
        start("web");
        wrong.clear();
        for (const Environment& past : host_.pastOf("web")) {
            const bool running = past.state == static_cast<std::int32_t>(State::Running);
            if (past.addresses != (running ? kernels : Addresses{kFirst})) {
                wrong += shown(past) + (running ? "while it runs\n" : "while it does not\n");
            }
        }
        expectSeen("web", kernels);
        stop("web");
        expectSeen("web", {kFirst});
        if (wrong.empty()) {
            return;
        }
    }
    ADD_FAILURE() << wrong;
}

TEST_F(LabAddressesTest, doNotDelayThatAContainerIsSeenToRun) {
    make("web");
    host_.start();
    auto least = std::chrono::steady_clock::duration::max();
    for (int round = 0; round < 5; ++round) {
        start("web");
        least = std::min(least, host_.lag());
        stop("web");
    }
    EXPECT_LT(least, std::chrono::milliseconds(60 * kSlowness)) << "it is held back until they are read and no longer";
}

TEST_F(LabAddressesTest, ofWhatRunsAreInTheFirstImage) {
    const std::vector<std::string> names{"a", "b", "c", "d", "e"};
    for (const std::string& name : names) {
        make(name);
        ASSERT_TRUE(host_.run(lab({"start", name})));
        ip(name, {"addr", "add", "10.99.0.1/24", "dev", "eth0"});
    }
    ASSERT_TRUE(host_.run(lab({"freeze", "b"})));
    for (int round = 0; round < 3; ++round) {
        const std::size_t before = host_.images();
        host_.start();
        ASSERT_TRUE(host_.waitUntil([&] { return host_.images() > before; }));
        ASSERT_EQ(host_.containers(), names.size());
        for (const std::string& name : names) {
            ASSERT_EQ(host_.find(name)->addresses.value_or(Addresses()).size(), 2U) << name;
            EXPECT_EQ(host_.find(name)->addresses->back(), slash24("10.99.0.1")) << name;
        }
        host_.stop();
    }
}

// Each monitor that hangs holds the worker up for longer than a container is held back for its addresses.
TEST_F(LabAddressesTest, ofWhatRunsAreInTheFirstImageThoughOthersHang) {
    std::vector<pid_t> monitors;
    for (const char* name : {"a", "b", "c"}) {
        make(name);
        ASSERT_TRUE(host_.run(lab({"start", name})));
        monitors.push_back(parentOf(initOf(name)));
    }
    ip("a", {"addr", "add", "10.99.0.1/24", "dev", "eth0"});
    ::kill(monitors[1], SIGSTOP);
    ::kill(monitors[2], SIGSTOP);
    host_.start();
    EXPECT_TRUE(host_.waitUntil([&] { return host_.images() > 0; }));
    EXPECT_EQ(host_.containers(), 3U);
    EXPECT_TRUE(has("a", {kFirst, slash24("10.99.0.1")}));
    ::kill(monitors[1], SIGCONT);
    ::kill(monitors[2], SIGCONT);
}

TEST_F(LabAddressesTest, thatComeAndGoAreSeen) {
    make("web");
    host_.start();
    start("web");
    expectSeen("web", {kFirst});
    ip("web", {"addr", "add", "10.99.0.1/24", "dev", "eth0"});
    expectSeen("web", {kFirst, slash24("10.99.0.1")});
    ip("web", {"addr", "add", "10.99.0.2/24", "dev", "eth0"});
    expectSeen("web", {kFirst, slash24("10.99.0.1"), slash24("10.99.0.2")});
    ip("web", {"addr", "add", "10.98.0.1/32", "dev", "lo"});
    expectSeen("web", {{"10.98.0.1", "255.255.255.255"}, kFirst, slash24("10.99.0.1"), slash24("10.99.0.2")});
    ip("web", {"addr", "del", "10.98.0.1/32", "dev", "lo"});
    ip("web", {"addr", "del", "10.99.0.2/24", "dev", "eth0"});
    expectSeen("web", {kFirst, slash24("10.99.0.1")});
    ip("web", {"addr", "flush", "dev", "eth0"});
    expectSeen("web", {});
}

TEST_F(LabAddressesTest, ofSeveralInterfacesAreInTheOrderOfTheirIndexes) {
    make("web");
    host_.start();
    start("web");
    // What is made first has the lower index and gets its address last.
    ipBatch("web",
            "link add one index 200000 type veth peer name onepeer index 200001\n"
            "link add two index 100000 type veth peer name twopeer index 100001\n"
            "addr add 10.1.0.1/24 dev one\n"
            "addr add 10.2.0.1/24 dev two\n"
            "addr add 10.3.0.1 peer 10.3.0.99/30 dev two\n"
            "addr add 10.1.0.1/16 dev onepeer\n");
    expectSeen("web", {kFirst, slash24("10.2.0.1"), Address{"10.3.0.1", "255.255.255.252"}, slash24("10.1.0.1")});
    ip("web", {"link", "del", "two"});
    expectSeen("web", {kFirst, slash24("10.1.0.1")});
}

TEST_F(LabAddressesTest, ofAFrozenContainerAreWatchedToo) {
    make("web");
    host_.start();
    start("web");
    host_.act({"freeze", "web"}, [&] { return host_.is("web", State::Frozen); });
    expectSeen("web", {kFirst});
    ip("web", {"addr", "add", "10.99.0.1/24", "dev", "eth0"});
    expectSeen("web", {kFirst, slash24("10.99.0.1")});
    EXPECT_TRUE(host_.is("web", State::Frozen));
}

TEST_F(LabAddressesTest, areRightAfterAThousandQuickChanges) {
    make("web");
    host_.start();
    start("web");
    std::string lines;
    for (int round = 0; round < 500; ++round) {
        lines += fmt::format("addr add 10.99.{0}.1/24 dev eth0\naddr del 10.99.{0}.1/24 dev eth0\n", round % 250);
    }
    const std::size_t before = host_.images();
    ipBatch("web", lines + "addr add 10.99.251.1/24 dev eth0\naddr del 10.77.1.2/16 dev eth0\n");
    expectSeen("web", {slash24("10.99.251.1")}, kNoticed * 2);
    EXPECT_LE(host_.images() - before, 20U) << "not an image a change";
    ipBatch("web", lines);
    ip("web", {"addr", "flush", "dev", "eth0"});
    expectSeen("web", {}, kNoticed * 2);
}

TEST_F(LabAddressesTest, ofAContainerWithoutNetworkAreNone) {
    make("web");
    setNetworks("web", "lxc.net.0.type = empty\n");
    host_.start();
    expectSeen("web", {});
    start("web");
    expectSeen("web", {});
    EXPECT_THAT(host_.pastOf("web"), Each(::testing::Field(&Environment::addresses, ::testing::Optional(IsEmpty()))));
}

TEST_F(LabAddressesTest, configuredOnesAreThoseOfAllNetworksAndWhatTheyBecome) {
    make("web");
    // Without a prefix LXC takes one that depends on the last byte; what it says before must be what the kernel gets.
    setNetworks("web",
                "lxc.net.0.type = veth\nlxc.net.0.link = br0\nlxc.net.0.flags = up\n"
                "lxc.net.0.ipv4.address = 10.1.0.1/24 10.1.0.255\n"
                "lxc.net.0.ipv4.address = 10.1.0.2/25\n"
                "lxc.net.7.type = veth\nlxc.net.7.link = br0\nlxc.net.7.flags = up\n"
                "lxc.net.7.ipv4.address = 172.16.0.1\n"
                "lxc.net.7.ipv4.address = 10.7.0.200\n"
                "lxc.net.9.type = veth\nlxc.net.9.link = br0\nlxc.net.9.flags = up\n"
                "lxc.net.9.ipv4.address = 10.9.0.1/32\n");
    host_.start();
    const Addresses all{slash24("10.1.0.1"),
                        {"10.1.0.2", "255.255.255.128"},
                        {"172.16.0.1", "255.0.0.0"},
                        {"10.7.0.200", "255.255.255.0"},
                        {"10.9.0.1", "255.255.255.255"}};
    expectSeen("web", all);
    host_.forgetPast();
    start("web");
    expectSeen("web", all);
    EXPECT_THAT(host_.pastOf("web"), Each(::testing::Field(&Environment::addresses, all)));
}

TEST_F(LabAddressesTest, ofIpv6AreTheKernelsWithoutThoseOfALinkAndUnknownWhileItIsStopped) {
    make("web");
    host_.start();
    expectSeen("web", {kFirst});
    const auto has6 = [&](const std::optional<std::vector<Inet6Address>>& wanted) {
        return host_.waitUntil([&] { return host_.find("web")->inet6Addresses == wanted; });
    };
    EXPECT_TRUE(has6(std::nullopt));
    start("web");
    EXPECT_TRUE(has6(std::vector<Inet6Address>())) << "its link has one in fe80::/10";
    ip("web", {"addr", "add", "2001:db8::7/64", "dev", "eth0"});
    EXPECT_TRUE(has6(std::vector<Inet6Address>{{"2001:db8::7", 64}}));
    ip("web", {"addr", "add", "fd00::1/128", "dev", "lo"});
    EXPECT_TRUE(has6(std::vector<Inet6Address>{{"fd00::1", 128}, {"2001:db8::7", 64}})) << "ordered by interface";
    expectSeen("web", {kFirst});
    ip("web", {"addr", "del", "2001:db8::7/64", "dev", "eth0"});
    EXPECT_TRUE(has6(std::vector<Inet6Address>{{"fd00::1", 128}}));
    stop("web");
    EXPECT_TRUE(has6(std::nullopt));
}

TEST_F(LabAddressesTest, ofAContainerInTheHostsNetworkAreNotTheHosts) {
    make("web");
    setNetworks("web", "lxc.net.0.type = none\n");
    host_.start();
    start("web");
    expectSeen("web", {});
    EXPECT_EQ(host_.find("web")->inet6Addresses, std::vector<Inet6Address>());
}

TEST_F(LabAddressesTest, configuredAnewAreSeenWhileItIsStoppedOnly) {
    make("web");
    host_.start();
    expectSeen("web", {kFirst});
    writeFile("/var/lib/lxc/web/config", "lxc.net.0.ipv4.address = 10.99.0.1/24\n", true);
    expectSeen("web", {kFirst, slash24("10.99.0.1")});
    setNetworks("web", "lxc.net.0.type = veth\nlxc.net.0.ipv4.address = 10.98.0.1/24\n");
    expectSeen("web", {slash24("10.98.0.1")});
    start("web");
    setNetworks("web", "lxc.uts.name = other.example\n");
    ASSERT_TRUE(host_.waitUntil([&] { return host_.find("web")->hostname == "other.example"; }));
    expectSeen("web", {slash24("10.98.0.1")});
    stop("web");
    expectSeen("web", {});
}

TEST_F(LabAddressesTest, ofNetworksWithAbsurdNumbersAreReportedAsLeftOut) {
    make("web");
    setNetworks("web",
                "lxc.net.9999.type = empty\nlxc.net.9999.ipv4.address = 10.1.0.1/24\n"
                "lxc.net.10000.type = empty\nlxc.net.10000.ipv4.address = 10.2.0.1/24\n");
    host_.start();
    expectSeen("web", {slash24("10.1.0.1")});
    EXPECT_EQ(host_.logged("1 of its networks"), 1U);
    writeFile("/var/lib/lxc/web/config", "lxc.uts.name = other.example\n", true);
    ASSERT_TRUE(host_.waitUntil([&] { return host_.find("web")->hostname == "other.example"; }));
    EXPECT_EQ(host_.logged("1 of its networks"), 1U);
}

TEST_F(LabAddressesTest, areTheKernelsOrTheLastConfiguredOnesWhileTheConfigurationCannotBeRead) {
    make("web");
    host_.start();
    start("web");
    const pid_t init = initOf("web");
    writeFile("/var/lib/lxc/web/config", "lxc.no.such.key = 1\n", true);
    ASSERT_TRUE(host_.waitUntil([&] { return host_.logged("liblxc cannot read") == 1; }));
    ip(init, {"addr", "add", "10.99.0.1/24", "dev", "eth0"});
    expectSeen("web", {kFirst, slash24("10.99.0.1")});
    ASSERT_EQ(::kill(init, SIGKILL), 0);
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
    expectSeen("web", {kFirst});
    writeFile("/var/lib/lxc/web/config", "lxc.net.0.type = veth\nlxc.net.0.ipv4.address = 10.98.0.1/24\n");
    expectSeen("web", {slash24("10.98.0.1")});
}

// Whoever has a socket in a namespace keeps it alive. What LXC has put into it it takes away by itself; this it does
// not know.
TEST_F(LabAddressesTest, doNotKeepTheNamespaceOfAStoppedContainerAlive) {
    make("web");
    host_.start();
    start("web");
    const std::string init = std::to_string(initOf("web"));
    ASSERT_TRUE(host_.run({"ip", "link", "add", "kxouter", "type", "veth", "peer", "name", "kxinner"}));
    ASSERT_TRUE(host_.run({"ip", "link", "set", "kxinner", "netns", init}));
    ip("web", {"addr", "add", "10.99.0.1/24", "dev", "kxinner"});
    expectSeen("web", {kFirst, slash24("10.99.0.1")});
    ASSERT_TRUE(std::filesystem::exists("/sys/class/net/kxouter"));
    stop("web");
    EXPECT_TRUE(host_.waitUntil([] { return !std::filesystem::exists("/sys/class/net/kxouter"); }, kNoticed * 3));
}

TEST_F(LabAddressesTest, areThoseOfTheNamespaceThatInitHasMovedTo) {
    make("web");
    std::filesystem::remove("/var/lib/lxc/web/rootfs/sbin/init");
    writeFile("/var/lib/lxc/web/rootfs/sbin/init",
              "#!/bin/sh\nuntil [ -e /go ]; do sleep 0.05; done\nexec /bin/busybox unshare -n /bin/sleep 1000\n");
    std::filesystem::permissions("/var/lib/lxc/web/rootfs/sbin/init", std::filesystem::perms::owner_all);
    host_.start();
    start("web");
    expectSeen("web", {kFirst});
    writeFile("/var/lib/lxc/web/rootfs/go", "");
    // Nothing tells of it, so it is the comparison that finds it.
    constexpr std::chrono::milliseconds compared = std::chrono::seconds(5) + kNoticed;
    expectSeen("web", {}, compared);
    ip("web", {"link", "set", "lo", "up"});
    ip("web", {"addr", "add", "10.99.0.1/24", "dev", "lo"});
    expectSeen("web", {slash24("10.99.0.1")});
}

TEST_F(LabAddressesTest, beyondTheLimitAreLeftOutAndThatIsSaidOnce) {
    make("web");
    host_.start();
    start("web");
    std::string lines;
    for (std::size_t i = 0; i < kMaxAddresses; ++i) {
        lines += fmt::format("addr add 10.99.{}.{}/32 dev eth0\n", i / 250, i % 250 + 1);
    }
    ipBatch("web", lines);
    ASSERT_TRUE(host_.waitUntil([&] { return host_.logged("more than 1024 addresses") == 1; }, kNoticed * 3));
    EXPECT_TRUE(host_.waitUntil([&] { return host_.find("web")->addresses->size() == kMaxAddresses; }, kNoticed * 2));
    ip("web", {"addr", "del", "10.99.0.1/32", "dev", "eth0"});
    ip("web", {"addr", "del", "10.99.0.2/32", "dev", "eth0"});
    EXPECT_TRUE(
        host_.waitUntil([&] { return host_.find("web")->addresses->size() == kMaxAddresses - 1; }, kNoticed * 2));
    ipBatch("web", "addr add 10.99.0.1/32 dev eth0\naddr add 10.99.0.2/32 dev eth0\n");
    EXPECT_TRUE(host_.waitUntil([&] { return host_.find("web")->addresses->size() == kMaxAddresses; }, kNoticed * 2));
    EXPECT_EQ(host_.logged("more than 1024 addresses"), 1U);
}

TEST_F(LabAddressesTest, areTheConfiguredOnesWhereTheNamespaceMayNotBeEntered) {
    make("web");
    {
        const WithoutCapability lost(kEnterNamespaces);
        host_.start();
    }
    for (int round = 0; round < 3; ++round) {
        start("web");
        expectSeen("web", {kFirst});
        EXPECT_TRUE(host_.waitUntil([&] { return host_.logged("network namespace cannot be entered") > 0; }));
        stop("web");
    }
    EXPECT_EQ(host_.logged("container web: its network namespace cannot be entered: Operation not permitted"), 1U);
    EXPECT_EQ(host_.logged("namespace"), 1U);
}

TEST_F(LabAddressesTest, areSeenWithinMilliseconds) {
    make("web");
    host_.start();
    start("web");
    std::vector<double> spans;
    for (int round = 0; round < 20; ++round) {
        const std::string address = fmt::format("10.99.{}.1", round);
        ip("web", {"addr", "add", address + "/24", "dev", "eth0"});
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_TRUE(host_.waitUntil([&] { return has("web", {kFirst, slash24(address)}); })) << address;
        spans.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count());
        ip("web", {"addr", "del", address + "/24", "dev", "eth0"});
        ASSERT_TRUE(host_.waitUntil([&] { return has("web", {kFirst}); })) << address;
    }
    std::sort(spans.begin(), spans.end());
    fmt::print("[  measured ] an address is in an image after {:.1f} ms (median), {:.1f} to {:.1f} ms\n",
               spans[spans.size() / 2], spans.front(), spans.back());
}

}  // namespace
}  // namespace kx::agent::lxc
