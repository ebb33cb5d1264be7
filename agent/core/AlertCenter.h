// From signals to alerts that are delivered: what is raised, when it is reported, who has not got it yet, and what of
// all this is remembered over a restart.
//
//   source ──► AlarmBook ──► AlertService ──► sink (the server) ──► EventConsumers
//
// Main thread only, on the io_context it was given.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/alerts/AlarmBook.h"
#include "agent/alerts/AlertService.h"
#include "agent/alerts/EventConsumers.h"
#include "agent/core/AlertKeeper.h"
#include "agent/inventory/HostContent.h"

namespace kx::agent {

/// All about alerts that outlives a connection.
class AlertCenter {
public:
    /// From the first image until every source has checked every container at least once.
    static constexpr std::chrono::seconds kCheckTime{30};

    /// What alerts lead to.
    struct Sinks {
        AlertService::Sink alerts;                       ///< gets what is to be reported
        std::function<void(InventoryDeltas)> inventory;  ///< gets what has changed when nothing is outstanding any more
    };

    /// @param inventory of which environments are known; must outlive this
    /// @param stateDirectory where things are remembered
    AlertCenter(boost::asio::io_context& io, Inventory& inventory, const AlertLimits& limits,
                const std::string& stateDirectory, Sinks sinks);
    AlertCenter(const AlertCenter&) = delete;
    AlertCenter& operator=(const AlertCenter&) = delete;

    /// @brief Takes over what a former agent has left. Once, before anything else.
    void restore();

    /// @brief Takes a signal; it may be reported before this returns.
    void take(AlertSignal signal);

    /// @brief An image is about to be published: clears what is raised about containers that are not in it.
    void clearWhatIsGone(const HostImage& image);

    /// @brief Clears what was raised before a restart and is not the case any more: at once about containers that
    /// nobody checks, for they do not run, and after kCheckTime what no source has reported again. To be called after
    /// every image of a real host.
    void clearWhatIsOver();

    /// @return whether something about the environment is still to be delivered, or to be cleared
    bool isOutstanding(const Eid& about) const;

    /// @brief Lets departed environments go about which nothing is outstanding, soon.
    void settle();

    void setLimits(const AlertLimits& limits) { service_.setLimits(limits); }
    EventConsumers& consumers() { return consumers_; }

    /// @brief Saves what is to be remembered, now.
    void save() { keeper_.save(); }

private:
    void changed();
    void publish(const std::vector<Alert>& alerts);
    void takeAll(std::vector<AlertSignal> signals);
    void waitToForget();
    AlertState collect() const;
    std::vector<Environment> environmentsOf(const AlertState& state) const;

    boost::asio::io_context& io_;
    Inventory& inventory_;
    const Eid host_;
    const Sinks sinks_;
    AlarmBook book_;
    EventConsumers consumers_;
    AlertService service_;
    AlertKeeper keeper_;
    boost::asio::steady_timer forgetTimer_;
    boost::asio::steady_timer checkTimer_;
    bool checking_ = false;  ///< checkTimer_ has been set
    bool settling_ = false;
    std::shared_ptr<const bool> alive_ = std::make_shared<const bool>(true);  ///< what late handlers check
};

}  // namespace kx::agent
