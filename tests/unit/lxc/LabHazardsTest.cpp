// One container that misbehaves hides no other.
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "agent/backends/lxc/CommandSocket.h"
#include "agent/base/OwnedDescriptor.h"
#include "tests/unit/lxc/LabRig.h"

namespace kx::agent::lxc {
namespace {

using ::testing::ElementsAre;
using ::testing::Optional;

class LabHazardsTest : public LabTest {
protected:
    /// Makes a container with a hook that waits until a file exists.
    void makeSlow(const std::string& name, const char* hook) {
        make(name);
        const std::string script = "/var/lib/lxc/" + name + "/hook";
        writeFile(script, "#!/bin/sh\nuntil [ -e /var/lib/lxc/" + name + "/go ]; do sleep 0.05; done\n");
        ASSERT_EQ(::chmod(script.c_str(), 0755), 0);
        writeFile("/var/lib/lxc/" + name + "/config", fmt::format("{} = {}\n", hook, script), true);
    }

    void expectOtherIsSeen() {
        host_.act({"start", "other"}, [&] { return host_.is("other", State::Running); });
        host_.act({"stop", "other"}, [&] { return host_.is("other", State::Stopped); });
    }
};

TEST_F(LabHazardsTest, aMalformedConfigurationIsPublishedWithItsStateAndHidesNoOther) {
    make("other");
    make("web");
    writeFile("/var/lib/lxc/web/config", "lxc.no.such.key = 1\n", true);
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
    EXPECT_EQ(host_.find("web")->veid, 1000001);
    EXPECT_EQ(host_.logged("container web: liblxc cannot read /var/lib/lxc/web/config"), 1U);
    expectOtherIsSeen();
    writeFile("/var/lib/lxc/web/config", "lxc.uts.name = mended\n");
    EXPECT_TRUE(host_.waitUntil([&] { return host_.find("web")->hostname == "mended"; }));
}

TEST_F(LabHazardsTest, aRunningContainerWhoseConfigurationBreaksIsStillKnownToRun) {
    make("web");
    host_.start();
    host_.act({"start", "web"}, [&] { return host_.is("web", State::Running); });
    const pid_t init = initOf("web");
    writeFile("/var/lib/lxc/web/config", "lxc.no.such.key = 1\n", true);
    // LXC's tools cannot read it either, so the kernel is told.
    tellFreezer(init, true);
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Frozen); }));
    tellFreezer(init, false);
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Running); }));
    ASSERT_EQ(::kill(init, SIGKILL), 0);
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
}

TEST_F(LabHazardsTest, aStartThatWaitsForItsHookIsStartingAndHidesNoOther) {
    make("other");
    makeSlow("slow", "lxc.hook.pre-start");
    host_.start();
    Command start(lab({"start", "slow"}));
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("slow", State::Stopped, Transition::Starting); }));
    expectOtherIsSeen();
    EXPECT_TRUE(host_.is("slow", State::Stopped, Transition::Starting));
    EXPECT_THAT(host_.find("slow")->addresses, Optional(ElementsAre(Address{"10.77.1.3", "255.255.0.0"})))
        << "nothing runs yet, so it is what the configuration says";
    writeFile("/var/lib/lxc/slow/go", "");
    EXPECT_TRUE(host_.waitUntil([&] { return start.ended(); }, kNoticed * 10));
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("slow", State::Running); }));
}

// The hook works while the cgroup is there and the monitor does not answer, so nothing tells of its end.
TEST_F(LabHazardsTest, theEndOfALongStartIsSeenInTime) {
    make("web");
    writeFile("/var/lib/lxc/web/config", "lxc.hook.start-host = /bin/sh -c 'sleep 0.25'\n", true);
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
    ASSERT_TRUE(host_.run(lab({"start", "web"})));
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Running); }, kNoticed * 7 / 10));
}

TEST_F(LabHazardsTest, aStartThatFailsEndsUpStopped) {
    make("web");
    writeFile("/var/lib/lxc/web/config", "lxc.hook.pre-start = /bin/false\n", true);
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
    EXPECT_FALSE(host_.run(lab({"start", "web"})));
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
    EXPECT_FALSE(host_.was("web", State::Running, Transition::None));
}

TEST_F(LabHazardsTest, aMonitorThatHangsHidesNoOtherAndDoesNotHoldUpTheStop) {
    make("other");
    make("web");
    ASSERT_TRUE(host_.run(lab({"start", "web"})));
    const pid_t monitor = parentOf(initOf("web"));
    ASSERT_GT(monitor, 1);
    ASSERT_EQ(::kill(monitor, SIGSTOP), 0);
    host_.start();
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Unknown); }));
    expectOtherIsSeen();
    const auto before = std::chrono::steady_clock::now();
    host_.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, kNoticed);
    host_.start();
    ::kill(monitor, SIGCONT);
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Running); }, kNoticed * 2));
}

TEST_F(LabHazardsTest, aLockHeldByAnotherProgramHidesNoOther) {
    make("other");
    make("web");
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.find("web") != nullptr; }));
    {
        const OwnedDescriptor lock(::open("/run/lxc/lock//var/lib/lxc/.web", O_RDWR | O_CLOEXEC));
        struct flock whole {};
        whole.l_type = F_WRLCK;
        ASSERT_EQ(::fcntl(lock.get(), F_OFD_SETLK, &whole), 0);
        writeFile("/var/lib/lxc/web/config", "lxc.uts.name = new\n", true);
        expectOtherIsSeen();
        EXPECT_EQ(host_.find("web")->hostname, "web.example.test") << "it cannot be read yet";
    }
    EXPECT_TRUE(host_.waitUntil([&] { return host_.find("web")->hostname == "new"; }));
}

