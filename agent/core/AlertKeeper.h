// Saves what is to be remembered of alerts, soon after every change, and finds it again after a restart.
//
// The file is replaced by rename and not synced: it survives the process, however that ends; after a power failure
// there may be an older one. Main thread only.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <string>

#include "agent/core/AlertState.h"

namespace kx::agent {

/// Keeps one file.
class AlertKeeper {
public:
    static constexpr const char* kFileName = "alerts.state";

    /// From a change to the file. A file that takes long to be written is written less often, so that it costs a tenth
    /// of the time at most.
    static constexpr std::chrono::milliseconds kDelay{50};
    static constexpr std::chrono::milliseconds kMaxDelay{2000};

    /// @param folder the state directory; made when it is missing
    /// @param collect called when the file is to be written
    AlertKeeper(boost::asio::io_context& io, const std::string& folder, std::function<AlertState()> collect);

    /// @return what was saved; nothing where there is no file. One that is damaged is set aside, with a log line
    AlertState load();

    /// @brief Something has changed: it will be saved.
    void changed();

    /// @brief Saves now. A failure is logged once until it changes.
    void save();

private:
    const std::string folder_;
    const std::string path_;
    const std::function<AlertState()> collect_;
    boost::asio::steady_timer timer_;
    bool isDue_ = false;
    std::chrono::steady_clock::duration delay_ = kDelay;
    std::string saved_;
    std::string problem_;  ///< logged last
};

}  // namespace kx::agent
