// What the agent tells the service manager of its own life (sd_notify(3)). Without a service manager that listens,
// nothing happens. Main thread only.
#pragma once

#include <chrono>
#include <string>

namespace kx::agent {

/// @brief The agent serves clients, after its start or after a reload.
/// @param status one line for whoever asks the service manager how it goes
void notifyReady(const std::string& status);

/// @brief The agent reads its configuration again; followed by notifyReady().
void notifyReloading();

/// @brief The agent is about to end.
void notifyStopping();

/// @return within what time the service manager expects notifyAlive() again and again; 0: it does not
std::chrono::milliseconds watchdogTime();

/// @brief The agent works.
void notifyAlive();

}  // namespace kx::agent
