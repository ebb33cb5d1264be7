// Statistics of one performance counter. A plain value.
#pragma once

#include <cstdint>
#include <map>
#include <string>

/// @brief A counter's sample: three values, integers or doubles.
struct KXLPerfStat {
    /// One 64-bit value, read as `kind` of its sample says.
    union Value {
        std::int64_t integer;
        double real;
    };

    std::uint8_t kind = 1;  ///< non-zero: the three values are integers; zero: doubles
    Value value1{0};        ///< a level: now; an increase: the rate now
    Value value2{0};        ///< the mean over the period
    Value value3{0};        ///< a level: the maximum; an increase: the increase since the last report
    std::int64_t fourth = 0;
    bool isKnown = true;  ///< false: the agent does not know the counter's values; they only fill their places
};
