// The backend of a host that runs LXC containers.
//
// Threads: one worker thread of its own, with every signal blocked, makes all calls into liblxc and reads all
// files; they may wait for a disk or for a container's monitor and must not hold up the agent's clients. What it
// finds is posted to the io_context as a whole image; the listener runs on the agent's main thread only. Two helpers
// of the worker's have a thread each: StuckCallBreaker and AddressWatch.
#pragma once

#include <boost/asio/io_context.hpp>
#include <memory>
#include <string>

#include "agent/backends/Backend.h"
#include "agent/backends/lxc/LogSink.h"
#include "agent/backends/lxc/LxcLog.h"

namespace kx::agent {

/// What the LXC backend needs to know of its host.
struct LxcSettings {
    std::string path;            ///< folder with one sub-folder a container, usually /var/lib/lxc
    std::string stateDirectory;  ///< where given VE ids are remembered; made when it does not exist
    std::string machineId;       ///< what tells this machine from others; identifiers are made from it
    std::string productVersion;  ///< what a client is told as the product's version
};

/// @brief Tells whether a host has LXC containers: whether a sub-folder of the path has a `config`.
/// @param path folder with one sub-folder a container; it need not exist
/// @return false also when the folder cannot be read
bool lxcHasContainers(const std::string& path);

/// @brief Makes the backend; nothing is watched before its start().
/// start() returns at once, the first image is posted by the worker. It throws std::runtime_error when neither the
/// path nor its parent folder can be watched; a path or a cgroup hierarchy that is not there yet is waited for.
/// stop(), also called by the destructor, joins the worker; an image that was posted but not yet delivered is dropped.
/// @param io runs on the main thread; must outlive the backend
/// @param settings the path is taken as it is: liblxc finds a running container by this very text
/// @param listener must outlive the backend's stop()
/// @param log gets log lines, on the worker and in start()
std::unique_ptr<Backend> makeLxcBackend(boost::asio::io_context& io, LxcSettings settings, BackendListener& listener,
                                        lxc::LogSink log = lxc::agentLog());

}  // namespace kx::agent
