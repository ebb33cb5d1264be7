// kxctl events, against an agent under the test's control.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <future>
#include <nlohmann/json.hpp>

#include "tests/support/AgentScripts.h"
#include "tests/unit/ctl/ProgramRun.h"

namespace kx::test {
namespace {

using ctl::ExitCode;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using Arguments = std::vector<std::string>;
using EventScript = std::function<void(PeerSocket&, int)>;

wire::Environment web() {
    wire::Environment environment = wireEnv(1);
    environment.mutable_configuration()->set_veid(101);
    environment.mutable_configuration()->set_name("web");
    return environment;
}

/// @brief Serves links, and runs `events` for each event connection, with the number of those there were before.
ScriptedAgent::Script agentWith(EventScript events, std::vector<wire::Environment> environments = {web()}) {
    return [events = std::move(events), environments = std::move(environments),
            before = std::make_shared<std::atomic<int>>(0)](PeerSocket& peer) {
        wire::Frame request;
        if (!shakeHands(peer, request)) {
            return;
        }
        if (request.has_event_subscribe()) {
            acceptSubscription(peer, request);
            events(peer, (*before)++);
        } else if (serveFirstData(peer, environments)) {
            answerUntilClosed(peer);
        }
    };
}

/// One message with an alert about the host for each of these texts.
wire::Frame alerts(const std::vector<std::string>& texts) {
    std::vector<wire::Event> events;
    for (const std::string& text : texts) {
        events.push_back(alertEvent(kServerEidBytes, text));
    }
    return eventFrame(events);
}

EventScript sending(std::vector<wire::Frame> frames) {
    return [frames = std::move(frames)](PeerSocket& peer, int) {
        for (const wire::Frame& frame : frames) {
            peer.send(frame);
        }
        peer.readUntilClosed();
    };
}

Ended watch(const ScriptedAgent& agent, const Arguments& more = {}) {
    Arguments arguments{"events", "--socket", agent.path()};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return runKxctl(arguments);
}

/// The texts of JSON lines.
std::vector<std::string> textsOf(const std::string& out) {
    std::vector<std::string> texts;
    for (const std::string& line : linesOf(out)) {
        texts.push_back(nlohmann::json::parse(line)["text"]);
    }
    return texts;
}

const std::string kSubscribed = "subscribed to events of scripted agent (5e5e5e5e-5e5e-5e5e-5e5e-5e5e5e5e5e5e)";

// ---- how many -----------------------------------------------------------------------------------------------------

TEST(Events, AreALineEach) {
    const ScriptedAgent agent(agentWith(sending({alerts({"a", "b"}), alerts({"c"})})));
    const Ended ended = watch(agent, {"-n1"});
    EXPECT_EQ(ended.code, ExitCode::Done);
    EXPECT_THAT(linesOf(ended.out), ElementsAre(EndsWith("host                  warning   0  a")));
    EXPECT_THAT(linesOf(ended.err), ElementsAre(kSubscribed));
}

TEST(Events, EndWithTheOneThatWasAskedForAlsoWithinAMessage) {
    const ScriptedAgent agent(agentWith(sending({alerts({"a", "b"}), alerts({"c", "d"})})));
    EXPECT_THAT(textsOf(watch(agent, {"--json", "--count", "3"}).out), ElementsAre("a", "b", "c"));
    EXPECT_THAT(textsOf(watch(agent, {"--json", "-n", "4"}).out), ElementsAre("a", "b", "c", "d"));
}

TEST(Events, AreAllShownHoweverManyComeAtOnce) {
    std::vector<std::string> texts;
    std::vector<wire::Frame> frames;
    for (int message = 0; message < 100; ++message) {
        std::vector<std::string> some;
        for (int i = 0; i < 100; ++i) {
            some.push_back(std::to_string(message) + "." + std::to_string(i));
        }
        texts.insert(texts.end(), some.begin(), some.end());
        frames.push_back(alerts(some));
    }
    const ScriptedAgent agent(agentWith(sending(frames)));
    EXPECT_EQ(textsOf(watch(agent, {"--json", "--count", "10000"}).out), texts);
}

// ---- what is shown --------------------------------------------------------------------------------------------------

TEST(Events, NameTheContainersOfTheCache) {
    const ScriptedAgent agent(agentWith(
        sending({eventFrame({alertEvent(web().eid(), "full", 2, -7), alertEvent(wireEnv(2).eid(), "x", 9)})})));
    const Ended ended = watch(agent, {"-n2"});
    EXPECT_THAT(linesOf(ended.out),
                ElementsAre(EndsWith("alert   101 web               critical  -7  full"),
                            EndsWith("alert   00000000-0000-0000-0000-000000000002  9         0  x")));
}

wire::Event changeEvent(const wire::Environment& environment, wire::EnvironmentChangeKind kind) {
    wire::Event event;
    event.set_type("environment_change");
    event.set_time_ms(1'700'000'000'123);
    event.mutable_environment_change()->set_eid(environment.eid());
    event.mutable_environment_change()->set_kind(kind);
    event.mutable_environment_change()->set_name(environment.configuration().name());
    event.mutable_environment_change()->set_state(2);
    return event;
}

TEST(Events, TellTheNumberOfAContainerThatIsGone) {
    std::promise<PeerSocket*> linkPromise;
    auto link = linkPromise.get_future().share();
    const ScriptedAgent agent([&](PeerSocket& peer) {
        wire::Frame request;
        if (!shakeHands(peer, request)) {
            return;
        }
        if (request.has_snapshot_request()) {
            serveFirstData(peer, {web()});
            linkPromise.set_value(&peer);
            answerUntilClosed(peer);
            return;
        }
        acceptSubscription(peer, request);
        wire::Frame gone;
        gone.mutable_delta()->set_generation(2);
        gone.mutable_delta()->add_removed_eids(web().eid());
        link.get()->send(gone);
        peer.send(eventFrame({changeEvent(web(), wire::CHANGE_REMOVED)}));
        peer.readUntilClosed();
    });
    const Ended ended = watch(agent, {"--json", "-n1"});
    const nlohmann::json shown = nlohmann::json::parse(ended.out);
    EXPECT_EQ(shown["kind"], "change");
    EXPECT_EQ(shown["change"], "removed");
    EXPECT_EQ(shown["veid"], 101);
    EXPECT_EQ(shown["name"], "web");
    EXPECT_EQ(shown["time_ms"], 1'700'000'000'123);
    EXPECT_EQ(shown["state"], 2);
}

TEST(Events, WaitForTheContainersThatTheySayWereAdded) {
    std::promise<PeerSocket*> linkPromise;
    auto link = linkPromise.get_future().share();
    wire::Environment added = wireEnv(2);
    added.mutable_configuration()->set_veid(102);
    const ScriptedAgent agent([&](PeerSocket& peer) {
        wire::Frame request;
        if (!shakeHands(peer, request)) {
            return;
        }
        if (request.has_snapshot_request()) {
            serveFirstData(peer, {web()});
            linkPromise.set_value(&peer);
            answerUntilClosed(peer);
            return;
        }
        acceptSubscription(peer, request);
        peer.send(eventFrame({changeEvent(added, wire::CHANGE_ADDED)}));
        // An answer shows that the event has been read: only then the container follows.
        wire::Frame ping;
        ping.mutable_ping();
        peer.send(ping);
        peer.read(ping);
        link.get()->send(deltaFrame(2, {added}));
        peer.readUntilClosed();
    });
    EXPECT_EQ(nlohmann::json::parse(watch(agent, {"--json", "-n1"}).out)["veid"], 102);
}

TEST(Events, DoNotWaitForLongForAContainerThatNeverComes) {
    const ScriptedAgent agent(agentWith(sending({eventFrame({changeEvent(wireEnv(2), wire::CHANGE_ADDED)})})));
    const nlohmann::json shown = nlohmann::json::parse(watch(agent, {"--json", "-n1"}).out);
    EXPECT_EQ(shown["change"], "added");
    EXPECT_FALSE(shown.contains("veid"));
}

TEST(Events, OfAnUnknownKindAndThoseThatLackSomethingAreShownAsFarAsTheyGo) {
    wire::Event unknown;
    unknown.set_type("something new");
    unknown.set_time_ms(5);
    wire::Event broken = alertEvent("short", "x");
    const ScriptedAgent agent(agentWith(sending({eventFrame({unknown, broken})})));
    EXPECT_THAT(linesOf(watch(agent, {"--json", "-n2"}).out),
                ElementsAre(R"({"kind":"something new","time_ms":5})", R"({"kind":"alert"})"));
}

TEST(Events, ThatDoNotMatchAreNeitherShownNorCounted) {
    const ScriptedAgent agent(agentWith(sending(
        {alerts({"of the host"}), eventFrame({alertEvent(web().eid(), "web", 1), alertEvent(web().eid(), "hit", 2)}),
         eventFrame({changeEvent(web(), wire::CHANGE_MODIFIED)})})));
    EXPECT_THAT(textsOf(watch(agent, {"--json", "-n1", "--filter", "ve=w*", "--filter", "severity=critical"}).out),
                ElementsAre("hit"));
}

TEST(Events, OfBeforeAreAskedForOnceAndEarlierOnesLeftOut) {
    std::vector<std::uint64_t> asked;
    const ScriptedAgent agent([&](PeerSocket& peer) {
        wire::Frame request;
        if (!shakeHands(peer, request)) {
            return;
        }
        if (request.has_snapshot_request()) {
            if (serveFirstData(peer, {})) {
                answerUntilClosed(peer);
            }
            return;
        }
        asked.push_back(request.event_subscribe().since_ms());
        acceptSubscription(peer, request);
        wire::Event early = alertEvent(kServerEidBytes, "early");
        early.set_time_ms(1000);
        wire::Event wanted = alertEvent(kServerEidBytes, "wanted");
        wanted.set_time_ms(static_cast<std::uint64_t>(std::time(nullptr)) * 1000);
        peer.send(eventFrame({early, wanted}));
    });
    const auto before = static_cast<std::uint64_t>(std::time(nullptr)) * 1000;
    EXPECT_THAT(textsOf(watch(agent, {"--json", "-n2", "--since", "1h"}).out), ElementsAre("wanted", "wanted"));
    ASSERT_THAT(asked, testing::SizeIs(2));
    EXPECT_NEAR(static_cast<double>(asked[0]), static_cast<double>(before - 3'600'000), 10'000);
    EXPECT_EQ(asked[1], 0U);
}

// ---- losing the agent -----------------------------------------------------------------------------------------------

TEST(Events, EndWellWhenTheAgentGoesAfterTheLastThatWasWanted) {
    const ScriptedAgent agent(agentWith([](PeerSocket& peer, int) {
        // While this one waits for its container, the rest comes and is taken together.
        peer.send(eventFrame({changeEvent(wireEnv(2), wire::CHANGE_ADDED)}));
        peer.send(alerts({"last"}));
    }));
    const Ended ended = watch(agent, {"--json", "--count", "2"});
    EXPECT_EQ(ended.code, ExitCode::Done);
    EXPECT_THAT(linesOf(ended.err), ElementsAre(kSubscribed));
}

TEST(Events, AreSubscribedToAgainWhenOnlyTheirConnectionIsLost) {
    const ScriptedAgent agent(agentWith([](PeerSocket& peer, int before) {
        peer.send(alerts({std::to_string(before)}));
        if (before == 1) {
            peer.readUntilClosed();
        }
    }));
    const Ended ended = watch(agent, {"--json", "--count", "2"});
    EXPECT_EQ(ended.code, ExitCode::Done);
    EXPECT_THAT(textsOf(ended.out), ElementsAre("0", "1"));
    EXPECT_THAT(linesOf(ended.err),
                ElementsAre(kSubscribed, "the connection to the agent was lost; trying to connect again",
                            kSubscribed + " again; what happened meanwhile is not shown"));
}

TEST(Events, AreSubscribedToAsSoonAsALostAgentIsBack) {
    using Clock = std::chrono::steady_clock;
    std::atomic<int> links{0};
    std::atomic<PeerSocket*> link{nullptr};
    std::atomic<Clock::time_point> backAt{};
    std::atomic<Clock::duration> subscribedAfter{};
    const ScriptedAgent agent([&](PeerSocket& peer) {
        wire::Frame request;
        if (!shakeHands(peer, request)) {
            return;
        }
        if (request.has_snapshot_request()) {
            link = &peer;
            ++links;
            backAt = Clock::now();
            if (serveFirstData(peer, {web()})) {
                answerUntilClosed(peer);
            }
            return;
        }
        subscribedAfter = Clock::now() - backAt.load();
        acceptSubscription(peer, request);
        peer.send(alerts({std::to_string(links)}));
        if (links == 1) {
            link.load()->hangUp();
        } else {
            peer.readUntilClosed();
        }
    });
    const Ended ended = watch(agent, {"--json", "--count", "2"});
    EXPECT_LT(subscribedAfter.load(), std::chrono::milliseconds(500))
        << "it waited for its time though the link was back";
    EXPECT_THAT(textsOf(ended.out), ElementsAre("1", "2"));
    EXPECT_THAT(linesOf(ended.err),
                ElementsAre(kSubscribed, "the connection to the agent was lost; trying to connect again",
                            kSubscribed + " again; what happened meanwhile is not shown"));
}

TEST(Events, NameContainersAsTheAgentKnowsThemOnceItIsBack) {
    std::atomic<int> links{0};
    std::atomic<PeerSocket*> link{nullptr};
    const ScriptedAgent agent([&](PeerSocket& peer) {
        wire::Frame request;
        if (!shakeHands(peer, request)) {
            return;
        }
        if (request.has_snapshot_request()) {
            wire::Environment environment = web();
            environment.mutable_configuration()->set_veid(101 + links++);
            link = &peer;
            if (serveFirstData(peer, {environment})) {
                answerUntilClosed(peer);
            }
            return;
        }
        acceptSubscription(peer, request);
        peer.send(eventFrame({alertEvent(web().eid(), "x")}));
        if (links == 1) {
            link.load()->hangUp();
            return;
        }
        peer.readUntilClosed();
    });
    const Ended ended = watch(agent, {"--json", "--count", "2"});
    const auto lines = linesOf(ended.out);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(nlohmann::json::parse(lines[1])["veid"], 102);
}

// ---- a subscription that does not come about ------------------------------------------------------------------------

ScriptedAgent::Script agentRefusingEvents() {
    return [](PeerSocket& peer) {
        wire::Frame request;
        if (!shakeHands(peer, request)) {
            return;
        }
        if (request.has_event_subscribe()) {
            wire::Frame answer;
            answer.set_request_id(request.request_id());
            answer.mutable_refusal()->set_text("no events today");
            peer.send(answer);
            peer.readUntilClosed();
        } else if (serveFirstData(peer, {})) {
            answerUntilClosed(peer);
        }
    };
}

TEST(Events, ThatTheAgentRefusesEndIt) {
    const ScriptedAgent agent(agentRefusingEvents());
    const Ended ended = watch(agent);
    EXPECT_EQ(ended.code, ExitCode::Refused);
    EXPECT_THAT(linesOf(ended.err), ElementsAre("kxctl: the agent did not accept the subscription to its events"));
}

TEST(Events, OfAnAgentThatGoesBeforeTheyAreSubscribedEndIt) {
    std::atomic<PeerSocket*> link{nullptr};
    const ScriptedAgent agent([&](PeerSocket& peer) {
        wire::Frame request;
        if (!shakeHands(peer, request)) {
            return;
        }
        if (request.has_snapshot_request()) {
            link = &peer;
            serveFirstData(peer, {});
            answerUntilClosed(peer);
        } else {
            link.load()->hangUp();
        }
    });
    EXPECT_EQ(watch(agent).code, ExitCode::Unreachable);
}

// ---- being ended ----------------------------------------------------------------------------------------------------

TEST(Events, EndOrderlyOnBothSignals) {
    for (const int number : {SIGINT, SIGTERM}) {
        const ScriptedAgent agent(agentWith([number](PeerSocket& peer, int) {
            ::kill(::getpid(), number);  // it handles signals by the time it subscribes
            peer.readUntilClosed();
        }));
        EXPECT_EQ(watch(agent).code, ExitCode::Done);
    }
}

/// Standard output goes into a pipe for as long as it lives.
class PipedOutput {
public:
    PipedOutput() : before_(::dup(STDOUT_FILENO)) {
        if (::pipe2(ends_.data(), O_CLOEXEC) != 0 || ::dup2(ends_[1], STDOUT_FILENO) < 0) {
            throw std::runtime_error("pipe2");
        }
        ::close(ends_[1]);
        reader_ = ends_[0];
        std::signal(SIGPIPE, SIG_IGN);
    }
    ~PipedOutput() {
        std::signal(SIGPIPE, SIG_DFL);
        ::dup2(before_, STDOUT_FILENO);
        ::close(before_);
        closeReader();
    }
    PipedOutput(const PipedOutput&) = delete;
    PipedOutput& operator=(const PipedOutput&) = delete;

    void closeReader() {
        const int reader = reader_.exchange(-1);
        if (reader >= 0) {
            ::close(reader);
        }
    }
    int unread() const {
        int bytes = 0;
        ::ioctl(reader_, FIONREAD, &bytes);
        return bytes;
    }

private:
    std::array<int, 2> ends_{};
    const int before_;
    std::atomic<int> reader_{-1};
};

ctl::ExitCode watchInto(const PipedOutput&, const ScriptedAgent& agent) {
    const char* const argv[] = {"kxctl", "events", "--socket", agent.path().c_str()};
    setKXLLogHandler([](int, const char*) {});
    testing::internal::CaptureStderr();
    const auto code = ctl::runProgram(4, argv);
    setKXLLogHandler(nullptr);
    EXPECT_THAT(linesOf(testing::internal::GetCapturedStderr()), ElementsAre(kSubscribed));
    return code;
}

TEST(Events, EndInSilenceWhenNobodyReadsThemAnyMore) {
    PipedOutput output;
    const ScriptedAgent agent(agentWith([&](PeerSocket& peer, int) {
        peer.send(alerts({"a"}));
        eventually([&] { return output.unread() > 0; });
        output.closeReader();
        peer.readUntilClosed();
    }));
    EXPECT_EQ(watchInto(output, agent), ExitCode::Done);
}

TEST(Events, EndOnASignalAlsoWhileTheReaderTakesNothing) {
    const PipedOutput output;
    const ScriptedAgent agent(agentWith([&](PeerSocket& peer, int) {
        const std::vector<std::string> some(100, std::string(1000, 'x'));
        peer.send(alerts(some));
        eventually([&] {
            pollfd watched{STDOUT_FILENO, POLLOUT, 0};
            return ::poll(&watched, 1, 0) == 0;
        });
        ::kill(::getpid(), SIGTERM);
        peer.readUntilClosed();
    }));
    EXPECT_EQ(watchInto(output, agent), ExitCode::Done);
}

}  // namespace
}  // namespace kx::test
