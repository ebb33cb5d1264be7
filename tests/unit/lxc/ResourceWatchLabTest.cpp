// Real containers that run out of memory or processes, and the host beside them.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <mutex>

#include "agent/backends/lxc/ResourceWatch.h"
#include "tests/unit/lxc/LabRig.h"

namespace kx::agent::lxc {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::IsEmpty;

/// A kill must be told within this time of the kernel's decision: the best of several, on a loaded machine.
constexpr milliseconds kAtOnce{50};

constexpr std::chrono::seconds kPatience{20};

std::string textOf(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/// A watch beside the lab's containers, and what it tells with the time at which it did.
class ResourceLabTest : public LabTest {
protected:
    struct Told {
        AlertSignal signal;
        steady_clock::time_point at;
    };

    void startWatch() {
        watch_ = std::make_unique<ResourceWatch>(
            ResourceWatchSettings{.host = hostEid_,
                                  .times = times_,
                                  .memoryRoot = memoryRootOf(cgroupMountsIn(textOf("/proc/self/mountinfo")))},
            [this](AlertSignal signal) {
                const std::lock_guard lock(mutex_);
                fmt::print("[  told     ] {} {} \"{}\" {}\n", signal.source, signal.code, signal.text, signal.value);
                told_.push_back({std::move(signal), steady_clock::now()});
            },
            [](Severity, const std::string& line) { ADD_FAILURE() << line; });
    }

    void TearDown() override {
        watch_.reset();
        LabTest::TearDown();
    }

    static Eid eidOf(const std::string& name) { return Eid::fromName("the-machine", "lxc/" + name); }

    static ResourceFolders foldersOf(const std::string& name, const std::string& configured = {}) {
        return resourceFoldersOf(cgroupMountsIn(textOf("/proc/self/mountinfo")), initOf(name), configured);
    }

    void makeAndStart(const std::string& name, const std::string& settings = "") {
        make(name);
        writeFile(fmt::format("{}/{}/config", kLabPath, name), settings, true);
        ASSERT_TRUE(host_.run(lab({"start", name})));
    }

    void track(const std::string& name, const std::string& configured = {}) {
        const ResourceFolders folders = foldersOf(name, configured);
        ASSERT_FALSE(folders.memory.path.empty());
        ASSERT_FALSE(folders.pids.path.empty());
        watch_->track(eidOf(name), folders);
    }

    /// @return the words of a command inside a container
    static std::vector<std::string> inside(const std::string& name, const std::string& script) {
        return {"lxc-attach", "-n", name, "--", "/bin/sh", "-c", script};
    }

    /// @return the line of a configuration that sets a limit in place of the lab's usual one
    static std::string memoryLimit(const std::string& size) {
        const bool v2 = std::filesystem::exists("/sys/fs/cgroup/cgroup.controllers");
        return (v2 ? "lxc.cgroup2.memory.max = " : "lxc.cgroup.memory.limit_in_bytes = ") + size + "\n";
    }

    /// Takes so much memory that something is killed.
    void hog(const std::string& name) {
        Command command(inside(name, "dd if=/dev/zero of=/dev/null bs=300M count=1 2>/dev/null"));
        ASSERT_TRUE(host_.waitUntil([&] { return command.ended(); }, kPatience));
        EXPECT_NE(command.status(), 0) << "was not killed";
    }

    std::vector<Told> told(const std::string& source, const Eid& about) {
        const std::lock_guard lock(mutex_);
        std::vector<Told> found;
        std::copy_if(told_.begin(), told_.end(), std::back_inserter(found),
                     [&](const Told& one) { return one.signal.source == source && one.signal.about == about; });
        return found;
    }

    /// What was told of processes killed in a container, without the end of it, which may come in between.
    std::vector<Told> kills(const std::string& name) {
        std::vector<Told> found = told(kMemoryOomSource, eidOf(name));
        std::erase_if(found, [](const Told& one) { return one.signal.code != kAlertCritical; });
        return found;
    }

    bool tells(const std::string& source, const Eid& about, std::int32_t code) {
        return host_.waitUntil(
            [&] {
                const auto all = told(source, about);
                return std::any_of(all.begin(), all.end(), [&](const Told& one) { return one.signal.code == code; });
            },
            kPatience);
    }

    void forgetTold() {
        const std::lock_guard lock(mutex_);
        told_.clear();
    }

    const Eid hostEid_ = Eid::fromName("the-machine", "host");
    ResourceTimes times_;
    std::mutex mutex_;
    std::vector<Told> told_;  ///< guarded by mutex_
    std::unique_ptr<ResourceWatch> watch_;
};

TEST_F(ResourceLabTest, aKilledProcessIsToldAtOnceAndIsOverInItsTime) {
    times_.quietAfterKill = milliseconds(1500);
    makeAndStart("web");
    startWatch();
    track("web");
    auto least = steady_clock::duration::max();
    for (std::size_t kill = 1; kill <= 5; ++kill) {
        hog("web");
        const auto ended = steady_clock::now();
        ASSERT_TRUE(host_.waitUntil([&] { return kills("web").size() >= kill; }, kPatience));
        const Told last = kills("web").back();
        fmt::print("[  measured ] told {:+.1f} ms from the killed program's end\n",
                   std::chrono::duration<double, std::milli>(last.at - ended).count());
        least = std::min(least, last.at - ended);
        EXPECT_EQ(last.signal.value, static_cast<std::int64_t>(kill));
    }
    EXPECT_LT(least, kAtOnce);
    EXPECT_EQ(kills("web").size(), 5U);
    EXPECT_TRUE(tells(kMemoryOomSource, eidOf("web"), kAlertClear));
    EXPECT_THAT(told(kHostOomSource, hostEid_), IsEmpty());
}

TEST_F(ResourceLabTest, killsInACgroupOfTheContainersOwnAreToldToo) {
    makeAndStart("web");
    const ResourceFolder memory = foldersOf("web").memory;
    if (memory.v2) {
        GTEST_SKIP() << "v2 counts them itself";
    }
    startWatch();
    track("web");
    // The limit of the inner one: the outer one is told nothing by the kernel.
    ASSERT_EQ(::mkdir((memory.path + "/inner").c_str(), 0755), 0);
    tellKernel(memory.path + "/inner/memory.limit_in_bytes", "16M");
    Command command(inside("web", "sleep 0.3; dd if=/dev/zero of=/dev/null bs=300M count=1 2>/dev/null"));
    ASSERT_TRUE(host_.waitUntil(
        [&] {
            // lxc-attach's child is the shell inside; moved before it takes memory.
            tellKernel(memory.path + "/inner/cgroup.procs",
                       textOf(fmt::format("/proc/{0}/task/{0}/children", command.pid())));
            return !textOf(memory.path + "/inner/cgroup.procs").empty();
        },
        kPatience));
    EXPECT_TRUE(tells(kMemoryOomSource, eidOf("web"), kAlertCritical));
    EXPECT_TRUE(host_.waitUntil([&] { return command.ended(); }, kPatience));
    EXPECT_THAT(told(kHostOomSource, hostEid_), IsEmpty());
    EXPECT_TRUE(host_.waitUntil([&] { return ::rmdir((memory.path + "/inner").c_str()) == 0; }, kPatience));
}

TEST_F(ResourceLabTest, ofAContainerWithAnInnerCgroupTheOuterOneHasTheLimitsAndTheState) {
    const std::string outer = "lxc.kxtest/web";
    makeAndStart("web", "lxc.cgroup.dir.container = " + outer +
                            "\nlxc.cgroup.dir.container.inner = ns\n"
                            "lxc.cgroup.dir.monitor = lxc.kxtest-monitor/web\n");
    const ResourceFolders folders = foldersOf("web", outer);
    for (const std::string& path : {folders.memory.path, folders.pids.path}) {
        EXPECT_THAT(path, testing::EndsWith("/" + outer));
    }
    EXPECT_THAT(foldersOf("web").memory.path, testing::EndsWith(outer + "/ns")) << "where its processes are";
    ASSERT_TRUE(readMemoryLimit(folders.memory));
    EXPECT_EQ(*readMemoryLimit(folders.memory), 64U * 1024 * 1024);
    EXPECT_EQ(readPidsLimit(folders.pids.path), 64U);
    startWatch();
    track("web", outer);
    hog("web");
    EXPECT_TRUE(tells(kMemoryOomSource, eidOf("web"), kAlertCritical));
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Running); }));
    host_.act({"freeze", "web"}, [&] { return host_.is("web", State::Frozen); });
    host_.act({"unfreeze", "web"}, [&] { return host_.is("web", State::Running); });
}

