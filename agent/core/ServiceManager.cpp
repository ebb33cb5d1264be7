#include "agent/core/ServiceManager.h"

#include <fmt/format.h>
#include <systemd/sd-daemon.h>

#include <cstdint>
#include <ctime>

namespace kx::agent {
namespace {

constexpr int kKeepEnvironment = 0;

/// Managers that wait for the end of a reload tell by this time which reload is meant.
long long monotonicUsec() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000LL + now.tv_nsec / 1000;
}

}  // namespace

void notifyReady(const std::string& status) {
    ::sd_notify(kKeepEnvironment, fmt::format("READY=1\nSTATUS={}", status).c_str());
}

void notifyReloading() {
    ::sd_notify(kKeepEnvironment, fmt::format("RELOADING=1\nMONOTONIC_USEC={}", monotonicUsec()).c_str());
}

void notifyStopping() {
    ::sd_notify(kKeepEnvironment, "STOPPING=1");
}

std::chrono::milliseconds watchdogTime() {
    std::uint64_t usec = 0;
    const bool expected = ::sd_watchdog_enabled(kKeepEnvironment, &usec) > 0;
    return std::chrono::milliseconds(expected ? usec / 1000 : 0);
}

void notifyAlive() {
    ::sd_notify(kKeepEnvironment, "WATCHDOG=1");
}

}  // namespace kx::agent
