// The agent as a whole, in a child process of its own: it takes the process's signals.
#include "agent/core/Agent.h"

#include <fcntl.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "agent/base/File.h"
#include "tests/unit/agent/ServerFixture.h"

namespace kx::agent {
namespace {

using test::eventually;
using test::Peer;
using testing::HasSubstr;
using testing::StartsWith;

/// @return the names of the environments behind the host; nothing when there is no agent that tells
std::optional<std::vector<std::string>> containersShownBy(const std::string& socket) {
    try {
        Peer peer(socket);
        peer.sendHello();
        peer.askForSnapshot();
        const auto hello = peer.receive();
        const auto frame = peer.receive();
        if (!hello || !frame || !frame->has_snapshot_chunk()) {
            return std::nullopt;
        }
        std::vector<std::string> names;
        for (const wire::Environment& environment : frame->snapshot_chunk().environments()) {
            names.push_back(environment.configuration().name());
        }
        names.erase(names.begin());
        return names;
    } catch (const std::runtime_error&) {  // nobody listens
        return std::nullopt;
    }
}

class AgentTest : public testing::Test {
protected:
    AgentTest() {
        writeConfig("agent.sock", "inventory.toml");
        writeInventory("inventory.toml", {"first"});
    }

    ~AgentTest() override {
        if (child_ > 0) {
            ::kill(child_, SIGKILL);
            ::waitpid(child_, nullptr, 0);
        }
    }

    void writeConfig(const std::string& socket, const std::string& inventory, const std::string& more = "") {
        ASSERT_EQ(replaceFile(config_, "socket = '" + (folder_ / socket) + "'\nstate_directory = '" +
                                           folder_ / "state" + "'\nbackend = 'simulated'\n[simulated]\n" +
                                           "inventory = '" + folder_ / inventory + "'\n" + more),
                  "");
    }

    void writeInventory(const std::string& name, const std::vector<std::string>& environments) {
        std::string text;
        for (const std::string& environment : environments) {
            text += "[[environment]]\nname = '" + environment + "'\n";
        }
        ASSERT_EQ(replaceFile(folder_ / name, text), "");
    }

    /// Starts the agent in a child process; its log goes to a file.
    void start() {
        child_ = ::fork();
        if (child_ != 0) {
            return;
        }
        const int log = ::open(log_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        ::dup2(log, STDERR_FILENO);
        int status = 0;
        try {
            Agent({config_, true, "kxagentd test"}).run();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "%s\n", error.what());
            status = 1;
        }
        std::_Exit(status);
    }

