// Counters of a link under test: an agent that is asked for them, and handlers that write down what they are told.
#pragma once

#include <gmock/gmock.h>

#include <boost/make_shared.hpp>
#include <set>
#include <string>
#include <vector>

#include <kxl/KXLMonitorAgent.h>

#include "tests/support/CounterScripts.h"
#include "tests/unit/client/EventFixture.h"

namespace kx::test {

inline const std::string kNet = "counters_kx_net";
inline const std::string kQuota = "counters_kx_quota";
inline const wire::Environment kWeb = wireEnv(1);

inline boost::shared_ptr<KXLPerfMonClassList> classList(const std::vector<std::string>& names) {
    const auto list = boost::make_shared<KXLPerfMonClassList>();
    for (const std::string& name : names) {
        (*list)[name];
    }
    return list;
}

/// A group with one counter of one container, which is `value`.
inline wire::CounterGroup groupWith(std::int64_t value, const std::string& className = kNet) {
    return groupOf(className, {"in"}, {rowOf(kWeb, "1", {value})});
}

/// What groupWith() gave, in the order of the classes: "counters_kx_net=5".
inline std::string textOf(const std::vector<KXLMonitorData>& data) {
    std::string text;
    for (const KXLMonitorData& container : data) {
        for (const auto& [className, instances] : container.classes) {
            text +=
                (text.empty() ? "" : " ") + className + "=" + std::to_string(instances.at("1").at("in").value1.integer);
        }
    }
    return text;
}

/// Writes its reports, and what else it is called with, into a journal.
class MonitorHandler : public KXLMonitorAgent::Handler {
public:
    MonitorHandler(std::string name, Journal& journal) : name_(std::move(name)), journal_(journal) {}

    void handleConnected() override { add("connected"); }
    void handleError(int code) override { add("error " + std::to_string(code)); }
    void handleDisconnect() override {
        add("disconnected");
        KXLMonitorAgent::Handler::handleDisconnect();
    }
    void handleMonitorStart() override { add("started"); }
    void handleData(const std::vector<KXLMonitorData>& data) override {
        add("data " + textOf(data));
        if (whenData) {
            whenData();
        }
    }

    std::atomic<std::thread::id> thread;
    std::function<void()> whenData;

private:
    void add(const std::string& call) {
        thread = std::this_thread::get_id();
        journal_.add(name_ + " " + call);
    }

    const std::string name_;
    Journal& journal_;
};

using MonitorPtr = boost::intrusive_ptr<MonitorHandler>;

class Counters : public LinkFixture {
protected:
    explicit Counters(const client::Timeouts& timeouts = {}) : LinkFixture(timeouts) {}
    ~Counters() override { loop->stop(); }

    /// Brings the link up; the journal is empty after it.
    void bringUp() {
        ASSERT_EQ(initialize(agent.path()), 0);
        journal.clear();
    }
    int initialize(const std::string& path) {
        KXLConnectionInfo info;
        info.connectivity.setType("NamedPipe");
        info.connectivity.setAddress(path);
        return accessPoint->initializeSync(info, linkHandler, 0);
    }

    MonitorPtr handlerNamed(const std::string& name) { return MonitorPtr(new MonitorHandler(name, journal)); }
    int start(const boost::intrusive_ptr<KXLRequestHandlerPrototype>& with,
              const std::vector<std::string>& classes = {kNet}, const std::set<KXLEID>& eids = {},
              int periodSeconds = 30) {
        KXLMonitorAgent starter(accessPoint->getEID(), accessPoint);
        starter.getRequest().getContext()->setHandler(with);
        starter.getRequest().getContext()->setSynchronous(false);
        std::set<KXLEID> notMonitored = {KXLEID::EID_INVALID};
        const int code = starter.startMonitoring(eids, classList(classes), periodSeconds, notMonitored, 0);
        EXPECT_TRUE(notMonitored.empty());
        return code;
    }
    /// Starts a monitor and waits until the agent has taken it on.
    std::uint64_t startAndWait(const MonitorPtr& with, const std::string& name,
                               const std::vector<std::string>& classes = {kNet}) {
        EXPECT_EQ(start(with, classes), 0);
        EXPECT_TRUE(eventually([&] { return journal.has(name + " started"); }));
        return agent.monitor();
    }

    int query(const std::vector<std::string>& classes = {kNet}, const std::set<KXLEID>& eids = {}) {
        KXLPerfMonAgent asker(accessPoint->getEID(), accessPoint);
        const auto begin = std::chrono::steady_clock::now();
        const int code = asker.query(output, eids, classList(classes));
        took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
        return code;
    }
    /// @brief Waits until the link has handled what the agent has sent so far.
    bool settle() {
        std::vector<KXLMonitorData> nothing;
        return eventually([&] {
            return KXLPerfMonAgent(accessPoint->getEID(), accessPoint).query(nothing, {}, classList({kFenceClass})) ==
                   0;
        });
    }

    CounterAgent agent;
    Journal journal;
    boost::intrusive_ptr<LinkHandler> linkHandler{new LinkHandler(journal)};
    MonitorPtr first = handlerNamed("first");
    std::vector<KXLMonitorData> output;
};

}  // namespace kx::test
