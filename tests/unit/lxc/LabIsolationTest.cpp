// A container costs itself only: its files may hang, its monitor may be silent, somebody may speak in its name.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <thread>

#include "agent/backends/lxc/CommandSocket.h"
#include "agent/base/OwnedDescriptor.h"
#include "tests/unit/lxc/LabRig.h"

namespace kx::agent::lxc {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Behind a full comparison, which takes place every 5 s.
constexpr milliseconds kCompared{7000 * kSlowness};

/// A file system that nobody serves: whoever looks into it waits until this goes.
class DeadMount {
public:
    explicit DeadMount(std::string path) : path_(std::move(path)), device_(::open("/dev/fuse", O_RDWR | O_CLOEXEC)) {
        const std::string options = fmt::format("fd={},rootmode=40000,user_id=0,group_id=0", device_.get());
        mounted_ = device_ && ::mount("dead", path_.c_str(), "fuse", 0, options.c_str()) == 0;
    }
    ~DeadMount() {
        device_.reset();
        if (mounted_) {
            ::umount2(path_.c_str(), MNT_DETACH);
        }
    }
    DeadMount(const DeadMount&) = delete;
    DeadMount& operator=(const DeadMount&) = delete;

    bool mounted() const { return mounted_; }

    /// Those who wait get an error.
    void giveUp() { device_.reset(); }

private:
    const std::string path_;
    OwnedDescriptor device_;
    bool mounted_ = false;
};

OwnedDescriptor listenAs(const std::string& name) {
    const std::string socketName = commandSocketName(kLabPath, name);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    socketName.copy(address.sun_path + 1, sizeof address.sun_path - 1);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + socketName.size());
    OwnedDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const bool listens = ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
                         ::listen(socket.get(), 100) == 0;
    return listens ? std::move(socket) : OwnedDescriptor();
}

/// Answers every question as a monitor of liblxc does: the container is running, and this is its init process.
void answerAll(int listener, pid_t init) {
    constexpr int kGetState = 3;
    constexpr int kRunning = 2;
    struct {
        int ret = 0;
        int dataLength = 0;
        std::int64_t data = 0;
    } answer;
    for (int number = 0; (number = ::accept(listener, nullptr, nullptr)) >= 0;) {
        const OwnedDescriptor connection(number);
        std::array<int, 64> question{};
        if (::recv(connection.get(), question.data(), sizeof question, 0) > 0) {
            answer.data = question[0] == kGetState ? kRunning : init;
            ::send(connection.get(), &answer, sizeof answer, MSG_NOSIGNAL);
        }
    }
}

/// A monitor that is a process of another user, or of this one.
class FalseMonitor {
public:
    FalseMonitor(const std::string& name, uid_t user, pid_t init) {
        std::array<int, 2> ready{};
        if (::pipe2(ready.data(), O_CLOEXEC) != 0) {
            return;
        }
        const OwnedDescriptor end(ready[0]);
        OwnedDescriptor begin(ready[1]);
        pid_ = ::fork();
        if (pid_ == 0) {
            const bool changed = ::setresuid(user, user, user) == 0;
            const OwnedDescriptor listener = listenAs(name);
            const char byte = changed && listener ? '+' : '-';
            if (::write(begin.get(), &byte, 1) == 1) {
                answerAll(listener.get(), init);
            }
            ::_exit(0);
        }
        begin.reset();
        char byte = 0;
        listens_ = ::read(end.get(), &byte, 1) == 1 && byte == '+';
    }
    ~FalseMonitor() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    FalseMonitor(const FalseMonitor&) = delete;
    FalseMonitor& operator=(const FalseMonitor&) = delete;

    bool listens() const { return listens_; }

private:
    pid_t pid_ = -1;
    bool listens_ = false;
};

class LabIsolationTest : public LabTest {
protected:
    /// Containers that have a configuration, and nothing else.
    static void makeMany(int count) {
        for (int number = 1; number <= count; ++number) {
            const std::string folder = fmt::format("/var/lib/lxc/{}", 5000 + number);
            std::filesystem::create_directories(folder);
            writeFile(folder + "/config", fmt::format("lxc.uts.name = ct{}\n", number));
        }
    }

    void expectOtherIsSeen() {
        host_.act({"start", "other"}, [&] { return host_.is("other", State::Running); });
        host_.act({"stop", "other"}, [&] { return host_.is("other", State::Stopped); });
    }

    void expectQuickStop() {
        const auto before = steady_clock::now();
        host_.stop();
        EXPECT_LT(steady_clock::now() - before, kNoticed);
    }
};

