#include "tests/unit/perf/PerfFixture.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <stdexcept>

#include "link/SNMPNodeLocal.h"

#include <kxl/KXLMonitorAgent.h>

namespace kx::test {

namespace {

constexpr const char* kSocketPath = "/var/opt/orma/agent/agent.sock";

wire::Environment container(int number, std::optional<int> veid) {
    wire::Environment env = wireEnv(number);
    if (veid) {
        env.mutable_configuration()->set_veid(*veid);
    }
    return env;
}

/// The link, its agent, and the monitors that subscriptions report to.
class SharedLink : public testing::Environment {
public:
    /// The link is there before its agent, as on a host that starts both.
    void SetUp() override {
        SNMPNodeLocal::instance();
        agent = std::make_unique<CounterAgent>(kSocketPath,
                                               std::vector<wire::Environment>{kWeb, kStore, kNoNumber, kZero, kMinus});
        ASSERT_NE(SNMPNodeLocal::instance()->getServerEID(), KXLEID::EID_INVALID);
    }
    void TearDown() override {
        SNMPNodeLocal::destroy();
        monitors.clear();
        agent.reset();
    }

    static inline std::unique_ptr<CounterAgent> agent;
    static inline std::vector<std::unique_ptr<SNMPNodePerfomanceMonitor>> monitors;
};

[[maybe_unused]] const testing::Environment* const kSharedLink = testing::AddGlobalTestEnvironment(new SharedLink);

template <typename Request>
bool names(const Request& request, const std::string& className) {
    return std::find(request.classes().begin(), request.classes().end(), className) != request.classes().end();
}

}  // namespace

const wire::Environment kWeb = container(1, 101);
const wire::Environment kStore = container(2, 102);
const wire::Environment kNoNumber = container(3, std::nullopt);
const wire::Environment kZero = container(4, 0);
const wire::Environment kMinus = container(5, -7);

wire::Environment renumbered(wire::Environment environment, int veid) {
    environment.mutable_configuration()->set_veid(veid);
    return environment;
}

Readings readingsOf(const ClassStats& stats) {
    Readings readings;
    for (const auto& [veid, instances] : stats) {
        auto& read = readings[veid];
        for (const auto& [instance, counters] : instances) {
            auto& values = read[instance];
            for (const auto& [name, stat] : counters) {
                EXPECT_EQ(stat.kind, 1) << name;
                EXPECT_EQ(stat.value2.integer, 2 * stat.value1.integer) << name;
                EXPECT_EQ(stat.value3.integer, 3 * stat.value1.integer) << name;
                EXPECT_EQ(stat.fourth, 0) << name;
                values[name] = stat.value1.integer;
            }
        }
    }
    return readings;
}

wire::CounterGroup bytesOf(const std::vector<CounterRow>& rows, const std::string& className) {
    return groupOf(className, {"bytes_in"}, rows);
}

PerfFixture::PerfFixture()
    : monitor(*SharedLink::monitors.emplace_back(std::make_unique<SNMPNodePerfomanceMonitor>())) {
    if (SNMPNodeLocal::instance() == nullptr) {
        throw std::logic_error("the link has been destroyed by a test before");
    }
    agent().setAway(false);
    EXPECT_TRUE(settle());
    agent().reset();
    agent().setVocabulary(vocabularyOf(usualClasses()));
    for (const wire::Environment& environment : {kWeb, kStore}) {
        agent().change(environment);
    }
    EXPECT_TRUE(settle());
}

CounterAgent& PerfFixture::agent() {
    return *SharedLink::agent;
}

boost::intrusive_ptr<KXLAccessPointPrototype> PerfFixture::accessPoint() {
    SNMPNodeLocal* const link = SNMPNodeLocal::instance();
    return link == nullptr ? nullptr : link->getAccessPoint();
}

bool PerfFixture::settle() {
    const auto fence = boost::make_shared<KXLPerfMonClassList>();
    (*fence)[kFenceClass];
    return eventually([&] {
        const auto provider = accessPoint();
        std::vector<KXLMonitorData> nothing;
        return agent().hasLink() && KXLPerfMonAgent(provider->getEID(), provider).query(nothing, {}, fence) == 0;
    });
}

void PerfFixture::report(const std::vector<wire::CounterGroup>& groups) {
    agent().report(groups);
    EXPECT_TRUE(settle());
}

CounterClasses PerfFixture::usualClasses() {
    return {{kNet, {{"bytes_in", 2}, {"packets_in", 2}, {"bytes_out", 2}, {"packets_out", 2}}},
            {kQuota, {{"q1", 1}, {"q2", 1}, {"q3", 1}, {"q4", 1}, {"q5", 1}, {"q6", 1}, {"q7", 1}, {"q8", 1}}}};
}

std::vector<wire::MonitorStart> PerfFixture::startsOf(const std::string& className) {
    std::vector<wire::MonitorStart> found;
    for (const wire::Frame& frame : agent().starts()) {
        if (names(frame.monitor_start(), className)) {
            found.push_back(frame.monitor_start());
        }
    }
    return found;
}

std::vector<wire::CounterQuery> PerfFixture::queriesOf(const std::string& className) {
    std::vector<wire::CounterQuery> found;
    for (const wire::Frame& frame : agent().queries()) {
        if (names(frame.counter_query(), className)) {
            found.push_back(frame.counter_query());
        }
    }
    return found;
}

}  // namespace kx::test
