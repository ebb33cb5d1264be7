// Who wants which counters when: monitors, and questions in between.
//
// Counters are read when somebody is due, once for all who are: monitors of one period are due at the same moments,
// whenever they were started. Main thread only, on the io_context it was given.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/counters/CounterReport.h"
#include "agent/inventory/FrameBody.h"
#include "kxwire.pb.h"

namespace kx::agent {

/// Reads counters. Main thread only; answers there too, soon, once a call, or not at all: see readAnew().
using CounterReader = std::function<void(CounterSink)>;

/// What a client asks about and is told.
class CounterService {
public:
    /// Tells a client apart from others; never looked into.
    using ClientId = const void*;
    /// Sends a client a frame.
    using Send = std::function<void(std::uint64_t requestId, const FrameBody&)>;

    /// Monitors of one client. More are refused: each costs a report a period.
    static constexpr std::size_t kMaxMonitors = 64;
    /// Questions of one client that wait for an answer. More are refused: each costs a report.
    static constexpr std::size_t kMaxQuestions = 64;
    /// Longest period that can be asked for, in seconds: a day.
    static constexpr std::uint32_t kMaxPeriodSeconds = 86400;

    /// @param io must outlive the service
    /// @param reader see CounterReader
    /// @param periodScale what a requested period is multiplied by, above 0
    CounterService(boost::asio::io_context& io, CounterReader reader, double periodScale);
    CounterService(const CounterService&) = delete;
    CounterService& operator=(const CounterService&) = delete;

    /// @brief Starts a monitor; its first report follows when its period ends next.
    /// @param send of this client, from now on
    /// @param number of the request
    /// @return why not, in words; empty when it was started
    std::string start(ClientId client, const Send& send, std::uint64_t number, const wire::MonitorStart& request);
    void stop(ClientId client, std::uint64_t monitor);
    /// @brief Has the counters read and answers.
    /// @return why not, in words; empty when the answer follows
    std::string query(ClientId client, const Send& send, std::uint64_t number, const wire::CounterQuery& request);
    /// @brief Forgets a client that has gone.
    void forget(ClientId client) { clients_.erase(client); }

    /// @brief Has a reading that is under way made anew: whoever was to make it is not there any more.
    void readAnew();

    /// @brief Takes what the vocabularies say of counters.
    void setVocabularies(const std::vector<Vocabulary>& vocabularies) { kinds_ = CounterKinds(vocabularies); }
    /// @brief Containers have other numbers, see CounterMemory.
    void renumber(const std::vector<Renumbered>& renumbered) {
        for (auto& [id, client] : clients_) {
            client.told.renumber(renumbered);
        }
    }
    /// @brief Changes the scale; monitors that run are due anew.
    void setPeriodScale(double periodScale);

    /// @return monitors of all clients; for tests and log lines
    std::size_t monitors() const;

private:
    using Clock = std::chrono::steady_clock;

    struct Monitor {
        CounterScope scope;
        std::uint32_t periodSeconds = 0;
        Clock::time_point due;
    };
    struct Question {
        std::uint64_t number = 0;
        CounterScope scope;
    };
    struct Client {
        Send send;
        CounterMemory told;
        std::map<std::uint64_t, Monitor> monitors;
        std::vector<Question> questions;  ///< since the reading that is under way began
        std::vector<Question> asked;      ///< to be answered by the reading that is under way

        /// @return identifiers that its monitors and questions name
        std::size_t eids() const;
        std::size_t open() const { return questions.size() + asked.size(); }
    };

    Clock::time_point dueAfter(Clock::time_point now, std::uint32_t periodSeconds) const;
    void setTimer();
    void timerFired();
    void read();
    void take(const CounterImage& image);
    void tell(Client& client, const CounterImage& image, std::uint64_t timeMs);
    void remember(const CounterImage& image);

    const CounterReader reader_;
    double periodScale_;
    const Clock::time_point start_ = Clock::now();  ///< all periods are counted from here
    CounterKinds kinds_;
    CounterMemory before_;  ///< what the reading before showed
    std::unordered_map<ClientId, Client> clients_;
    boost::asio::steady_timer timer_;
    bool reading_ = false;
    std::uint64_t readings_ = 0;  ///< tells the reading under way from one that was given up
    bool readAgain_ = false;      ///< a question came while a reading was under way
    std::shared_ptr<const bool> alive_ = std::make_shared<const bool>(true);  ///< what late readings look at
};

}  // namespace kx::agent
