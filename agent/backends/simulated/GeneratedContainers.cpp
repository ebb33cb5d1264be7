#include "agent/backends/simulated/GeneratedContainers.h"

#include <fmt/format.h>

#include <array>
#include <string_view>

#include "agent/vocabulary/Vocabulary.h"

namespace kx::agent::simulated {
namespace {

/// What a made-up container is for.
struct Role {
    std::string_view name;
    std::string_view description;
    std::string_view application;  ///< template; empty: the container has an empty list of them
    std::string_view version;
};

constexpr std::array<Role, 7> kRoles{{
    {"web", "Web front end", "nginx", "1.24"},
    {"app", "Application server", "openjdk", "17"},
    {"db", "Database", "postgresql", "15.6"},
    {"mail", "Mail relay", "postfix", "3.7"},
    {"cache", "Session cache", "redis", "7.0"},
    {"build", "Build worker", "gcc", "12.2"},
    {"shell", "Login host", "", ""},
}};

struct System {
    std::string_view name;
    std::string_view version;
};

constexpr std::array<System, 5> kSystems{
    {{"debian", "12"}, {"debian", "11"}, {"ubuntu", "22.04"}, {"alpine", "3.19"}, {"rocky", "9.3"}}};

/// Most containers of a host run. The periods share no factor with the number of roles, so every role has every state.
State stateOf(std::size_t index) {
    if (index % 10 == 9) {
        return State::Stopped;
    }
    return index % 53 == 52 ? State::Frozen : State::Running;
}

/// One address each, in 10.0.0.0/8; kMaxGenerated of them fit.
Address addressOf(std::size_t index) {
    const std::size_t host = index + 1;
    return {fmt::format("10.{}.{}.{}", host / 65536, host / 256 % 256, host % 256), "255.0.0.0"};
}

std::vector<Template> templatesOf(const Role& role) {
    if (role.application.empty()) {
        return {};
    }
    return {Template{std::string(role.application), std::string(role.version)}};
}

}  // namespace

Environment generateContainer(std::size_t index, const std::string& machineId) {
    const Role& role = kRoles[index % kRoles.size()];
    const System& system = kSystems[index / kRoles.size() % kSystems.size()];
    const auto veid = kFirstGeneratedVeId + static_cast<std::int32_t>(index);

    Environment container;
    container.eid = Eid::fromName(machineId, fmt::format("simulated/generated/{}", veid));
    container.state = static_cast<std::int32_t>(stateOf(index));
    container.name = fmt::format("{}-{}", role.name, veid);
    container.veid = veid;
    container.hostname = container.name + ".example.net";
    container.description = fmt::format("{}, made up", role.description);
    container.osTemplate = Template{std::string(system.name), std::string(system.version)};
    container.baseSample = Eid::fromName(machineId, fmt::format("simulated/sample/{}", role.name));
    container.addresses = std::vector<Address>{addressOf(index)};
    container.templates = templatesOf(role);
    return container;
}

Counters generateCounters(std::size_t index) {
    const auto number = static_cast<std::int64_t>(index);
    constexpr std::int64_t gib = std::int64_t{1} << 30;
    Counters counters;
    counters[kQuotaClass][""] = {{"diskspace_used", {(number % 90 + 1) * gib / 5, number % 3 * 4096}},
                                 {"diskspace_softlimit", {16 * gib, 0}},
                                 {"diskspace_hardlimit", {20 * gib, 0}},
                                 {"diskspace_grace", {0, 0}},
                                 {"inodes_used", {20000 + number % 1000, 0}},
                                 {"inodes_softlimit", {900000, 0}},
                                 {"inodes_hardlimit", {1000000, 0}},
                                 {"inodes_grace", {0, 0}}};
    if (stateOf(index) == State::Stopped) {
        return counters;
    }
    const std::int64_t rate = stateOf(index) == State::Running ? number % 17 : 0;
    counters[kNetworkClass]["2"] = {{"bytes_in", {number * 1500, rate * 15000}},
                                    {"packets_in", {number * 10, rate * 100}},
                                    {"bytes_out", {number * 3000, rate * 45000}},
                                    {"packets_out", {number * 20, rate * 120}}};
    return counters;
}

}  // namespace kx::agent::simulated
