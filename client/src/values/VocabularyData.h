// A vocabulary as received. Immutable once made, shared by every map, parameter and iterator read from it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace kx::client {

struct ParameterData {
    std::optional<std::string> id;
    std::optional<std::string> value;
    std::map<std::string, std::int64_t> attributes;
};

struct CategoryData {
    std::string name;
    std::vector<ParameterData> parameters;
};

struct VocabularyData {
    std::string name;
    std::vector<ParameterData> parameters;
    std::vector<CategoryData> categories;
};

}  // namespace kx::client