TEST_F(ResourceLabTest, theLimitOfProcessesIsToldAndIsOverInItsTime) {
    times_.look = milliseconds(200);
    times_.quietAfterPids = milliseconds(1000);
    makeAndStart("web");
    startWatch();
    track("web");
    // The shell ends with the first process that it cannot make.
    Command bomb(inside("web", "i=0; while [ $i -lt 100 ]; do sleep 2 & i=$((i + 1)); done"));
    ASSERT_TRUE(tells(kPidsLimitSource, eidOf("web"), kAlertCritical));
    EXPECT_GE(told(kPidsLimitSource, eidOf("web")).at(0).signal.value, 60) << "processes of 64";
    EXPECT_TRUE(tells(kPidsLimitSource, eidOf("web"), kAlertClear));
    EXPECT_TRUE(host_.waitUntil([&] { return bomb.ended(); }, kPatience));
    EXPECT_LT(told(kPidsLimitSource, eidOf("web")).back().signal.value, 58);
}

TEST_F(ResourceLabTest, aContainerThatIsStoppedIsNoAlert) {
    makeAndStart("other");
    make("web");
    startWatch();
    track("other");
    for (int round = 0; round < 5; ++round) {
        ASSERT_TRUE(host_.run(lab({"start", "web"})));
        track("web");
        // Late, as the owner notices it: the cgroup has gone by then.
        ASSERT_TRUE(host_.run(lab({"stop", "web"})));
        watch_->untrack(eidOf("web"));
    }
    hog("other");
    ASSERT_TRUE(tells(kMemoryOomSource, eidOf("other"), kAlertCritical));
    EXPECT_THAT(told(kMemoryOomSource, eidOf("web")), IsEmpty());
    EXPECT_THAT(told(kMemoryLimitSource, eidOf("web")), IsEmpty());
    EXPECT_THAT(told(kPidsLimitSource, eidOf("web")), IsEmpty());
}

