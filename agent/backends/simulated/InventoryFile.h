// What an inventory file says, and the parser that reads it. Plain values, no thread of their own.
//
// The parser does no I/O and never throws, whatever the text: a fuzzer drives it directly. It checks types, ranges and
// spelling, so that a slip of the pen is pointed at; it does not check sense, since a described host may be odd.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "agent/backends/simulated/InventoryError.h"
#include "agent/inventory/Environment.h"
#include "agent/vocabulary/Vocabulary.h"

namespace kx::agent::simulated {

/// The most containers that a file may ask to have made up: ids and addresses of that many fit their ranges, and the
/// agent's memory is not used up by a slip of the pen.
inline constexpr std::int64_t kMaxGenerated = 1'000'000;

/// The most bytes of text in one environment, and in all vocabularies together: either must fit into one frame to a
/// client, with room to spare.
inline constexpr std::size_t kMaxTextBytes = std::size_t{1024} * 1024;

/// A counter of a described container.
struct CounterSource {
    std::int64_t value = 0;      ///< at the moment the file is read
    std::int64_t perSecond = 0;  ///< what is added every second from then on
    bool known = true;           ///< false: reported as not known
    bool operator==(const CounterSource&) const = default;
};

/// Counters of one container: class, instance, counter's name.
using Counters = std::map<std::string, std::map<std::string, std::map<std::string, CounterSource>>>;

/// Where in the file something is said, both from 1.
struct Place {
    std::size_t line = 0;
    std::size_t column = 0;
};

/// One `[[environment]]`.
struct DescribedEnvironment {
    Environment environment;  ///< its `eid` is meaningless here
    std::optional<Eid> eid;   ///< absent: to be made from the name
    Counters counters;
    Place place;     ///< of the environment
    Place eidPlace;  ///< of the `eid`, of the environment when there is none
};

/// A whole file.
struct InventoryFile {
    std::optional<std::string> productVersion;
    std::size_t generate = 0;          ///< number of containers to make up, 0..kMaxGenerated
    std::vector<Category> categories;  ///< each replaces the standard one of its name, or is one more
    std::vector<DescribedEnvironment> environments;
};

/// @brief Reads the text of an inventory file.
/// @param text TOML; any bytes are safe
/// @return what it says, or the first thing found wrong
std::variant<InventoryFile, InventoryError> parseInventory(std::string_view text);

}  // namespace kx::agent::simulated
