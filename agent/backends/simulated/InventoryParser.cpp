#include <fmt/format.h>

#include <exception>
#include <limits>

#include "agent/backends/simulated/InventoryFile.h"
#include "agent/backends/simulated/TomlFields.h"
#include "agent/base/TomlGuard.h"
#include "wire/Protocol.h"

namespace kx::agent::simulated {
namespace {

using Int64 = std::numeric_limits<std::int64_t>;

/// @return the identifier; nothing when the key is absent
std::optional<Eid> readEid(const TomlFields& fields, std::string_view key) {
    const auto text = fields.text(key);
    if (!text) {
        return std::nullopt;
    }
    if (const auto eid = Eid::parse(*text)) {
        return eid;
    }
    throw Failure(fields.place(key), fmt::format("{} must be a UUID like 0f8e5c1a-7a44-4c3b-9d1e-000000000101", key));
}

Template readTemplate(const toml::table& table) {
    const TomlFields fields(table, {"name", "version"});
    return {fields.neededText("name"), fields.neededText("version")};
}

Address readAddress(const toml::table& table) {
    const TomlFields fields(table, {"address", "mask"});
    return {fields.neededText("address"), fields.neededText("mask")};
}

Inet6Address readInet6Address(const toml::table& table) {
    const TomlFields fields(table, {"address", "prefix_length"});
    constexpr std::int64_t kMostBits = 128;
    const auto prefixLength = fields.integer("prefix_length", 0, kMostBits).value_or(kMostBits);
    return {fields.neededText("address"), static_cast<std::uint32_t>(prefixLength)};
}

template <typename Element>
std::optional<std::vector<Element>> readList(const TomlFields& fields, std::string_view key,
                                             Element (*readElement)(const toml::table&)) {
    const auto tables = fields.tables(key);
    if (!tables) {
        return std::nullopt;
    }
    std::vector<Element> result;
    result.reserve(tables->size());
    for (const auto* table : *tables) {
        result.push_back(readElement(*table));
    }
    return result;
}

/// A counter is a number, a table of two, or the text "unknown".
CounterSource readCounter(const toml::node& value, std::string_view name) {
    if (value.value_exact<std::string_view>() == "unknown") {
        return {0, 0, false};
    }
    if (value.is_integer()) {
        return {asInteger(value, name, Int64::min(), Int64::max()), 0, true};
    }
    if (!value.is_table()) {
        failOfType(value, name, "an integer or a table");
    }
    const TomlFields fields(*value.as_table(), {"value", "per_second"});
    return {fields.integer("value", Int64::min(), Int64::max()).value_or(0),
            fields.integer("per_second", Int64::min(), Int64::max()).value_or(0), true};
}

Counters readCounters(const toml::table& classes) {
    Counters result;
    for (const auto& [className, instances] : classes) {
        auto& ofClass = result[std::string(className.str())];
        for (const auto& [instanceName, counters] : asTable(instances, className.str())) {
            auto& ofInstance = ofClass[std::string(instanceName.str())];
            for (const auto& [name, value] : asTable(counters, instanceName.str())) {
                ofInstance[std::string(name.str())] = readCounter(value, name.str());
            }
        }
    }
    return result;
}

std::size_t textBytes(const std::optional<std::string>& text) {
    return text ? text->size() : 0;
}

std::size_t textBytes(const Environment& environment) {
    // An element of a list costs a few bytes on the wire even when its texts are empty.
    constexpr std::size_t elementBytes = 8;
    std::size_t sum = environment.name.size() + environment.type.size() + textBytes(environment.hostname) +
                      textBytes(environment.description);
    if (environment.osTemplate) {
        sum += environment.osTemplate->name.size() + environment.osTemplate->version.size();
    }
    for (const auto& address : environment.addresses.value_or(std::vector<Address>{})) {
        sum += address.address.size() + address.mask.size() + elementBytes;
    }
    for (const auto& address : environment.inet6Addresses.value_or(std::vector<Inet6Address>{})) {
        sum += address.address.size() + elementBytes;
    }
    for (const auto& application : environment.templates.value_or(std::vector<Template>{})) {
        sum += application.name.size() + application.version.size() + elementBytes;
    }
    return sum;
}

std::optional<Template> readOsTemplate(const TomlFields& fields) {
    const auto* table = fields.table("os_template");
    return table == nullptr ? std::nullopt : std::optional(readTemplate(*table));
}

Environment readConfiguration(const TomlFields& fields) {
    Environment environment;
    environment.name = fields.neededText("name");
    environment.type = fields.text("type").value_or(kContainerType);
    environment.state = fields.integer32("state").value_or(0);
    environment.transition = fields.integer32("transition").value_or(0);
    environment.veid = fields.integer32("veid");
    environment.hostname = fields.text("hostname");
    environment.description = fields.text("description");
    environment.osTemplate = readOsTemplate(fields);
    environment.baseSample = readEid(fields, "base_sample");
    environment.addresses = readList(fields, "addresses", readAddress);
    environment.inet6Addresses = readList(fields, "inet6_addresses", readInet6Address);
    environment.templates = readList(fields, "templates", readTemplate);
    return environment;
}

DescribedEnvironment readEnvironment(const toml::table& table) {
    const TomlFields fields(
        table, {"name", "type", "veid", "eid", "hostname", "description", "os_template", "base_sample", "state",
                "transition", "addresses", "inet6_addresses", "templates", "counters"});
    const Place place = placeOf(table.source());
    const auto* counters = fields.table("counters");
    DescribedEnvironment result{readConfiguration(fields), readEid(fields, "eid"),
                                counters == nullptr ? Counters{} : readCounters(*counters), place, fields.place("eid")};
    if (textBytes(result.environment) > kMaxTextBytes) {
        throw Failure(place, fmt::format("the environment has more than {} bytes of text", kMaxTextBytes));
    }
    return result;
}

Parameter readParameter(const toml::table& table) {
    const TomlFields fields(table, {"id", "value", "counter_type"});
    Parameter parameter{fields.text("id"), fields.text("value"), {}};
    if (const auto counterType = fields.integer("counter_type", Int64::min(), Int64::max())) {
        parameter.attributes["counter_type"] = *counterType;
    }
    return parameter;
}

Category readCategory(std::string_view name, const toml::node& value) {
    const auto& table = asTable(value, name);
    auto parameters = readList(TomlFields(table, {"parameters"}), "parameters", readParameter);
    if (!parameters) {
        throw Failure(placeOf(table.source()), "parameters is missing");
    }
    return {std::string(name), std::move(*parameters)};
}

std::size_t textBytes(const Category& category) {
    constexpr std::size_t parameterBytes = 48;  // attributes and lengths on the wire
    std::size_t sum = category.name.size();
    for (const auto& parameter : category.parameters) {
        sum += textBytes(parameter.id) + textBytes(parameter.value) + parameterBytes;
    }
    return sum;
}

std::vector<Category> readVocabulary(const toml::table& table) {
    std::vector<Category> categories;
    std::size_t bytes = 0;
    for (const auto& [name, value] : table) {
        categories.push_back(readCategory(name.str(), value));
        bytes += textBytes(categories.back());
    }
    if (bytes > kMaxTextBytes) {
        throw Failure(placeOf(table.source()), fmt::format("the vocabulary takes more than {} bytes", kMaxTextBytes));
    }
    return categories;
}

void readHost(const toml::table& table, InventoryFile& file) {
    const TomlFields fields(table, {"product_version", "generate"});
    file.productVersion = fields.text("product_version");
    if (textBytes(file.productVersion) > kMaxTextBytes) {
        throw Failure(fields.place("product_version"), fmt::format("more than {} bytes", kMaxTextBytes));
    }
    file.generate = static_cast<std::size_t>(fields.integer("generate", 0, kMaxGenerated).value_or(0));
}

InventoryFile readFile(const toml::table& root) {
    const TomlFields fields(root, {"host", "vocabulary", "environment"});
    InventoryFile file;
    if (const auto* host = fields.table("host")) {
        readHost(*host, file);
    }
    if (const auto* vocabulary = fields.table("vocabulary")) {
        file.categories = readVocabulary(*vocabulary);
    }
    if (auto environments = readList(fields, "environment", readEnvironment)) {
        file.environments = std::move(*environments);
    }
    return file;
}

}  // namespace

std::variant<InventoryFile, InventoryError> parseInventory(std::string_view text) {
    try {
        if (auto fault = findUnparsable(text)) {
            return InventoryError{fault->line, fault->column, std::move(fault->message)};
        }
        return readFile(toml::parse(text));
    } catch (const toml::parse_error& error) {
        const auto place = placeOf(error.source());
        return InventoryError{place.line, place.column, wire::printable(error.description())};
    } catch (const Failure& failure) {
        return InventoryError{failure.place().line, failure.place().column, failure.what()};
    } catch (const std::exception& error) {
        // Out of memory, most likely: the file has no place to point at.
        return InventoryError{0, 0, error.what()};
    }
}

}  // namespace kx::agent::simulated