TEST_F(ResourceLabTest, aContainerThatDiesOfItIsToldNotTheHost) {
    times_.look = milliseconds(100);
    make("web");
    const std::string root = fmt::format("{}/web/rootfs", kLabPath);
    writeFile(root + "/hog",
              "#!/bin/sh\nwhile [ ! -e /go ]; do sleep 0.02; done\n"
              "exec dd if=/dev/zero of=/dev/null bs=300M count=1\n");
    ASSERT_EQ(::chmod((root + "/hog").c_str(), 0755), 0);
    writeFile(fmt::format("{}/web/config", kLabPath), "lxc.init.cmd = /hog\n", true);
    ASSERT_TRUE(host_.run(lab({"start", "web"})));
    startWatch();
    track("web");
    const pid_t init = initOf("web");
    writeFile(root + "/go", "");
    ASSERT_TRUE(host_.waitUntil([&] { return ::kill(init, 0) != 0; }, kPatience));
    watch_->untrack(eidOf("web"));
    EXPECT_TRUE(tells(kMemoryOomSource, eidOf("web"), kAlertCritical));
    // Had it been taken for the host's, that would be told after two looks.
    EXPECT_FALSE(host_.waitUntil([&] { return !told(kHostOomSource, hostEid_).empty(); }, 5 * times_.look));
}

