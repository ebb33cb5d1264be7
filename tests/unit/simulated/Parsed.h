// Shorthands for tests of inventory texts. One thread, each test's own.
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <string_view>
#include <variant>

#include "agent/backends/simulated/InventoryFile.h"
#include "agent/backends/simulated/SimulatedHost.h"

namespace kx::agent::simulated {

/// Any machine; the expected identifiers of the tests are of this one.
inline const std::string kMachineId = "0123456789abcdef0123456789abcdef";

/// @return what a text says; an empty file and a failed test when it is not a good one
inline InventoryFile parsed(std::string_view text) {
    auto result = parseInventory(text);
    if (const auto* error = std::get_if<InventoryError>(&result)) {
        ADD_FAILURE() << describe("inventory", *error);
        return {};
    }
    return std::move(std::get<InventoryFile>(result));
}

/// @return the one environment of a text
inline Environment onlyEnvironment(std::string_view text) {
    auto file = parsed(text);
    EXPECT_EQ(file.environments.size(), 1U);
    return file.environments.empty() ? Environment{} : file.environments.front().environment;
}

/// @return "LINE:COLUMN: message" of a bad text, "good" of a good one
template <typename Good>
std::string errorOf(const std::variant<Good, InventoryError>& result) {
    const auto* error = std::get_if<InventoryError>(&result);
    if (error == nullptr) {
        return "good";
    }
    return std::to_string(error->line) + ":" + std::to_string(error->column) + ": " + error->message;
}

/// @return the error of a text, found when parsing it or when making its host
inline std::string errorOf(const std::string& text) {
    return errorOf(hostOfText(text, kMachineId));
}

/// @return the host of a text
inline SimulatedHost hostOf(const std::string& text) {
    auto result = hostOfText(text, kMachineId);
    EXPECT_EQ(errorOf(result), "good");
    return std::holds_alternative<SimulatedHost>(result) ? std::move(std::get<SimulatedHost>(result)) : SimulatedHost{};
}

}  // namespace kx::agent::simulated
