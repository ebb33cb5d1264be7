// An environment as it is shown: all that the agent has told of it, as values. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <kxl/KXLEnvCache.h>

#include "ctl/Json.h"

namespace kx::ctl {

/// The type of the environments that are containers.
inline constexpr const char* kContainerType = "lumetra";

/// Two texts that belong together, any bytes: a name and a version, an address and a mask.
using TextPair = std::pair<std::string, std::string>;

/// What is not there the configuration does not have. Texts may be any bytes.
struct Environment {
    KXLEID eid;
    std::string type;
    std::int32_t state = 0;
    std::int32_t transition = 0;
    std::string name;
    std::optional<std::int32_t> veid;
    std::optional<std::string> hostname;
    std::optional<std::string> description;
    std::optional<TextPair> osTemplate;  ///< name, version
    std::optional<std::string> baseSample;
    std::optional<std::vector<TextPair>> addresses;       ///< IPv4 address, mask
    std::optional<std::vector<TextPair>> inet6Addresses;  ///< IPv6 address, length of the prefix
    std::optional<std::vector<TextPair>> templates;       ///< name, version

    bool isContainer() const { return type == kContainerType; }
};

Environment readEnvironment(const KXLEnv& environment);

/// @return all that the cache has, by number, then by name; those without a number behind the others
std::vector<Environment> readEnvironments(const KXLEnvCache& cache);

/// @brief Finds what an operator means.
/// @param word a number, a name or an identifier
/// @return all that it may stand for
std::vector<Environment> findEnvironments(const std::vector<Environment>& all, const std::string& word);

/// @brief The same, where one is meant.
/// @throws Failure when there is none, or more than one
Environment chooseEnvironment(const std::vector<Environment>& all, const std::string& word);

/// @brief The same, where several may be meant.
/// @param words as before, or patterns of names or numbers (glob(7)); none: all
/// @return all that one of the words stands for, in the order in which they were
/// @throws Failure when a word stands for nothing
std::vector<Environment> selectEnvironments(const std::vector<Environment>& all, const std::vector<std::string>& words);

/// @return the number, or the identifier of one that has none
std::string idText(const Environment& environment);

/// @return "debian/12"; the name alone where there is no version; empty when there is no name. Any bytes.
std::string osTemplateText(const Environment& environment);

/// @return "running", or the number where there is no word for it
std::string stateText(const Environment& environment);

/// @return "none", likewise
std::string transitionText(const Environment& environment);

/// @return those of both kinds, IPv4 first; nothing when neither is known
std::optional<std::vector<TextPair>> allAddresses(const Environment& environment);

/// @return "10.0.0.1/24", "fd00::1/64"; any other mask than a row of ones is written out. Any bytes.
std::string addressText(const TextPair& address);

/// @return all that is known; keys of what the configuration does not have are absent
Json environmentJson(const Environment& environment);

}  // namespace kx::ctl
