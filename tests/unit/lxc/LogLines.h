// A log that tests look into. One thread, or with what keeps others away.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "agent/backends/lxc/LogSink.h"

namespace kx::agent::lxc {

/// Keeps log lines for a test to look at.
struct LogLines {
    std::vector<std::pair<Severity, std::string>> lines;

    LogSink sink() {
        return [this](Severity severity, const std::string& line) { lines.emplace_back(severity, line); };
    }
    std::size_t count(Severity severity) const {
        std::size_t result = 0;
        for (const auto& line : lines) {
            result += line.first == severity ? 1U : 0U;
        }
        return result;
    }
};

}  // namespace kx::agent::lxc
