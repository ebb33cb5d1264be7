// What an agent may make a client hold: every limit, with its unit and reason. Together with what the program holds
// besides, they keep it below 128 MiB whatever the agent sends, or fails to read.
//
// Whoever exceeds one is closed with a log line, unless it says otherwise. Thread promise: constants.
#pragma once

#include <cstddef>

namespace kx::client {

inline constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;

/// A frame as it will be once decoded (wire::decodedBytes). The largest that our own agent sends, 30,000 alerts at once
/// or a report of 4 MiB, stays below two thirds of it.
inline constexpr std::size_t kMaxDecodedFrameBytes = 24 * kMebibyte;

/// What the agent has not read yet, unless it is one frame. A client asks for little; pongs are what can pile up.
inline constexpr std::size_t kMaxUnsentBytes = 1 * kMebibyte;
/// What a frame takes in the queue beside its bytes.
inline constexpr std::size_t kUnsentFrameBytes = 64;

/// Requests without an answer. A caller gives up after half a second; so many mean that none comes any more.
inline constexpr std::size_t kMaxQuestions = 64;

/// Environments of one agent: far above any host.
inline constexpr std::size_t kMaxEnvironments = 1'000'000;
/// All environments at hand: the list that is shown, and what a new one has that this has not. 100,000 ordinary
/// containers take 45 MiB; an agent that sends others in their place must restart its clients.
inline constexpr std::size_t kMaxEnvironmentBytes = 64 * kMebibyte;
/// What an environment takes beside its texts: record, handle, name, its places in list and index.
inline constexpr std::size_t kEnvironmentBytes = 384;

/// Encoded size and parameters of all vocabularies: a thousand times those of our own agent.
inline constexpr std::size_t kMaxVocabularyBytes = 1 * kMebibyte;
inline constexpr std::size_t kMaxParameters = 10'000;

/// Frames of one report: an agent that sends more does not mean to end it.
inline constexpr std::size_t kMaxReportFrames = 1000;
/// Reports, as they will be once decoded. A report is held three times: here, in the program's own cache, and for
/// readers. One that is larger is ignored, and the link stays up: 12,000 containers with a dozen counters each fit.
inline constexpr std::size_t kMaxReportBytes = 24 * kMebibyte;
inline constexpr std::size_t kReportRowBytes = 320;      ///< of a row: container, class and instance
inline constexpr std::size_t kReportCounterBytes = 112;  ///< of a counter in a row
inline constexpr std::size_t kReportGroupBytes = 256;    ///< of a group, and what it repeats for each row

/// Freed memory goes back to the system each time so many bytes of frames have been handled, and with a connection.
inline constexpr std::size_t kTrimBytes = 2 * kMebibyte;

}  // namespace kx::client
