// The way from this backend's parts to the agent's log. Any thread.
#pragma once

#include "agent/backends/lxc/LogSink.h"

namespace kx::agent::lxc {

/// @return a sink that writes to the agent's log
LogSink agentLog();

}  // namespace kx::agent::lxc
