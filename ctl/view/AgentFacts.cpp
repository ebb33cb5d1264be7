#include "ctl/view/AgentFacts.h"

#include <fmt/format.h>

namespace kx::ctl {

std::optional<std::string> productVersion(const KXLAccessPointPrototype& agent) {
    const auto vocabulary = agent.getVocabulary(agent.getEID());
    const auto parameter = vocabulary ? vocabulary->readParameter("kxversion") : nullptr;
    std::string version;
    return parameter && parameter->getValue(version, KXL_FIELD_VALUE) == 0 ? std::optional(version) : std::nullopt;
}

int measureRoundTrip(KXLAccessPointPrototype& agent, std::chrono::microseconds& took, KXLFreshness& freshness) {
    const auto start = std::chrono::steady_clock::now();
    const int code = agent.pingSync(freshness);
    took = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
    return code;
}

std::string milliseconds(std::chrono::microseconds time) {
    return fmt::format("{:.2f} ms", static_cast<double>(time.count()) / 1000);
}

}  // namespace kx::ctl
