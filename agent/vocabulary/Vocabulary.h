// The named vocabularies the agent publishes: categories of parameters, e.g. a counter class and its counters.
// Plain values, no thread of their own.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kx::agent {

/// One parameter of a vocabulary.
struct Parameter {
    std::optional<std::string> id;  ///< absent only in a described host that wants to be odd
    std::optional<std::string> value;
    std::map<std::string, std::int64_t> attributes;  ///< "counter_type"
    bool operator==(const Parameter&) const = default;
};

/// A category: parameters in the order that readers publish them.
struct Category {
    std::string name;
    std::vector<Parameter> parameters;
    bool operator==(const Category&) const = default;
};

/// A vocabulary; the one with the empty name is the server's default vocabulary.
struct Vocabulary {
    std::string name;
    std::vector<Parameter> parameters;
    std::vector<Category> categories;
    bool operator==(const Vocabulary&) const = default;
};

/// Name of the vocabulary that describes the counter classes.
inline constexpr const char* kBasicFunctionality = "KXABasicFunctionality";

/// The counter classes of containers, and what is in them in the order of the tables' columns.
inline constexpr const char* kQuotaClass = "counters_kx_quota";
inline constexpr const char* kNetworkClass = "counters_kx_net";
const std::vector<std::string>& quotaCounterNames();
const std::vector<std::string>& networkCounterNames();

/// @brief The vocabularies of a real host: the counter classes, and the product's version.
/// @param productVersion value of `kxversion`; absent: the default vocabulary does not have it
std::vector<Vocabulary> standardVocabularies(const std::optional<std::string>& productVersion);

}  // namespace kx::agent