// liblxc deletes a container that it finds in this condition when it is asked to open it.
TEST_F(LabHazardsTest, aContainerWhoseCreationWasBrokenOffIsNotTouched) {
    make("other");
    make("web");
    writeFile("/var/lib/lxc/web/partial", "");
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.find("other") != nullptr; }));
    expectOtherIsSeen();
    EXPECT_EQ(host_.find("web"), nullptr);
    EXPECT_TRUE(std::filesystem::exists("/var/lib/lxc/web/rootfs/bin/busybox"));
    std::filesystem::remove("/var/lib/lxc/web/partial");
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
}

TEST_F(LabHazardsTest, aContainerWithItsCgroupsElsewhereIsSeenToo) {
    make("web");
    const std::string place = fmt::format("kxlab.{}", ::getpid());
    writeFile("/var/lib/lxc/web/config", fmt::format("lxc.cgroup.dir = {}/below\n", place), true);
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
    host_.act({"start", "web"}, [&] { return host_.is("web", State::Running); });
    host_.act({"freeze", "web"}, [&] { return host_.is("web", State::Frozen); });
    host_.act({"unfreeze", "web"}, [&] { return host_.is("web", State::Running); });
    host_.act({"stop", "web"}, [&] { return host_.is("web", State::Stopped); });
    // Neither LXC nor the lab knows that nobody else uses these.
    EXPECT_TRUE(
        host_.run({"sh", "-c", "find /sys/fs/cgroup -depth -type d -path '*/" + place + "*' -exec rmdir {} +"}));
}

// Its root belongs to other users, and its monitor has given up its rights over the host.
TEST_F(LabHazardsTest, anUnprivilegedContainerIsSeenLikeAnyOther) {
    make("web");
    ASSERT_TRUE(host_.run({"chown", "-hR", "100000:100000", "/var/lib/lxc/web/rootfs"}));
    writeFile("/var/lib/lxc/web/config", "lxc.idmap = u 0 100000 65536\nlxc.idmap = g 0 100000 65536\n", true);
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
    EXPECT_EQ(host_.find("web")->osTemplate, (Template{"busyboxlab", "1.35"}));
    Command start(lab({"start", "web"}));
    ASSERT_TRUE(host_.waitUntil([&] { return start.ended(); }, kNoticed * 10));
    ASSERT_EQ(start.status(), 0);
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Running); }));
    EXPECT_THAT(host_.find("web")->addresses, Optional(ElementsAre(Address{"10.77.1.2", "255.255.0.0"})));
    EXPECT_EQ(host_.find("web")->osTemplate, (Template{"busyboxlab", "1.35"}));
    host_.act({"freeze", "web"}, [&] { return host_.is("web", State::Frozen); });
    host_.act({"unfreeze", "web"}, [&] { return host_.is("web", State::Running); });
    host_.act({"stop", "web"}, [&] { return host_.is("web", State::Stopped); });
}

TEST_F(LabHazardsTest, theOsOfARootThatIsNoFolderIsReadWhileItRuns) {
    make("web");
    std::filesystem::create_directories("/var/lib/lxc/web/upper");
    writeFile("/var/lib/lxc/web/config", "lxc.rootfs.path = overlay:/var/lib/lxc/web/rootfs:/var/lib/lxc/web/upper\n",
              true);
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
    EXPECT_EQ(host_.find("web")->osTemplate, std::nullopt);
    Command start(lab({"start", "web"}));
    host_.waitUntil([&] { return start.ended(); }, kNoticed * 10);
    if (start.status() != 0) {
        GTEST_SKIP() << "no overlay file system on this one";
    }
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Running); }));
    EXPECT_EQ(host_.find("web")->osTemplate, (Template{"busyboxlab", "1.35"}));
}

TEST_F(LabHazardsTest, aPathTooLongForASocketAddressIsFoundUnderTheNameLibraryGivesIt) {
    make("web");
    const std::string path = "/var/lib/lxc/.long/" + std::string(90, 'p');
    std::filesystem::create_directories(path);
    std::filesystem::copy("/var/lib/lxc/web", path + "/web",
                          std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks);
    ASSERT_TRUE(host_.run({"lxc-start", "-d", "-P", path, "-n", "web"}));
    EXPECT_EQ(presentCommandSockets().count(commandSocketName(path, "web")), 1U);
    LabHost host(path);
    host.start();
    EXPECT_TRUE(host.waitUntil([&] { return host.is("web", State::Running); }));
    ASSERT_TRUE(host_.run({"lxc-stop", "-k", "-P", path, "-n", "web"}));
    EXPECT_TRUE(host.waitUntil([&] { return host.is("web", State::Stopped); }));
}

TEST_F(LabHazardsTest, aThousandContainersAreToldOfAndAChangeOfOneIsSeen) {
    for (int number = 1; number <= 1000; ++number) {
        const std::string folder = fmt::format("/var/lib/lxc/{}", 5000 + number);
        std::filesystem::create_directories(folder);
        writeFile(folder + "/config", fmt::format("lxc.uts.name = ct{}\n", number));
    }
    make("web");
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.containers() == 1001; }, kNoticed * 10));
    EXPECT_EQ(host_.images(), 1U);
    host_.act({"start", "web"}, [&] { return host_.is("web", State::Running); });
    host_.act({"stop", "web"}, [&] { return host_.is("web", State::Stopped); });
    writeFile("/var/lib/lxc/5500/kx.toml", "description = \"one\"\n");
    EXPECT_TRUE(host_.waitUntil([&] { return host_.find("5500")->description == "one"; }));
}

}  // namespace
}  // namespace kx::agent::lxc