TEST_F(LabIsolationTest, aRootThatDoesNotAnswerHidesNothingElse) {
    make("other");
    make("web");
    ASSERT_TRUE(host_.run(lab({"start", "web"})));
    DeadMount dead("/var/lib/lxc/web/rootfs");
    if (!dead.mounted()) {
        GTEST_SKIP() << "no FUSE here";
    }
    const auto before = steady_clock::now();
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.images() > 0; }));
    fmt::print("[  measured ] first list after {} ms\n",
               std::chrono::duration_cast<milliseconds>(steady_clock::now() - before).count());
    EXPECT_EQ(host_.containers(), 2U);
    EXPECT_TRUE(host_.is("web", State::Running)) << "what does not need the root is known";
    expectOtherIsSeen();
    EXPECT_TRUE(host_.waitUntil(
        [&] { return host_.logged("container web: the file system of its root does not answer") == 1; }, kCompared));
    host_.act({"freeze", "web"}, [&] { return host_.is("web", State::Frozen); });
    host_.act({"unfreeze", "web"}, [&] { return host_.is("web", State::Running); });
    writeFile("/var/lib/lxc/web/kx.toml", "description = \"read\"\n");
    EXPECT_TRUE(host_.waitUntil([&] { return host_.find("web")->description == "read"; }));
    expectQuickStop();
    host_.start();
    dead.giveUp();
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Running); }));
}

TEST_F(LabIsolationTest, aRootThatAnswersAgainIsReadAgain) {
    make("web");
    auto dead = std::make_unique<DeadMount>("/var/lib/lxc/web/rootfs");
    if (!dead->mounted()) {
        GTEST_SKIP() << "no FUSE here";
    }
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
    EXPECT_EQ(host_.find("web")->osTemplate, std::nullopt);
    ASSERT_TRUE(
        host_.waitUntil([&] { return host_.logged("container web: the file system of its root") == 1; }, kCompared));
    dead.reset();
    EXPECT_TRUE(
        host_.waitUntil([&] { return host_.logged("container web: its files can be read again") == 1; }, kCompared));
    writeFile("/var/lib/lxc/web/config", "# changed\n", true);
    EXPECT_TRUE(host_.waitUntil([&] { return host_.find("web")->osTemplate == (Template{"busyboxlab", "1.35"}); }));
}

TEST_F(LabIsolationTest, aFolderThatDoesNotAnswerHidesNoOther) {
    make("other");
    make("web");
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
    const DeadMount dead("/var/lib/lxc/web");
    if (!dead.mounted()) {
        GTEST_SKIP() << "no FUSE here";
    }
    EXPECT_TRUE(host_.waitUntil(
        [&] { return host_.logged("container web: the file system of its folder does not answer") == 1; },
        2 * kCompared));
    EXPECT_TRUE(host_.is("web", State::Stopped));
    expectOtherIsSeen();
    expectQuickStop();
    host_.start();
    const auto before = steady_clock::now();
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("other", State::Stopped); }));
    EXPECT_LT(steady_clock::now() - before, kNoticed);
    host_.stop();
}

TEST_F(LabIsolationTest, hundredsOfSilentMonitorsDelayTheFirstListOnce) {
    constexpr int kSilent = 300;
    makeMany(kSilent);
    std::vector<OwnedDescriptor> monitors;
    for (int number = 1; number <= kSilent; ++number) {
        monitors.push_back(listenAs(std::to_string(5000 + number)));
        ASSERT_TRUE(monitors.back());
    }
    make("other");
    ASSERT_TRUE(host_.run(lab({"start", "other"})));
    const auto before = steady_clock::now();
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.images() > 0; }, milliseconds(2000 * kSlowness)));
    fmt::print("[  measured ] first list with {} silent monitors after {} ms\n", kSilent,
               std::chrono::duration_cast<milliseconds>(steady_clock::now() - before).count());
    EXPECT_EQ(host_.containers(), kSilent + 1U);
    EXPECT_TRUE(host_.is("other", State::Running));
    host_.act({"stop", "other"}, [&] { return host_.is("other", State::Stopped); });
    expectOtherIsSeen();
    EXPECT_TRUE(host_.waitUntil([&] { return host_.freshness().silent == kSilent; }, kCompared));
    EXPECT_LT(host_.freshness().age, kCompared);
    expectQuickStop();
}

TEST_F(LabIsolationTest, aMonitorOfAnotherUserIsNotBelieved) {
    make("web");
    const FalseMonitor monitor("web", 12345, 1);
    ASSERT_TRUE(monitor.listens());
    host_.start();
    ASSERT_TRUE(host_.waitUntil(
        [&] { return host_.logged("container web: its command socket belongs to a process of uid 12345") == 1; }));
    ASSERT_TRUE(host_.waitUntil([&] { return host_.find("web") != nullptr; }));
    EXPECT_TRUE(host_.is("web", State::Stopped));
    EXPECT_EQ(host_.pastOf("web").size(), host_.images());
    EXPECT_FALSE(host_.was("web", State::Running, Transition::None));
}

