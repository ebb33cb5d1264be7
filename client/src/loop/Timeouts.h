// Every deadline and interval of the client library, with its unit and reason.
#pragma once

#include <chrono>

namespace kx::client {

/// initializeSync waits this long in all. An SNMP master gives a sub-agent one second per try; half of it
/// leaves room for the answer itself.
inline constexpr std::chrono::milliseconds kInitializeDeadline{500};

/// What initializeSync waits when it closely follows one that used up its deadline. One SNMP request may look
/// the agent up some thirty times, once for each column of each table that its search passes through; with a silent
/// agent these must stay within the request's second together. An agent that works needs a few milliseconds.
inline constexpr std::chrono::milliseconds kFollowUpDeadline{5};

/// How closely "closely follows" is: longer than a request's own look-ups take together.
inline constexpr std::chrono::milliseconds kFollowUpWindow{500};

/// Connecting, handshake and first data of a reconnection, where nobody waits.
inline constexpr std::chrono::seconds kReconnectDeadline{5};

/// An idle agent is asked for a sign of life this often; one that sent nothing since the last question is lost.
inline constexpr std::chrono::seconds kKeepAliveInterval{10};

/// A synchronous request waits this long for its answer, for the same reason as initializeSync.
inline constexpr std::chrono::milliseconds kCallDeadline{500};

/// First pause before a reconnection, and the longest.
inline constexpr std::chrono::milliseconds kBackoffFirst{100};
inline constexpr std::chrono::milliseconds kBackoffLongest{5000};

}  // namespace kx::client
