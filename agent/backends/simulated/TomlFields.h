// Reading a TOML table whose keys are known: every wrong type and every unknown key is pointed at.
// No thread of its own. Throws, since it is for code that reads configuration; who calls it catches Failure.
#pragma once

#include <toml++/toml.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "agent/backends/simulated/InventoryError.h"
#include "agent/backends/simulated/InventoryFile.h"

namespace kx::agent::simulated {

/// Something wrong at a place of the file; what() is one line in words, fit for a log.
class Failure : public std::runtime_error {
public:
    Failure(Place place, const std::string& message) : std::runtime_error(message), place_(place) {}

    /// @return where
    Place place() const { return place_; }

private:
    Place place_;
};

/// @return where a value or a key begins
Place placeOf(const toml::source_region& region);

/// @brief Says that a value is of another type than it must be.
/// @param key what the operator calls the value; shown
/// @param expected with its article: "a string"
[[noreturn]] void failOfType(const toml::node& value, std::string_view key, std::string_view expected);

/// @return the value as a table
/// @throws Failure when it is something else
const toml::table& asTable(const toml::node& value, std::string_view key);

/// @return the value as an integer
/// @throws Failure when it is something else, or not in smallest..largest
std::int64_t asInteger(const toml::node& value, std::string_view key, std::int64_t smallest, std::int64_t largest);

/// The fields of one table.
class TomlFields {
public:
    /// @param table must outlive this object
    /// @param known the keys that may be there
    /// @throws Failure at the first key in the file that is none of them
    TomlFields(const toml::table& table, const std::vector<std::string_view>& known);

    /// @return the text, byte for byte; nothing when the key is absent
    std::optional<std::string> text(std::string_view key) const;

    /// @return the text
    /// @throws Failure at the table when the key is absent
    std::string neededText(std::string_view key) const;

    /// @return the number; nothing when the key is absent
    std::optional<std::int64_t> integer(std::string_view key, std::int64_t smallest, std::int64_t largest) const;

    /// @return the number; nothing when the key is absent
    std::optional<std::int32_t> integer32(std::string_view key) const;

    /// @return the table, owned by the one given; null when the key is absent
    const toml::table* table(std::string_view key) const;

    /// @return the tables of an array; nothing when the key is absent
    std::optional<std::vector<const toml::table*>> tables(std::string_view key) const;

    /// @return where the value of the key is; the table's own place when the key is absent
    Place place(std::string_view key) const;

private:
    const toml::table& table_;
};

}  // namespace kx::agent::simulated