    int waitForExit() {
        int status = -1;
        EXPECT_TRUE(eventually([&] { return ::waitpid(child_, &status, WNOHANG) == child_; }));
        child_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string logged() {
        std::string problem;
        return readRegularFile(log_, 1000000, problem).value_or("");
    }

    bool isLogged(const std::string& text) {
        return eventually([&] { return logged().find(text) != std::string::npos; });
    }

    /// Waits until the agent shows these environments behind the host.
    bool shows(const std::string& socket, const std::vector<std::string>& names) {
        return eventually([&] { return containersShownBy(folder_ / socket) == names; });
    }

    test::TemporaryFolder folder_;
    const std::string config_ = folder_ / "kxagentd.toml";
    const std::string log_ = folder_ / "log";
    pid_t child_ = -1;
};

TEST_F(AgentTest, ServesWhatItFindsAndSaysSoInOneLine) {
    start();
    ASSERT_TRUE(shows("agent.sock", {"first"}));
    EXPECT_THAT(logged(), HasSubstr("kxagentd test: backend simulated, 2 environments with the host, listening on " +
                                    folder_ / "agent.sock"));
    ::kill(child_, SIGTERM);
    EXPECT_EQ(waitForExit(), 0);
    EXPECT_FALSE(std::filesystem::exists(folder_ / "agent.sock"));
}

TEST_F(AgentTest, AnInterruptEndsItInOrderToo) {
    start();
    ASSERT_TRUE(shows("agent.sock", {"first"}));
    ::kill(child_, SIGINT);
    EXPECT_EQ(waitForExit(), 0);
}

TEST_F(AgentTest, WithoutAnInventoryItDoesNotStart) {
    std::filesystem::remove(folder_ / "inventory.toml");
    start();
    EXPECT_EQ(waitForExit(), 1);
    EXPECT_THAT(logged(), HasSubstr(folder_ / "inventory.toml"));
    EXPECT_FALSE(std::filesystem::exists(folder_ / "agent.sock"));
}

TEST_F(AgentTest, AWrongConfigurationLeavesTheOldInForce) {
    start();
    ASSERT_TRUE(shows("agent.sock", {"first"}));
    ASSERT_EQ(replaceFile(config_, "socket = 1\n"), "");
    ::kill(child_, SIGHUP);
    EXPECT_TRUE(isLogged("kept the old configuration: " + config_ + ":1:10:")) << logged();
    EXPECT_TRUE(shows("agent.sock", {"first"}));
}

TEST_F(AgentTest, ANewInventoryPathIsReadAndClientsStayConnected) {
    start();
    ASSERT_TRUE(shows("agent.sock", {"first"}));
    Peer client(folder_ / "agent.sock");
    client.shakeHands();
    client.askForSnapshot();
    ASSERT_TRUE(client.receive()->has_snapshot_chunk());
    writeInventory("other.toml", {"second"});
    writeConfig("agent.sock", "other.toml");
    ::kill(child_, SIGHUP);
    const auto frame = client.receive();
    ASSERT_TRUE(frame && frame->has_delta());
    ASSERT_EQ(frame->delta().changed_size(), 1);
    EXPECT_EQ(frame->delta().changed(0).configuration().name(), "second");
    EXPECT_TRUE(shows("agent.sock", {"second"}));
}

TEST_F(AgentTest, AnInventoryPathWithNothingGoodLeavesTheOldOneWatched) {
    start();
    ASSERT_TRUE(shows("agent.sock", {"first"}));
    writeConfig("agent.sock", "none.toml");
    ::kill(child_, SIGHUP);
    EXPECT_TRUE(isLogged("kept the old configuration")) << logged();
    writeInventory("inventory.toml", {"first", "third"});
    EXPECT_TRUE(shows("agent.sock", {"first", "third"}));
}

TEST_F(AgentTest, ANewSocketIsServedAndTheOldOneGoes) {
    start();
    ASSERT_TRUE(shows("agent.sock", {"first"}));
    Peer client(folder_ / "agent.sock");
    client.shakeHands();
    writeConfig("new/agent.sock", "inventory.toml");
    ::kill(child_, SIGHUP);
    const auto frame = client.receive();
    ASSERT_TRUE(frame);
    EXPECT_EQ(frame->error().code(), wire::ERROR_SHUTTING_DOWN);
    EXPECT_TRUE(shows("new/agent.sock", {"first"}));
    EXPECT_FALSE(std::filesystem::exists(folder_ / "agent.sock"));
}

TEST_F(AgentTest, ASocketThatCannotBeMadeLeavesTheOldOneServed) {
    std::ofstream(folder_ / "file") << "in the way";
    start();
    ASSERT_TRUE(shows("agent.sock", {"first"}));
    writeConfig("file", "inventory.toml");
    ::kill(child_, SIGHUP);
    EXPECT_TRUE(isLogged("kept the old configuration: cannot listen on")) << logged();
    EXPECT_TRUE(shows("agent.sock", {"first"}));
}

/// Tells the agent to report an alert about a container.
/// @return the answer
wire::Frame raise(Peer& peer, std::int32_t veid, const std::string& text) {
    wire::Frame frame;
    frame.set_request_id(1);
    frame.mutable_alert_raise()->set_veid(veid);
    frame.mutable_alert_raise()->set_text(text);
    peer.send(frame);
    return peer.receive().value_or(wire::Frame());
}

/// @return the texts of as many alerts as are asked for, as they come
std::vector<std::string> nextTexts(Peer& subscriber, std::size_t count) {
    std::vector<std::string> texts;
    while (texts.size() < count) {
        const auto frame = subscriber.receive();
        if (!frame) {
            break;
        }
        for (const wire::Event& event : frame->event_message().events()) {
            texts.push_back(event.resource_alert().text());
        }
    }
    return texts;
}

TEST_F(AgentTest, AlertsOfADescribedHostGoThroughTheEngineWithTheLimitsOfTheConfiguration) {
    // So long that all three are taken within it.
    writeConfig("agent.sock", "inventory.toml", "[alerts]\nrepeat_seconds = 2\n");
    ASSERT_EQ(replaceFile(folder_ / "inventory.toml", "[[environment]]\nname = 'first'\nveid = 101\n"), "");
    start();
    ASSERT_TRUE(shows("agent.sock", {"first"}));
    Peer subscriber(folder_ / "agent.sock");
    subscriber.shakeHands();
    wire::Frame frame;
    frame.mutable_event_subscribe()->set_name("events");
    subscriber.send(frame);
    ASSERT_TRUE(subscriber.receive()->has_done());
    Peer peer(folder_ / "agent.sock");
    peer.shakeHands();
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(raise(peer, 101, "oom").has_done());
    }
    EXPECT_THAT(raise(peer, 102, "oom").refusal().text(), HasSubstr("102"));
    EXPECT_THAT(nextTexts(subscriber, 2), testing::ElementsAre("oom", "oom (and 1 more)"));
    writeConfig("agent.sock", "inventory.toml", "[alerts]\nrepeat_seconds = 0\n");
    ::kill(child_, SIGHUP);
    ASSERT_TRUE(isLogged("read the configuration again")) << logged();
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(raise(peer, 101, "again").has_done());
    }
    EXPECT_THAT(nextTexts(subscriber, 3), testing::ElementsAre("again", "again", "again"));
}

TEST_F(AgentTest, ARealHostTakesNoAlertsFromClients) {
    ASSERT_EQ(
        replaceFile(config_, "socket = '" + (folder_ / "agent.sock") + "'\nstate_directory = '" + folder_ / "state" +
                                 "'\nbackend = 'lxc'\n[lxc]\npath = '" + folder_ / "lxc" + "'\n"),
        "");
    start();
    ASSERT_TRUE(shows("agent.sock", {}));
    Peer peer(folder_ / "agent.sock");
    peer.shakeHands();
    EXPECT_THAT(raise(peer, 101, "oom").refusal().text(), HasSubstr("only a described host"));
}

TEST_F(AgentTest, CheckingSaysNothingOfAGoodConfigurationAndWritesNothing) {
    EXPECT_EQ(checkConfiguration({config_, true, ""}), "");
    EXPECT_FALSE(std::filesystem::exists(folder_ / "state"));
    EXPECT_FALSE(std::filesystem::exists(folder_ / "agent.sock"));
}

TEST_F(AgentTest, CheckingFindsErrorsInEitherFile) {
    ASSERT_EQ(replaceFile(folder_ / "inventory.toml", "[[environment]]\nname = 7\n"), "");
    EXPECT_THAT(checkConfiguration({config_, true, ""}), StartsWith(folder_ / "inventory.toml" + ":2:"));
    ASSERT_EQ(replaceFile(config_, "backend = 7\n"), "");
    EXPECT_THAT(checkConfiguration({config_, true, ""}), StartsWith(config_ + ":1:11:"));
}

TEST_F(AgentTest, CheckingLooksAtTheInventoryOnlyWhereItWouldBeUsed) {
    ASSERT_EQ(replaceFile(config_, "backend = 'lxc'\n[simulated]\ninventory = '/none'\n"), "");
    EXPECT_EQ(checkConfiguration({config_, true, ""}), "");
}

}  // namespace
}  // namespace kx::agent
