// The command line, and how kxctl ends.
#include "ctl/Program.h"

#include <gmock/gmock.h>

#include <fstream>

#include "tests/support/AgentScripts.h"
#include "tests/unit/ctl/ProgramRun.h"

namespace kx::test {
namespace {

using ctl::ExitCode;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using Arguments = std::vector<std::string>;

// ---- help and version -----------------------------------------------------------------------------------------------

TEST(Program, TellsItsVersion) {
    const Ended ended = runKxctl({"--version"});
    EXPECT_EQ(ended.code, ExitCode::Done);
    EXPECT_THAT(ended.out, MatchesRegex("kxctl [0-9]+\\.[0-9]+\\.[0-9]+\n"));
    EXPECT_EQ(ended.err, "");
}

TEST(Program, TellsHowItAndEachOfItsCommandsAreUsed) {
    const std::vector<std::pair<Arguments, std::vector<std::string>>> helps{
        {{"--help"},
         {"events", "alert", "--socket", "/var/opt/orma/agent/agent.sock", "3 the agent cannot be reached"}},
        {{"events", "--help"}, {"--filter", "--json", "--count", "until it is interrupted"}},
        {{"alert", "--help"}, {"raise"}},
        {{"alert", "raise", "-h"},
         {"--ve", "--eid", "--host", "--code", "--value", "--text", "--text-file", "--repeat"}},
    };
    for (const auto& [arguments, words] : helps) {
        const Ended ended = runKxctl(arguments);
        EXPECT_EQ(ended.code, ExitCode::Done);
        EXPECT_EQ(ended.err, "");
        for (const std::string& word : words) {
            EXPECT_THAT(ended.out, HasSubstr(word));
        }
    }
}

// ---- wrong usage ----------------------------------------------------------------------------------------------------

struct WrongUsage {
    Arguments arguments;
    std::string word;  ///< that must be in the message
};

/// How a failed test names it.
void PrintTo(const WrongUsage& usage, std::ostream* to) {
    *to << testing::PrintToString(usage.arguments);
}

class WrongUsages : public testing::TestWithParam<WrongUsage> {};

TEST_P(WrongUsages, AreNamedBeforeAnythingIsAskedOfTheAgent) {
    const Ended ended = runKxctl(GetParam().arguments);
    EXPECT_EQ(ended.code, ExitCode::WrongUsage);
    EXPECT_EQ(ended.out, "");
    EXPECT_THAT(linesOf(ended.err), testing::SizeIs(2));
    EXPECT_THAT(ended.err, testing::StartsWith("kxctl: "));
    EXPECT_THAT(linesOf(ended.err)[0], HasSubstr(GetParam().word));
    EXPECT_THAT(linesOf(ended.err)[1], HasSubstr("--help"));
}

Arguments raising(const Arguments& more) {
    Arguments all{"alert", "raise"};
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

INSTANTIATE_TEST_SUITE_P(
    Of, WrongUsages,
    testing::Values(
        WrongUsage{{}, "subcommand"}, WrongUsage{{"frobnicate"}, "frobnicate"},
        WrongUsage{{"events", "--frobnicate"}, "--frobnicate"}, WrongUsage{{"events", "more"}, "more"},
        WrongUsage{{"events", "--count"}, "--count"}, WrongUsage{{"events", "--count", "0"}, "outside of 1"},
        WrongUsage{{"events", "--count", "-1"}, "outside of 1"}, WrongUsage{{"events", "--count", ""}, "no number"},
        WrongUsage{{"events", "--count", "many"}, "many"}, WrongUsage{{"events", "--socket", ""}, "107"},
        WrongUsage{{"--socket", "/" + std::string(107, 'x'), "events"}, "107"}, WrongUsage{{"alert"}, "subcommand"},
        WrongUsage{{"alert", "lower"}, "lower"}, WrongUsage{raising({}), "--code"},
        WrongUsage{raising({"--code", "1"}), "exactly one of"}, WrongUsage{raising({"--ve", "1"}), "--code"},
        WrongUsage{raising({"--ve", "1", "--host", "--code", "1"}), "exactly one of"},
        WrongUsage{raising({"--eid", "0f8e5c1a-7a44-4c3b-9d1e-000000000101", "--host", "--code", "1"}),
                   "exactly one of"},
        WrongUsage{raising({"--eid", "0f8e5c1a", "--code", "1"}), "0f8e5c1a is no identifier"},
        WrongUsage{raising({"--eid", "", "--code", "1"}), "is no identifier"},
        WrongUsage{raising({"--ve", "2147483648", "--code", "1"}), "--ve"},
        WrongUsage{raising({"--ve", "-2147483649", "--code", "1"}), "--ve"},
        WrongUsage{{"events", "--filter", "severity=bad"}, "bad is none of"},
        WrongUsage{{"list", "--columns", "name,colour"}, "colour is none of"},
        WrongUsage{{"list", "--sort", "colour"}, "colour is none of"},
        WrongUsage{{"list", "--columns", "name", "--json"}, "--columns"},
        WrongUsage{{"counters", "--exact", "--json"}, "--exact"},
        WrongUsage{raising({"--host", "--code", "2147483648"}), "--code"},
        WrongUsage{raising({"--host", "--code", "-2147483649"}), "--code"},
        WrongUsage{raising({"--host", "--code", ""}), "--code"},
        WrongUsage{raising({"--host", "--code", "1", "--value", "9223372036854775808"}), "--value"},
        WrongUsage{raising({"--host", "--code", "1", "--value", "-9223372036854775809"}), "--value"},
        WrongUsage{raising({"--host", "--code", "1", "--value", "1.5"}), "--value"},
        WrongUsage{raising({"--host", "--code", "1", "--repeat", "0"}), "--repeat"},
        WrongUsage{raising({"--host", "--code", "1", "--text", "a", "--text-file", "/dev/null"}), "--text"},
        WrongUsage{raising({"--host", "--code", "1", "--text-file", "/nonexistent"}), "/nonexistent"},
        WrongUsage{raising({"--host", "--code", "1", "--text-file", ""}), "--text-file"},
        WrongUsage{raising({"--host", "--code", "1", "--code", "2"}), "--code"},
        WrongUsage{raising({"--host", "--code", "one\ntwo\x1b"}), "one\\ntwo\\x1b"}));

// ---- an agent that cannot be reached
// ----------------------------------------------------------------------------------

std::string wordsWithoutAgent(const std::string& socket) {
    const Ended ended = runKxctl({"--socket", socket, "events"});
    EXPECT_EQ(ended.code, ExitCode::Unreachable);
    EXPECT_EQ(ended.out, "");
    EXPECT_THAT(ended.err, HasSubstr(socket));
    EXPECT_THAT(linesOf(ended.err), testing::SizeIs(1));
    return ended.err;
}

TEST(Program, TellsWhyTheAgentCannotBeReached) {
    const TemporaryFolder folder;
    EXPECT_THAT(wordsWithoutAgent((folder / "none")), HasSubstr("No such file or directory (is kxagentd running?)"));
    std::ofstream((folder / "file")) << "";
    EXPECT_THAT(wordsWithoutAgent((folder / "file")), HasSubstr("is not a socket"));
    EXPECT_THAT(wordsWithoutAgent((folder / "file") + "/below"), HasSubstr("Not a directory"));
    ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
    EXPECT_THAT(wordsWithoutAgent((folder / "fifo")), HasSubstr("is not a socket"));
}

TEST(Program, TellsThatASocketWithoutAnAgentIsOne) {
    const ScriptedAgent agent([](PeerSocket&) {});  // closes at once, as seen from outside the same
    EXPECT_THAT(wordsWithoutAgent(agent.path()), HasSubstr("nobody answers"));
}

TEST(Program, TriesASilentAgentForSomeSeconds) {
    const ScriptedAgent agent([](PeerSocket& peer) { peer.readUntilClosed(); });
    EXPECT_THAT(wordsWithoutAgent(agent.path()), HasSubstr("does not answer"));
    EXPECT_EQ(agent.connections(), 4);
}

TEST(Program, WaitsForAnAgentThatIsSlowAtFirst) {
    std::atomic<int> asked{0};
    const ScriptedAgent agent([&](PeerSocket& peer) {
        if (asked++ == 0) {
            peer.readUntilClosed();
            return;
        }
        wire::Frame request;
        if (serveUntilUp(peer, {}) && peer.read(request) && request.has_ping() && peer.read(request)) {
            acceptSubscription(peer, request);  // Done answers the request to raise as well
            peer.readUntilClosed();
        }
    });
    EXPECT_EQ(runKxctl({"alert", "raise", "--host", "--code", "1", "--socket", agent.path()}).code, ExitCode::Done);
}

TEST(Program, TellsThatTheAgentRefusedTheConnection) {
    const ScriptedAgent agent([](PeerSocket& peer) {
        peer.send(wire::makeErrorFrame(wire::ERROR_NOT_ALLOWED, "not you"));
        peer.readUntilClosed();
    });
    EXPECT_THAT(wordsWithoutAgent(agent.path()), HasSubstr("refused the connection"));
}

TEST(Program, TellsThatTheAgentCannotBeUnderstood) {
    const ScriptedAgent agent([](PeerSocket& peer) {
        peer.sendRaw("HTTP/1.1 200 OK\r\n\r\n");
        peer.readUntilClosed();
    });
    EXPECT_THAT(wordsWithoutAgent(agent.path()), HasSubstr("cannot be understood"));
}

}  // namespace
}  // namespace kx::test
