// Reports of performance counters out of wire messages. What the peer sent is checked, not trusted.
//
// Thread promise: plain functions and values; any one thread at a time.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <kxl/KXLMonitorData.h>

#include "wire/Protocol.h"

namespace kx::client {

/// @brief Puts a report together that came in several frames.
class SampleAssembler {
public:
    enum class Outcome {
        Complete,
        Pending,
        TooLarge,  ///< it went over its limit of bytes, and has come to its end: there is nothing of it
        Endless,   ///< it has more frames than any report
    };

    /// @param key tells reports apart that come at the same time
    /// @param sample one frame of it; replaced by the whole report when that is complete
    Outcome take(std::uint64_t key, wire::CounterSample& sample);

    /// @brief Forgets what is incomplete.
    void clear() {
        partial_.clear();
        bytes_ = 0;
    }

private:
    struct Partial {
        wire::CounterSample sample;
        std::size_t frames = 0;
        std::size_t bytes = 0;
        bool isTooLarge = false;
    };

    void add(Partial& partial, wire::CounterSample& sample);

    std::map<std::uint64_t, Partial> partial_;
    std::size_t bytes_ = 0;  ///< of all of them, decoded
};

/// @brief Decodes a whole report: one element a container, in the order in which they first appear.
/// @param into an earlier report, of which only the memory is used, or nothing; is replaced
/// @param reason receives why the report makes no sense
/// @return false when it makes none; then `into` is of no worth
bool decodeCounters(const wire::CounterSample& from, std::vector<KXLMonitorData>& into, std::string& reason);

}  // namespace kx::client
