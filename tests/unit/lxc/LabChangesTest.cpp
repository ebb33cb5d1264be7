// Every kind of change of real containers is seen within a second.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "agent/base/OwnedDescriptor.h"
#include "tests/unit/lxc/LabRig.h"

namespace kx::agent::lxc {
namespace {

using ::testing::ElementsAre;
using ::testing::Optional;

/// A command of the lab takes well under a second; one that hangs must fail its test, not hold it for ever.
constexpr std::chrono::seconds kCommandPatience{20};

class LabChangesTest : public LabTest {};

TEST_F(LabChangesTest, theLifeOfAContainerIsSeenStepByStep) {
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.images() > 0; })) << "an empty host is told of too";
    EXPECT_EQ(host_.containers(), 0U);
    host_.act({"create", "web"}, [&] { return host_.is("web", State::Stopped); });
    for (int round = 0; round < 3; ++round) {
        host_.act({"start", "web"}, [&] { return host_.is("web", State::Running); });
        host_.act({"freeze", "web"}, [&] { return host_.is("web", State::Frozen); });
        host_.act({"unfreeze", "web"}, [&] { return host_.is("web", State::Running); });
        host_.act({"stop", "web"}, [&] { return host_.is("web", State::Stopped); });
    }
    host_.act({"destroy", "web"}, [&] { return host_.find("web") == nullptr; });
}

TEST_F(LabChangesTest, whatIsThereAtTheStartIsTold) {
    make("101");
    make("web", "-");
    ASSERT_TRUE(host_.run(lab({"start", "101"})));
    ASSERT_TRUE(host_.run(lab({"freeze", "101"})));
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.images() > 0; }));
    EXPECT_EQ(host_.containers(), 2U) << "the first image is whole";
    ASSERT_TRUE(host_.is("101", State::Frozen));
    const Environment& numbered = *host_.find("101");
    EXPECT_EQ(numbered.veid, 101);
    EXPECT_EQ(numbered.hostname, "101.example.test");
    EXPECT_EQ(numbered.osTemplate, (Template{"busyboxlab", "1.35"}));
    EXPECT_EQ(numbered.eid, Eid::fromName("the-machine", "lxc/101"));
    EXPECT_EQ(numbered.type, "lumetra");
    const Environment& named = *host_.find("web");
    EXPECT_EQ(named.veid, 1000000);
    EXPECT_EQ(named.hostname, "web");
    EXPECT_EQ(named.description, std::nullopt);
}

TEST_F(LabChangesTest, aFreezeThatLxcWasNotAskedForIsSeenToo) {
    make("web");
    host_.start();
    host_.act({"start", "web"}, [&] { return host_.is("web", State::Running); });
    const pid_t init = initOf("web");
    tellFreezer(init, true);
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Frozen); }));
    tellFreezer(init, false);
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Running); }));
}

TEST_F(LabChangesTest, aContainerWhoseInitEndsByItselfIsSeenToStop) {
    make("web");
    host_.start();
    host_.act({"start", "web"}, [&] { return host_.is("web", State::Running); });
    // What it brings about may kill the command itself, so whether it succeeded is not asked.
    host_.run({"lxc-attach", "-n", "web", "--", "/bin/poweroff"});
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }, kNoticed * 5));
}

TEST_F(LabChangesTest, aContainerThatIsStartedAgainAtOnceEndsUpRunning) {
    make("web");
    host_.start();
    host_.act({"start", "web"}, [&] { return host_.is("web", State::Running); });
    for (int round = 0; round < 5; ++round) {
        ASSERT_TRUE(host_.run(lab({"stop", "web"})));
        ASSERT_TRUE(host_.run(lab({"start", "web"})));
        EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Running); }));
    }
    host_.act({"stop", "web"}, [&] { return host_.is("web", State::Stopped); });
}

TEST_F(LabChangesTest, notesAreSeenWhenTheyChangeAndWrongOnesDoNotReplaceThem) {
    make("web");
    host_.start();
    const auto described = [&](const std::optional<std::string>& text) {
        return host_.find("web") != nullptr && host_.find("web")->description == text;
    };
    ASSERT_TRUE(host_.waitUntil([&] { return described(std::nullopt); }));
    const std::string file = "/var/lib/lxc/web/kx.toml";
    writeFile(file, "description = \"front\"\ntemplates = [ { name = \"nginx\", version = \"1.24\" } ]\n");
    ASSERT_TRUE(host_.waitUntil([&] { return described("front"); }));
    EXPECT_THAT(host_.find("web")->templates, Optional(ElementsAre(Template{"nginx", "1.24"})));
    const std::size_t before = host_.images();
    writeFile(file, "description = 7\n");
    writeFile("/var/lib/lxc/web/new.toml", "description = \"renamed into place\"\n");
    std::filesystem::rename("/var/lib/lxc/web/new.toml", file);
    ASSERT_TRUE(host_.waitUntil([&] { return described("renamed into place"); }));
    EXPECT_EQ(host_.images(), before + 1);
    std::filesystem::remove(file);
    EXPECT_TRUE(host_.waitUntil([&] { return described(std::nullopt); }));
}

