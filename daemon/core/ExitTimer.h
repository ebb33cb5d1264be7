// Keeps the main thread from waiting for the master agent without end, above all once the process is to exit.
//
// Thread promise: main thread.
#pragma once

#include <csignal>

/// @brief From now on a signal arrives every half second. It ends an attempt to connect to a master agent that accepts
/// no connection; and once `running` has been zero for one of them, it cuts the session with the master agent off, so
/// that whatever the agent library waits for fails at once: pings and registrations may take it seconds.
/// @param running non-zero while the process is not to exit; must stay
void startExitTimer(const volatile std::sig_atomic_t& running);
