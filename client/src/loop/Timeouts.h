// Every deadline and interval of the client library, with its unit and reason.
//
// Thread promise: plain values. A loop carries them for all that runs on it; they are set before it starts.
#pragma once

#include <chrono>

namespace kx::client {

struct Timeouts {
    using Span = std::chrono::milliseconds;

    /// initializeSync, and a synchronous request, wait this long in all. An SNMP master gives a sub-agent one second
    /// per try; half of it leaves time for the answer itself.
    Span synchronous{500};

    /// After a wait that ran into that limit the agent counts as silent for this long, unless it says something:
    /// one SNMP request may need the agent some thirty times, and all of them must stay within its second.
    Span silence{5000};

    /// An initialisation that its caller has given up goes on this long for the next one. Longer than `silence`, so
    /// that managers who ask every now and then get a host in the end whose data take long to arrive.
    Span adoption{10000};

    /// A reconnection, for which nobody waits, ends when nothing of what it needs has come for this long.
    Span reconnect{5000};

    /// An idle agent is pinged this often; one that sent nothing since the last ping is lost.
    Span keepAlive{10000};

    /// A link that has been up for this long and has given a sign of life is stable: only then do the pauses between
    /// reconnections start over. An agent that breaks right after the handshake is reconnected to ever more seldom; one
    /// that is restarted now and then is not made to wait. Shorter than keepAlive.
    Span stable{2000};

    /// First pause before a reconnection, and the longest.
    Span backoffFirst{100};
    Span backoffLongest{5000};

    /// How often the event gate is asked while it is closed.
    Span eventGate{20};
};

}  // namespace kx::client