TEST_F(LabChangesTest, aWrongNoteIsReportedOnceAChangeAndHidesNothing) {
    make("web");
    const std::string file = "/var/lib/lxc/web/kx.toml";
    writeFile(file, "description = \"front\"\nno_such_key = 7\n");
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
    EXPECT_EQ(host_.logged(file + ":2:1: "), 1U);
    EXPECT_EQ(host_.find("web")->description, std::nullopt);
    for (const std::string name : {"one.example", "two.example"}) {
        // Closing a file that may have been written is a reason to read it again; this one is the same as before.
        ASSERT_TRUE(OwnedDescriptor(::open(file.c_str(), O_WRONLY | O_CLOEXEC)));
        writeFile("/var/lib/lxc/web/config", "lxc.uts.name = " + name + "\n", true);
        ASSERT_TRUE(host_.waitUntil([&] { return host_.find("web")->hostname == name; }));
    }
    EXPECT_EQ(host_.logged("kx.toml"), 1U);
    writeFile(file, "\n\nno_such_key = 7\n");
    EXPECT_TRUE(host_.waitUntil([&] { return host_.logged(file + ":3:1: ") == 1; }));
    EXPECT_TRUE(host_.is("web", State::Stopped));
}

TEST_F(LabChangesTest, theProductsVersionIsTheOneTheBackendWasGiven) {
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.images() > 0; }));
    EXPECT_EQ(host_.vocabularies(), standardVocabularies(kLabVersion));
}

TEST_F(LabChangesTest, aChangedConfigurationIsSeen) {
    make("web");
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
    writeFile("/var/lib/lxc/web/config", "lxc.uts.name = other.example\n", true);
    EXPECT_TRUE(host_.waitUntil([&] { return host_.find("web")->hostname == "other.example"; }));
}

TEST_F(LabChangesTest, aRenamedContainerIsAnotherAndTheOldIdIsKeptForItsName) {
    make("web");
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.find("web") != nullptr; }));
    std::filesystem::rename("/var/lib/lxc/web", "/var/lib/lxc/db");
    ASSERT_TRUE(host_.waitUntil([&] { return host_.find("db") != nullptr && host_.find("web") == nullptr; }));
    EXPECT_EQ(host_.find("db")->veid, 1000001);
    writeFile("/var/lib/lxc/db/kx.toml", "description = \"still watched\"\n");
    EXPECT_TRUE(host_.waitUntil([&] { return host_.find("db")->description == "still watched"; }));
    std::filesystem::rename("/var/lib/lxc/db", "/var/lib/lxc/web");
    ASSERT_TRUE(host_.waitUntil([&] { return host_.find("web") != nullptr && host_.find("db") == nullptr; }));
    EXPECT_EQ(host_.find("web")->veid, 1000000);
}

TEST_F(LabChangesTest, nothingIsDeliveredAfterTheStop) {
    make("web");
    host_.start();
    ASSERT_TRUE(host_.waitUntil([&] { return host_.find("web") != nullptr; }));
    host_.act({"start", "web"}, [&] { return host_.is("web", State::Running); });
    // The change is made while nobody delivers, so its image may be on its way when the backend is stopped.
    Command stop(lab({"stop", "web"}));
    const auto deadline = std::chrono::steady_clock::now() + kCommandPatience;
    while (!stop.ended()) {
        ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the container does not stop";
        ::usleep(1000);
    }
    host_.stop();
    const std::size_t before = host_.images();
    EXPECT_FALSE(host_.waitUntil([&] { return host_.images() != before; }, std::chrono::milliseconds(100)));
    host_.start();
    EXPECT_TRUE(host_.waitUntil([&] { return host_.is("web", State::Stopped); }));
}

TEST(LabPathTest, aPathThatAppearsLaterIsWatchedThen) {
    const std::string path = "/var/lib/lxc/.later/lxc";
    std::filesystem::create_directories("/var/lib/lxc/.later");
    {
        LabHost host(path);
        host.start();
        ASSERT_TRUE(host.waitUntil([&] { return host.images() > 0; }));
        std::filesystem::create_directories(path + "/box");
        writeFile(path + "/box/config", "lxc.uts.name = box\n");
        EXPECT_TRUE(host.waitUntil([&] { return host.is("box", State::Stopped); }));
        std::filesystem::remove_all(path);
        EXPECT_TRUE(host.waitUntil([&] { return host.containers() == 0; }));
        std::filesystem::create_directories(path + "/again");
        writeFile(path + "/again/config", "");
        EXPECT_TRUE(host.waitUntil([&] { return host.is("again", State::Stopped); }));
    }
    std::filesystem::remove_all("/var/lib/lxc/.later");
}

TEST(LabPathTest, aPathWithoutAFolderAboveItIsAnErrorThatNamesIt) {
    LabHost host("/nowhere/at/all");
    try {
        host.start();
        FAIL() << "started";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), ::testing::HasSubstr("/nowhere/at/all"));
    }
}

TEST(LabPathTest, aHostHasContainersWhenOneIsConfigured) {
    const test::TemporaryFolder path;
    EXPECT_FALSE(lxcHasContainers(path / "missing"));
    std::filesystem::create_directories(path / "empty");
    path.write(".hidden/config", "");
    EXPECT_FALSE(lxcHasContainers(path.path()));
    path.write("web/config", "");
    EXPECT_TRUE(lxcHasContainers(path.path()));
}

}  // namespace
}  // namespace kx::agent::lxc
