// Numbers and names that both sides of the agent's socket agree on. See docs/protocol.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "kxwire.pb.h"

namespace kx::wire {

/// Peers of different majors do not understand each other; within a major, unknown fields are skipped.
inline constexpr std::uint32_t kProtocolMajor = 1;
inline constexpr std::uint32_t kProtocolMinor = 0;

/// Capabilities named in Hello: what a side can do once the handshake is done.
inline constexpr std::string_view kCapabilitySnapshot = "snapshot";      ///< snapshots and their deltas
inline constexpr std::string_view kCapabilityVocabulary = "vocabulary";  ///< vocabulary sets
inline constexpr std::string_view kCapabilityEvents = "events";          ///< event subscriptions
inline constexpr std::string_view kCapabilityRaise = "raise";            ///< answers requests to raise an alert
inline constexpr std::string_view kCapabilityCounters = "counters";      ///< monitors and counter queries
inline constexpr std::string_view kCapabilityEventAcks = "event-acks";   ///< event consumers and acknowledgements
inline constexpr std::string_view kCapabilityDeparted = "departed";      ///< environments that are gone

/// Numbers of one counter in one row of a counter group.
inline constexpr std::size_t kNumbersPerCounter = 3;

/// What an event subscription names.
inline constexpr std::string_view kEventsName = "events";

/// Type names of events.
inline constexpr std::string_view kEventTypeResourceAlert = "resource_alert";
inline constexpr std::string_view kEventTypeEnvironmentChange = "environment_change";

/// Environments in one snapshot chunk: bounds what a reader must hold per frame.
inline constexpr std::size_t kMaxEnvironmentsPerChunk = 1000;

/// Bytes of an environment's or the server's identifier.
inline constexpr std::size_t kEidBytes = 16;

/// Bytes of a program's name in Hello, and of the text of an Error: they end up in log lines.
inline constexpr std::size_t kMaxNameBytes = 256;

/// @brief A name or text from a peer made fit for a log line: cut to kMaxNameBytes, control bytes as '?'.
std::string printable(std::string_view text);

/// @brief Whether a Hello names the capability.
bool hasCapability(const Hello& hello, std::string_view capability);

/// @brief The start of every Hello: version, program name and capabilities of this build.
/// @param program name and version of the speaking program
Hello makeHello(std::string_view program);

/// @brief A frame that says why the connection is about to be closed.
Frame makeErrorFrame(ErrorCode code, std::string_view text);

}  // namespace kx::wire
