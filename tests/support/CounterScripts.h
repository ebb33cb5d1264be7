// Reports of performance counters as an agent sends them, and a scripted agent that is asked for them.
#pragma once

#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/AgentScripts.h"

namespace kx::test {

// ---- samples ----------------------------------------------------------------------------------------------------

/// One row of a group: the counters of one instance of one container, three numbers each.
struct CounterRow {
    std::string eid;
    std::string instance;
    std::vector<std::int64_t> numbers;
};

/// @brief A row whose counters have n, 2 n and 3 n as their numbers, so that each number tells which of them it is.
inline CounterRow rowOf(const wire::Environment& container, const std::string& instance,
                        const std::vector<std::int64_t>& counters) {
    CounterRow row{container.eid(), instance, {}};
    for (const std::int64_t n : counters) {
        row.numbers.insert(row.numbers.end(), {n, 2 * n, 3 * n});
    }
    return row;
}

inline wire::CounterGroup groupOf(const std::string& className, const std::vector<std::string>& counters,
                                  const std::vector<CounterRow>& rows) {
    wire::CounterGroup group;
    group.set_class_name(className);
    for (const std::string& name : counters) {
        group.add_counters(name);
    }
    for (const CounterRow& row : rows) {
        group.mutable_eids()->append(row.eid);
        group.add_instances(row.instance);
        group.mutable_values()->Add(row.numbers.begin(), row.numbers.end());
    }
    return group;
}

inline std::int64_t bitsOf(double value) {
    std::int64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

inline wire::CounterSample sampleOf(const std::vector<wire::CounterGroup>& groups) {
    wire::CounterSample sample;
    for (const wire::CounterGroup& group : groups) {
        *sample.add_groups() = group;
    }
    return sample;
}

/// @brief A monitor's report.
/// @param monitor the number of the request that started it
inline wire::Frame reportFrame(std::uint64_t monitor, const std::vector<wire::CounterGroup>& groups) {
    wire::Frame frame;
    *frame.mutable_counter_sample() = sampleOf(groups);
    frame.mutable_counter_sample()->set_monitor(monitor);
    return frame;
}

// ---- answers ----------------------------------------------------------------------------------------------------

inline wire::Frame answerFrame(const wire::Frame& request, const std::vector<wire::CounterGroup>& groups) {
    wire::Frame frame;
    frame.set_request_id(request.request_id());
    *frame.mutable_counter_sample() = sampleOf(groups);
    return frame;
}

inline wire::Frame doneFrame(const wire::Frame& request) {
    wire::Frame frame;
    frame.set_request_id(request.request_id());
    frame.mutable_done();
    return frame;
}

inline wire::Frame refusalFrame(const wire::Frame& request) {
    wire::Frame frame;
    frame.set_request_id(request.request_id());
    frame.mutable_refusal()->set_text("no counters today");
    return frame;
}

// ---- vocabularies -----------------------------------------------------------------------------------------------

struct CounterName {
    std::string id;
    std::optional<int> type;  ///< "counter_type"
};
using CounterClasses = std::vector<std::pair<std::string, std::vector<CounterName>>>;

/// @brief All vocabularies of a server that has these counter classes.
inline wire::Frame vocabularyOf(const CounterClasses& classes) {
    wire::Frame frame;
    auto& vocabulary = *frame.mutable_vocabulary_set()->add_vocabularies();
    vocabulary.set_name("KXABasicFunctionality");
    for (const auto& [name, counters] : classes) {
        auto& category = *vocabulary.add_categories();
        category.set_name(name);
        for (const CounterName& counter : counters) {
            auto& parameter = *category.add_parameters();
            parameter.set_id(counter.id);
            if (counter.type) {
                (*parameter.mutable_attributes())["counter_type"] = *counter.type;
            }
        }
    }
    return frame;
}

// ---- the agent --------------------------------------------------------------------------------------------------

/// A query for this class is not written down, and always answered: once it is, all that was sent before has been
/// handled.
inline const std::string kFenceClass = "fence";

/// @brief An agent that writes down what it is asked about counters, answers as told, and sends what it is told to.
/// All of it may be called on any thread.
class CounterAgent {
public:
    /// @return what to send, in this order; nothing: the request is not answered
    using Answer = std::function<std::vector<wire::Frame>(const wire::Frame& request)>;

    explicit CounterAgent(std::vector<wire::Environment> environments = {})
        : environments_(std::move(environments)), agent_([this](PeerSocket& peer) { serve(peer); }) {}
    /// @param path where to listen
    CounterAgent(std::string path, std::vector<wire::Environment> environments)
        : environments_(std::move(environments)), agent_(std::move(path), [this](PeerSocket& peer) { serve(peer); }) {}

    const std::string& path() const { return agent_.path(); }

    void answerStarts(Answer answer) { set(answerStart_, std::move(answer)); }
    void answerQueries(Answer answer) { set(answerQuery_, std::move(answer)); }
    /// From now on queries are answered with these.
    void answerQueriesWith(std::vector<wire::CounterGroup> groups) {
        answerQueries([groups = std::move(groups)](const wire::Frame& request) {
            return std::vector<wire::Frame>{answerFrame(request, groups)};
        });
    }

    /// @brief The requests so far, in their order.
    std::vector<wire::Frame> starts() const { return get(starts_); }
    std::vector<wire::Frame> queries() const { return get(queries_); }
    /// The numbers of the monitors that were stopped.
    std::vector<std::uint64_t> stops() const { return get(stops_); }
    /// The number of the monitor that was started last; waits for the first.
    std::uint64_t monitor() const {
        eventually([this] { return !starts().empty(); });
        return starts().back().request_id();
    }

    /// @brief Answers as at first, and forgets what it was asked.
    void reset() {
        const std::lock_guard guard(lock_);
        answerStart_ = takeOn;
        answerQuery_ = reportNothing;
        starts_.clear();
        queries_.clear();
        stops_.clear();
    }

    /// @brief Sends a frame on the link of the moment; waits until there is one.
    void send(const wire::Frame& frame) {
        onLink([&](PeerSocket& link) { link.send(frame); });
    }
    void report(const std::vector<wire::CounterGroup>& groups) { send(reportFrame(monitor(), groups)); }
    /// Sends other vocabularies, which later links get too.
    void setVocabulary(const wire::Frame& vocabulary) {
        set(vocabulary_, vocabulary);
        send(vocabulary);
    }
    /// Sends a change of one environment.
    void change(const wire::Environment& environment) { change(std::vector{environment}); }
    void change(const std::vector<wire::Environment>& environments) { send(deltaFrame(++generation_, environments)); }

    /// @brief Ends the link of the moment; the next one is another.
    void hangUp() {
        onLink([this](PeerSocket& link) {
            link.hangUp();
            link_ = nullptr;
        });
    }
    /// @brief Whether every new connection is hung up at once.
    void setAway(bool isAway) { isAway_ = isAway; }
    bool hasLink() const { return get(link_) != nullptr; }
    /// Connections so far, also those that were hung up.
    int connections() const { return agent_.connections(); }

private:
    static std::vector<wire::Frame> takeOn(const wire::Frame& request) { return {doneFrame(request)}; }
    static std::vector<wire::Frame> reportNothing(const wire::Frame& request) { return {answerFrame(request, {})}; }

    template <typename T>
    void set(T& into, T value) {
        const std::lock_guard guard(lock_);
        into = std::move(value);
    }
    template <typename T>
    T get(const T& from) const {
        const std::lock_guard guard(lock_);
        return from;
    }

    void onLink(const std::function<void(PeerSocket&)>& act) {
        eventually([&] {
            const std::lock_guard guard(lock_);
            PeerSocket* const link = link_;
            if (link != nullptr) {
                act(*link);
            }
            return link != nullptr;
        });
    }

    void serve(PeerSocket& peer) {
        wire::Frame request;
        if (isAway_ || !shakeHands(peer, request)) {
            return;
        }
        if (request.has_event_subscribe()) {
            acceptSubscription(peer, request);
            peer.readUntilClosed();
        } else if (sendFirstData(peer)) {
            answerLink(peer);
        }
    }

    bool sendFirstData(PeerSocket& peer) {
        wire::Frame request;
        const std::lock_guard guard(lock_);
        generation_ = 1;
        const bool sent = peer.read(request) && request.has_vocabulary_request() &&
                          peer.send(snapshotFrame(1, environments_)) && peer.send(vocabulary_);
        link_ = sent ? &peer : nullptr;
        return sent;
    }

    void answerLink(PeerSocket& peer) {
        wire::Frame request;
        while (peer.read(request)) {
            const Answer answer = take(request);
            const auto frames = answer ? answer(request) : std::vector<wire::Frame>();
            const std::lock_guard guard(lock_);
            for (const wire::Frame& frame : frames) {
                peer.send(frame);
            }
        }
        const std::lock_guard guard(lock_);
        link_ = link_ == &peer ? nullptr : link_;
    }

    /// Writes a request down and says how to answer it.
    Answer take(const wire::Frame& request) {
        const std::lock_guard guard(lock_);
        switch (request.body_case()) {
            case wire::Frame::kMonitorStart:
                starts_.push_back(request);
                return answerStart_;
            case wire::Frame::kMonitorStop:
                stops_.push_back(request.monitor_stop().monitor());
                return nullptr;
            case wire::Frame::kCounterQuery:
                if (request.counter_query().classes(0) == kFenceClass) {
                    return reportNothing;
                }
                queries_.push_back(request);
                return answerQuery_;
            case wire::Frame::kPing:
                return [](const wire::Frame& ping) {
                    wire::Frame pong = ping;
                    pong.mutable_pong();
                    return std::vector<wire::Frame>{pong};
                };
            default:
                return nullptr;
        }
    }

    mutable std::mutex lock_;
    const std::vector<wire::Environment> environments_;
    wire::Frame vocabulary_ = vocabularyFrame();
    Answer answerStart_ = takeOn;
    Answer answerQuery_ = reportNothing;
    std::vector<wire::Frame> starts_;
    std::vector<wire::Frame> queries_;
    std::vector<std::uint64_t> stops_;
    PeerSocket* link_ = nullptr;
    std::atomic<std::uint64_t> generation_{1};
    std::atomic<bool> isAway_{false};
    ScriptedAgent agent_;
};

}  // namespace kx::test