TEST_F(ResourceLabTest, aProcessKilledForTheLimitOfAnotherCgroupIsNotTheHosts) {
    times_.look = milliseconds(100);
    makeAndStart("web");
    startWatch();
    track("web");
    const bool v2 = foldersOf("web").memory.v2;
    const std::string folder =
        (v2 ? "/sys/fs/cgroup/" : "/sys/fs/cgroup/memory/") + fmt::format("kxtest.{}", ::getpid());
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    tellKernel(folder + (v2 ? "/memory.max" : "/memory.limit_in_bytes"), "16M");
    Command command(
        {"/bin/sh", "-c", "echo $$ >" + folder + "/cgroup.procs; exec dd if=/dev/zero of=/dev/null bs=300M count=1"});
    ASSERT_TRUE(host_.waitUntil([&] { return command.ended(); }, kPatience));
    EXPECT_NE(command.status(), 0) << "it is killed";
    // Taken for the host's it would be raised after two looks.
    EXPECT_FALSE(host_.waitUntil([&] { return !told(kHostOomSource, hostEid_).empty(); }, 5 * times_.look));
    EXPECT_THAT(told(kMemoryOomSource, eidOf("web")), IsEmpty());
    EXPECT_TRUE(host_.waitUntil([&] { return ::rmdir(folder.c_str()) == 0; }, kPatience));
}

TEST_F(ResourceLabTest, aFileCacheThatFillsTheLimitIsHealthyAndProcessesThatDoAreNot) {
    times_.look = milliseconds(200);
    times_.confirmLevel = milliseconds(2500);
    times_.quietAfterLevel = milliseconds(500);
    // On a disk: the lab's own files are in memory, and /tmp may be, where there is no cache to be dropped.
    const test::TemporaryFolder disk("/var/tmp");
    makeAndStart("web", memoryLimit("200M") + "lxc.mount.entry = " + disk.path() + " mnt none bind 0 0\n");
    startWatch();
    track("web");
    const ResourceFolder memory = foldersOf("web").memory;
    const std::uint64_t before = readMemoryHits(memory).value_or(0);
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(host_.run(inside("web", "dd if=/dev/zero of=/mnt/file bs=1M count=300 conv=notrunc 2>/dev/null")));
    }
    ASSERT_GT(readMemoryHits(memory).value_or(0), before) << "the limit was not hit";
    EXPECT_THAT(told(kMemoryLimitSource, eidOf("web")), IsEmpty());
    // dd fills its buffer and waits for somebody to read it.
    ASSERT_TRUE(host_.run(inside("web", "mkdir -p /tmp; busybox mkfifo /tmp/pipe")));
    Command holder(inside("web", "dd if=/dev/zero of=/tmp/pipe bs=192M count=1 2>/dev/null"));
    // Whoever reads a file hits the limit.
    Command reader(inside("web", "while [ ! -e /done ]; do cat /mnt/file >/dev/null; done"));
    Command opener(inside("web", "sleep 100 </tmp/pipe"));
    EXPECT_TRUE(tells(kMemoryLimitSource, eidOf("web"), kAlertWarning));
    const auto all = told(kMemoryLimitSource, eidOf("web"));
    EXPECT_GT(all.empty() ? 0 : all[0].signal.value, 190 * 1024 * 1024);
    ASSERT_TRUE(host_.run(inside("web", "busybox killall dd sleep; echo >/done")));
    EXPECT_TRUE(tells(kMemoryLimitSource, eidOf("web"), kAlertClear));
}

}  // namespace
}  // namespace kx::agent::lxc
