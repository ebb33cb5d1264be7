// One pass of the main loop.
//
// Thread promise: main thread.
#pragma once

/// @brief Waits until the agent library has something to do, and has it done. Comes back without having done anything
/// when a signal interrupts the wait, or nothing happens for a second.
///
/// The library can wait by itself, but would do so holding the turn that the sender of traps needs; so the wait is made
/// here, and the library is entered when it will not wait any more.
void serveRequests();
