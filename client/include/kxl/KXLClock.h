// The wall clock of timeouts, in whole seconds.
//
// Thread promise: kxlTime() from any thread. setKXLClock() only while no loop runs: it is for tests.
#pragma once

#include <ctime>

/// @return seconds since 1970-01-01 UTC, as the clock in use tells
std::time_t kxlTime();

/// @brief Puts another clock in the place of the system's.
/// @param clock null: the system's
void setKXLClock(std::time_t (*clock)());
