// The agent as a whole: a backend that finds the host's environments, the content that clients can ask for, and the
// server that they ask.
//
// A life: constructed (listening and watching), run() until SIGTERM or SIGINT, destroyed. SIGHUP reads the
// configuration again. Everything here happens on the one thread that calls run(); backends with threads of their
// own post to it.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <memory>
#include <string>

#include "agent/core/AlertCenter.h"
#include "agent/core/BackendSlot.h"
#include "agent/core/Config.h"
#include "agent/core/Watchdog.h"
#include "agent/counters/CounterService.h"
#include "agent/inventory/HostContent.h"
#include "agent/server/Server.h"

namespace kx::agent {

/// What the command line and the build say.
struct AgentSettings {
    std::string configFile;
    bool configMustExist = false;  ///< the command line named the file
    std::string program;           ///< name and version, for clients and for the log
};

/// One per process: it takes the process's signals.
class Agent : private AlertRaiser {
public:
    /// @brief Reads the configuration, listens on the socket and starts the backend.
    /// @throws std::runtime_error, ConfigError among them, when one of these fails; the text says which and why
    explicit Agent(AgentSettings settings);
    ~Agent() override;

    /// @brief Serves clients until a signal says to stop.
    void run();

private:
    std::string whyNoAlerts() const override;
    void raise(AlertSignal signal) override;

    std::unique_ptr<Server> makeServer(const Config& config);
    std::unique_ptr<BackendSlot> makeSlot(BackendKind kind, const Config& config);
    std::unique_ptr<BackendSlot> startNewBackend(BackendKind kind, const Config& config);
    void stopBackend(std::chrono::milliseconds patience, int status);
    void resumeBackend();
    void waitForSignal();
    void signalled(int number);
    void stop();
    void reload();
    void switchTo(const Config& fresh);
    void hostChanged(HostImage image);
    void beginToServe();
    std::string summary() const;

    const AgentSettings settings_;
    boost::asio::io_context io_{1};
    boost::asio::signal_set signals_;
    boost::asio::steady_timer firstImageTimer_;
    Config config_;
    std::string machineId_;  ///< kept for the life of the process: all identifiers come from it
    HostContent content_;
    CounterService counters_;  ///< outlives the server, which tells it whose connections have gone
    AlertCenter alerts_;       ///< outlives the server, whose consumers it keeps
    std::unique_ptr<Server> server_;
    std::unique_ptr<BackendSlot> slot_;
    bool serving_ = false;
    Watchdog watchdog_{io_};
};

/// @brief Looks through the configuration, and through the inventory where the described host would be used.
/// Starts, opens and writes nothing.
/// @return empty, or the first error in words
std::string checkConfiguration(const AgentSettings& settings);

}  // namespace kx::agent