TEST_F(LabIsolationTest, aMonitorOfTheFoldersOwnerIsBelieved) {
    make("web");
    ASSERT_EQ(::chown("/var/lib/lxc/web", 12345, 12345), 0);
    const pid_t init = ::fork();
    if (init == 0) {
        ::pause();
        ::_exit(0);
    }
    {
        const FalseMonitor monitor("web", 12345, init);
        ASSERT_TRUE(monitor.listens());
        host_.start();
        EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Running); }));
    }
    ::kill(init, SIGKILL);
    ::waitpid(init, nullptr, 0);
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
}

// LXC may call it running for a moment longer. Watching it would end at once, again and again.
TEST_F(LabIsolationTest, anInitProcessThatHasEndedIsNotWatched) {
    make("web");
    const pid_t init = ::fork();
    if (init == 0) {
        ::_exit(0);
    }
    siginfo_t status{};
    ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(init), &status, WEXITED | WNOWAIT), 0);
    {
        const FalseMonitor monitor("web", 0, init);
        ASSERT_TRUE(monitor.listens());
        host_.start();
        EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Running, Transition::Stopping); }));
        EXPECT_FALSE(host_.was("web", State::Running, Transition::None));
    }
    ::waitpid(init, nullptr, 0);
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
}

TEST_F(LabIsolationTest, anIncludedFileThatComesLaterIsRead) {
    make("web");
    writeFile("/var/lib/lxc/web/config", "lxc.include = /var/lib/lxc/web/more\n", true);
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
    EXPECT_EQ(host_.logged("container web: /var/lib/lxc/web/more: No such file or directory (included by"), 1U);
    std::filesystem::create_directory("/var/lib/lxc/web/more");
    writeFile("/var/lib/lxc/web/more/1.conf", "lxc.uts.name = included\n");
    EXPECT_TRUE(host_.waitUntil([&] { return host_.find("web")->hostname == "included"; }, kCompared));
    EXPECT_EQ(host_.logged("container web: its config can be read again"), 1U);
}

TEST_F(LabIsolationTest, aLogFileThatCannotBeOpenedDecidesNothingAndIsNotMade) {
    make("web");
    make("db");
    ASSERT_TRUE(host_.run(lab({"start", "web"})));
    writeFile("/var/lib/lxc/web/config", "lxc.log.file = /proc/no/such/file\n", true);
    ASSERT_EQ(::mkfifo("/var/lib/lxc/db/pipe", 0600), 0);
    writeFile("/var/lib/lxc/db/config", "lxc.log.file = /var/lib/lxc/db/pipe\n", true);
    make("other");
    writeFile("/var/lib/lxc/other/config", "lxc.log.file = /var/lib/lxc/other/log\n", true);
    host_.start();
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Running); }));
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("db", State::Stopped) && host_.is("other", State::Stopped); }));
    EXPECT_EQ(host_.find("web")->hostname, "web.example.test");
    EXPECT_FALSE(std::filesystem::exists("/var/lib/lxc/other/log"));
    EXPECT_EQ(host_.logged("its config"), 0U);
    // LXC's own tools would fail on, or wait for, these files.
    for (const char* name : {"web", "db"}) {
        writeFile(fmt::format("/var/lib/lxc/{}/config", name), "");
    }
}

// One by the full comparison every 5 s would most likely be seen too late, eight of them are certain to be.
TEST_F(LabIsolationTest, changesAreSeenByNotice) {
    make("web");
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
    for (int change = 0; change < 8; ++change) {
        const std::string text = fmt::format("number {}", change);
        writeFile("/var/lib/lxc/web/kx.toml", "description = \"" + text + "\"\n");
        ASSERT_TRUE(host_.waitUntil([&] { return host_.find("web")->description == text; })) << change;
    }
}

TEST_F(LabIsolationTest, aFolderWhoseWatchHasGoneIsWatchedAgain) {
    make("web");
    ASSERT_EQ(::mount("none", "/var/lib/lxc/web", "tmpfs", 0, nullptr), 0);
    writeFile("/var/lib/lxc/web/config", "lxc.uts.name = above\n");
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.find("web") != nullptr; }));
    ASSERT_EQ(::umount("/var/lib/lxc/web"), 0);
    ASSERT_TRUE(host_.waitUntil([&] { return host_.find("web")->hostname == "web.example.test"; }, kCompared));
    for (int change = 0; change < 8; ++change) {
        const std::string text = fmt::format("number {}", change);
        writeFile("/var/lib/lxc/web/kx.toml", "description = \"" + text + "\"\n");
        ASSERT_TRUE(host_.waitUntil([&] { return host_.find("web")->description == text; })) << change;
    }
}

}  // namespace
}  // namespace kx::agent::lxc
