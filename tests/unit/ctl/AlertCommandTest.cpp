// kxctl alert raise, against an agent under the test's control.
#include <gmock/gmock.h>

#include <fstream>
#include <limits>
#include <mutex>

#include "tests/support/AgentScripts.h"
#include "tests/unit/ctl/ProgramRun.h"

namespace kx::test {
namespace {

using ctl::ExitCode;
using testing::HasSubstr;
using Arguments = std::vector<std::string>;

/// Serves links; answers each request to raise an alert with what `answer` makes of it, nothing if it has no body.
class RaisingAgent {
public:
    using Answer = std::function<wire::Frame(const wire::AlertRaise&, int)>;

    /// @param answer gets the request and how many there were before it
    explicit RaisingAgent(Answer answer) : answer_(std::move(answer)) {}

    /// Raises with these arguments besides the socket.
    Ended raise(const Arguments& more) const {
        Arguments arguments{"alert", "raise", "--socket", agent_.path()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return runKxctl(arguments);
    }

    std::vector<wire::AlertRaise> requests() const {
        const std::lock_guard guard(mutex_);
        return requests_;
    }

private:
    void serve(PeerSocket& peer) {
        wire::Frame frame;
        if (!serveUntilUp(peer, {})) {
            return;
        }
        while (peer.read(frame)) {
            if (frame.has_alert_raise() && !answer(peer, frame)) {
                return;
            }
        }
    }

    bool answer(PeerSocket& peer, const wire::Frame& request) {
        wire::Frame frame;
        {
            const std::lock_guard guard(mutex_);
            frame = answer_(request.alert_raise(), static_cast<int>(requests_.size()));
            requests_.push_back(request.alert_raise());
        }
        frame.set_request_id(request.request_id());
        if (frame.has_error()) {
            return false;
        }
        return frame.body_case() == wire::Frame::BODY_NOT_SET || peer.send(frame);
    }

    const Answer answer_;
    mutable std::mutex mutex_;
    std::vector<wire::AlertRaise> requests_;
    ScriptedAgent agent_{[this](PeerSocket& peer) { serve(peer); }};
};

wire::Frame done() {
    wire::Frame frame;
    frame.mutable_done();
    return frame;
}

wire::Frame refusal(const std::string& words) {
    wire::Frame frame;
    frame.mutable_refusal()->set_text(words);
    return frame;
}

/// In the place of an answer: the agent goes away.
wire::Frame goodbye() {
    wire::Frame frame;
    frame.mutable_error();
    return frame;
}

/// What the agent is asked with these arguments.
wire::AlertRaise asked(const Arguments& arguments) {
    const RaisingAgent agent([](const wire::AlertRaise&, int) { return done(); });
    const Ended ended = agent.raise(arguments);
    EXPECT_EQ(ended.code, ExitCode::Done);
    EXPECT_EQ(ended.out + ended.err, "");
    const auto requests = agent.requests();
    EXPECT_EQ(requests.size(), 1U);
    return requests.empty() ? wire::AlertRaise() : requests[0];
}

// ---- what is asked -------------------------------------------------------------------------------------------------

TEST(AlertRaise, NamesAContainerByItsNumber) {
    const wire::AlertRaise request = asked({"--ve", "101", "--code", "2", "--text", "full", "--value", "7"});
    EXPECT_EQ(request.target_case(), wire::AlertRaise::kVeid);
    EXPECT_EQ(request.veid(), 101);
    EXPECT_EQ(request.code(), 2);
    EXPECT_EQ(request.text(), "full");
    EXPECT_EQ(request.value(), 7);
}

TEST(AlertRaise, NamesAnEnvironmentByItsIdentifier) {
    const wire::AlertRaise request = asked({"--eid", "0F8E5C1A-7a44-4c3b-9d1e-000000000101", "--code", "0"});
    EXPECT_EQ(request.eid(), std::string("\x0f\x8e\x5c\x1a\x7a\x44\x4c\x3b\x9d\x1e\0\0\0\0\x01\x01", 16));
}

TEST(AlertRaise, NamesTheHostByTheAgentsOwnIdentifier) {
    EXPECT_EQ(asked({"--host", "--code", "0"}).eid(), kServerEidBytes);
}

TEST(AlertRaise, HasNoTextAndTheValueZeroUnlessToldOtherwise) {
    const wire::AlertRaise request = asked({"--host", "--code", "1"});
    EXPECT_EQ(request.text(), "");
    EXPECT_EQ(request.value(), 0);
    EXPECT_EQ(asked({"--host", "--code", "1", "--text", ""}).text(), "");
}

TEST(AlertRaise, TakesNegativeAndExtremeNumbersInBothForms) {
    const std::vector<Arguments> forms{
        {"--ve", "-2147483648", "--code", "-2147483648", "--value", "-9223372036854775808"},
        {"--ve=-2147483648", "--code=-2147483648", "--value=-9223372036854775808"},
    };
    for (const Arguments& form : forms) {
        const wire::AlertRaise request = asked(form);
        EXPECT_EQ(request.veid(), std::numeric_limits<std::int32_t>::min());
        EXPECT_EQ(request.code(), std::numeric_limits<std::int32_t>::min());
        EXPECT_EQ(request.value(), std::numeric_limits<std::int64_t>::min());
    }
    const wire::AlertRaise request =
        asked({"--ve", "2147483647", "--code", "2147483647", "--value", "9223372036854775807"});
    EXPECT_EQ(request.veid(), std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(request.code(), std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(request.value(), std::numeric_limits<std::int64_t>::max());
}

TEST(AlertRaise, TakesTheTextAsItIs) {
    for (const std::string text : {"[a,b]", "\"quoted\"", "'single'", "--host", "--", "-x", "{}", " ", "a\nb", "\xff",
                                   "%", "#", "\xC3\xBC", "\\n"}) {
        EXPECT_EQ(asked({"--host", "--code", "1", "--text", text}).text(), text);
        EXPECT_EQ(asked({"--host", "--code", "1", "--text=" + text}).text(), text);
    }
}

TEST(AlertRaise, TakesTheTextFromAFile) {
    const TemporaryFolder folder;
    const std::string content("a\0b\n\xff", 5);
    std::ofstream((folder / "text"), std::ios::binary) << content;
    EXPECT_EQ(asked({"--host", "--code", "1", "--text-file", (folder / "text")}).text(), content);
}

TEST(AlertRaise, RepeatsTheSameRequestAndTellsHowLongItTook) {
    const RaisingAgent agent([](const wire::AlertRaise&, int) { return done(); });
    const Ended ended = agent.raise({"--ve", "5", "--code", "1", "--text", "x", "--repeat", "50"});
    EXPECT_EQ(ended.code, ExitCode::Done);
    EXPECT_THAT(ended.err, testing::MatchesRegex("raised 50 times in [0-9.]+ s\n"));
    const auto requests = agent.requests();
    ASSERT_EQ(requests.size(), 50U);
    for (const wire::AlertRaise& request : requests) {
        EXPECT_EQ(request.SerializeAsString(), requests[0].SerializeAsString());
    }
}

// ---- what becomes of it
// -----------------------------------------------------------------------------------------------

TEST(AlertRaise, ShowsTheWordsOfARefusalFitForATerminal) {
    const RaisingAgent agent([](const wire::AlertRaise&, int) { return refusal("there is\nno \x1b container"); });
    const Ended ended = agent.raise({"--ve", "5", "--code", "1"});
    EXPECT_EQ(ended.code, ExitCode::Refused);
    EXPECT_EQ(ended.err, "kxctl: the agent refuses: there is\\nno \\x1b container\n");
}

TEST(AlertRaise, TellsInJsonHowOftenItWasRaised) {
    const RaisingAgent agent([](const wire::AlertRaise&, int) { return done(); });
    for (const std::string times : {"1", "3"}) {
        const Ended ended = agent.raise({"--ve", "5", "--code", "1", "--repeat", times, "--json"});
        EXPECT_EQ(ended.code, ExitCode::Done);
        EXPECT_THAT(ended.out, testing::MatchesRegex("\\{\"raised\":" + times + ",\"seconds\":[0-9.e-]+\\}\n"));
        EXPECT_EQ(ended.err, "");
    }
}

TEST(AlertRaise, TellsAfterHowManyItWasRefused) {
    const RaisingAgent agent(
        [](const wire::AlertRaise&, int before) { return before < 3 ? done() : refusal("enough"); });
    const Ended ended = agent.raise({"--ve", "5", "--code", "1", "--repeat", "10"});
    EXPECT_EQ(ended.code, ExitCode::Refused);
    EXPECT_EQ(ended.err, "kxctl: after 3: the agent refuses: enough\n");
    EXPECT_EQ(agent.requests().size(), 4U);
}

TEST(AlertRaise, TellsThatNothingIsKnownOfARequestWithoutAnswer) {
    const RaisingAgent agent([](const wire::AlertRaise&, int) { return wire::Frame(); });
    const Ended ended = agent.raise({"--ve", "5", "--code", "1"});
    EXPECT_EQ(ended.code, ExitCode::Unreachable);
    EXPECT_THAT(ended.err, HasSubstr("does not answer; whether it has raised the alert is not known"));
    EXPECT_EQ(agent.requests().size(), 1U) << "asking again could raise it twice";
}

TEST(AlertRaise, TellsThatTheAgentWasLost) {
    const RaisingAgent agent([](const wire::AlertRaise&, int) { return goodbye(); });
    const Ended ended = agent.raise({"--ve", "5", "--code", "1"});
    EXPECT_EQ(ended.code, ExitCode::Unreachable);
    EXPECT_THAT(ended.err, HasSubstr("the connection to the agent was lost; whether"));
}

}  // namespace
}  // namespace kx::test
