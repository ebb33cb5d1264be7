#include "agent/backends/simulated/TomlFields.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <tuple>

#include "wire/Protocol.h"

namespace kx::agent::simulated {
namespace {

std::string_view nameOfType(const toml::node& value) {
    switch (value.type()) {
        case toml::node_type::table:
            return "a table";
        case toml::node_type::array:
            return "an array";
        case toml::node_type::string:
            return "a string";
        case toml::node_type::integer:
            return "an integer";
        case toml::node_type::floating_point:
            return "a floating-point number";
        case toml::node_type::boolean:
            return "a boolean";
        default:
            return "a date or time";
    }
}

bool before(const Place& left, const Place& right) {
    return std::tie(left.line, left.column) < std::tie(right.line, right.column);
}

}  // namespace

Place placeOf(const toml::source_region& region) {
    return {region.begin.line, region.begin.column};
}

void failOfType(const toml::node& value, std::string_view key, std::string_view expected) {
    throw Failure(placeOf(value.source()),
                  fmt::format("{} must be {}, not {}", wire::printable(key), expected, nameOfType(value)));
}

const toml::table& asTable(const toml::node& value, std::string_view key) {
    if (const auto* result = value.as_table()) {
        return *result;
    }
    failOfType(value, key, "a table");
}

std::int64_t asInteger(const toml::node& value, std::string_view key, std::int64_t smallest, std::int64_t largest) {
    const auto* number = value.as_integer();
    if (number == nullptr) {
        failOfType(value, key, "an integer");
    }
    if (number->get() < smallest || number->get() > largest) {
        throw Failure(placeOf(value.source()),
                      fmt::format("{} must be {} to {}", wire::printable(key), smallest, largest));
    }
    return number->get();
}

TomlFields::TomlFields(const toml::table& table, const std::vector<std::string_view>& known) : table_(table) {
    // The table is sorted by key; the operator looks for the first slip in the file.
    const toml::key* firstUnknown = nullptr;
    for (const auto& [key, value] : table) {
        if (std::find(known.begin(), known.end(), key.str()) != known.end()) {
            continue;
        }
        if (firstUnknown == nullptr || before(placeOf(key.source()), placeOf(firstUnknown->source()))) {
            firstUnknown = &key;
        }
    }
    if (firstUnknown != nullptr) {
        throw Failure(placeOf(firstUnknown->source()),
                      fmt::format("unknown key \"{}\"", wire::printable(firstUnknown->str())));
    }
}

std::optional<std::string> TomlFields::text(std::string_view key) const {
    const toml::node* value = table_.get(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    if (const auto* text = value->as_string()) {
        return text->get();
    }
    failOfType(*value, key, "a string");
}

std::string TomlFields::neededText(std::string_view key) const {
    if (auto value = text(key)) {
        return std::move(*value);
    }
    throw Failure(placeOf(table_.source()), fmt::format("{} is missing", key));
}

std::optional<std::int64_t> TomlFields::integer(std::string_view key, std::int64_t smallest,
                                                std::int64_t largest) const {
    const toml::node* value = table_.get(key);
    return value == nullptr ? std::nullopt : std::optional(asInteger(*value, key, smallest, largest));
}

std::optional<std::int32_t> TomlFields::integer32(std::string_view key) const {
    using Limits = std::numeric_limits<std::int32_t>;
    const auto value = integer(key, Limits::min(), Limits::max());
    return value ? std::optional(static_cast<std::int32_t>(*value)) : std::nullopt;
}

const toml::table* TomlFields::table(std::string_view key) const {
    const toml::node* value = table_.get(key);
    return value == nullptr ? nullptr : &asTable(*value, key);
}

std::optional<std::vector<const toml::table*>> TomlFields::tables(std::string_view key) const {
    const toml::node* value = table_.get(key);
    if (value == nullptr) {
        return std::nullopt;
    }
    const auto* array = value->as_array();
    if (array == nullptr) {
        failOfType(*value, key, "an array of tables");
    }
    std::vector<const toml::table*> result;
    for (const auto& element : *array) {
        result.push_back(&asTable(element, fmt::format("an element of {}", key)));
    }
    return result;
}

Place TomlFields::place(std::string_view key) const {
    const toml::node* value = table_.get(key);
    return placeOf(value == nullptr ? table_.source() : value->source());
}

}  // namespace kx::agent::simulated
