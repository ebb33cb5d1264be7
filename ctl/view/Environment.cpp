#include "ctl/view/Environment.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <set>
#include <tuple>

#include <kxa/KXAEnvConfig.h>

#include "ctl/ExitCode.h"
#include "ctl/Printable.h"
#include "ctl/view/Words.h"

namespace kx::ctl {
namespace {

/// @brief Reads a property by one of the configuration's getters.
template <typename T, typename Config>
std::optional<T> read(const KXAEnvConfig& config, int (Config::*getter)(KXLOptionalProperty<T>&) const) {
    KXLOptionalProperty<T> property;
    return (config.*getter)(property) == 0 ? std::optional<T>(property.get()) : std::nullopt;
}

/// @brief Reads a list by one of the configuration's getters.
template <typename Element, typename Config>
std::optional<std::vector<TextPair>> readPairs(const KXAEnvConfig& config,
                                               int (Config::*getter)(KXLOptionalProperty<std::vector<Element>>&) const,
                                               TextPair (*pairOf)(const Element&)) {
    const auto list = read(config, getter);
    if (!list) {
        return std::nullopt;
    }
    std::vector<TextPair> pairs;
    std::transform(list->begin(), list->end(), std::back_inserter(pairs), pairOf);
    return pairs;
}

TextPair pairOf(const KXLIPAddress& address) {
    return {address.getAddress(), address.getMask()};
}

TextPair pairOf(const KXLInet6Address& address) {
    return {address.getAddress(), std::to_string(address.getPrefixLength())};
}

TextPair pairOf(const KXATemplate& one) {
    return {one.getName(), one.getVersion()};
}

std::optional<std::int32_t> numberOf(const std::string& word) {
    std::int32_t number = 0;
    const char* const end = word.data() + word.size();
    const auto [stopped, error] = std::from_chars(word.data(), end, number);
    return error == std::errc() && stopped == end ? std::optional(number) : std::nullopt;
}

Json pairsJson(const std::vector<TextPair>& pairs, const char* first, const char* second) {
    Json list = Json::array();
    for (const auto& [one, other] : pairs) {
        Json pair;
        pair.putText(first, one);
        pair.putText(second, other);
        list.add(pair);
    }
    return list;
}

Json prefixesJson(const std::vector<TextPair>& addresses) {
    Json list = Json::array();
    for (const auto& [address, prefixLength] : addresses) {
        Json one;
        one.putText("address", address);
        one.put("prefix_length", numberOf(prefixLength).value_or(0));
        list.add(one);
    }
    return list;
}

void putIfThere(Json& object, const char* key, const std::optional<std::string>& text) {
    if (text) {
        object.putText(key, *text);
    }
}

std::string describe(const Environment& environment) {
    const std::string name = printableWord(environment.name);
    return environment.veid ? fmt::format("{} {} ({})", *environment.veid, name, environment.eid.toString())
                            : fmt::format("{} ({})", name, environment.eid.toString());
}

[[noreturn]] void failForNothing(const std::string& word) {
    throw Failure(ExitCode::Refused, fmt::format("there is nothing with the number, name or identifier {}; kxctl list "
                                                 "--all shows what there is",
                                                 printableWord(word)));
}

bool matchesPattern(const Environment& environment, const std::string& pattern) {
    return ::fnmatch(pattern.c_str(), environment.name.c_str(), 0) == 0 ||
           (environment.veid && ::fnmatch(pattern.c_str(), std::to_string(*environment.veid).c_str(), 0) == 0);
}

}  // namespace

Environment readEnvironment(const KXLEnv& environment) {
    Environment made;
    made.eid = environment.getEID();
    made.type = environment.getType();
    made.state = environment.getStatus()->state;
    made.transition = environment.getStatus()->transition;
    const KXAEnvConfig config(environment.getConfig());
    if (const auto& core = config.getCoreBasic()) {
        made.name = core->getText();
    }
    int veid = 0;
    if (config.getVeid(veid) == 0) {
        made.veid = veid;
    }
    made.hostname = read(config, &KXLEnvConfig::getHostname);
    made.description = read(config, &KXLEnvConfig::getDescription);
    if (const auto osTemplate = read(config, &KXAEnvConfig::getOsTemplate)) {
        made.osTemplate = TextPair(osTemplate->getName(), osTemplate->getVersion());
    }
    if (const auto sample = read(config, &KXLEnvConfig::getBaseSampleId)) {
        made.baseSample = sample->toString();
    }
    made.addresses = readPairs<KXLIPAddress>(config, &KXLEnvConfig::getAddresses, pairOf);
    made.inet6Addresses = readPairs<KXLInet6Address>(config, &KXLEnvConfig::getInet6Addresses, pairOf);
    made.templates = readPairs<KXATemplate>(config, &KXAEnvConfig::getTemplates, pairOf);
    return made;
}

std::vector<Environment> readEnvironments(const KXLEnvCache& cache) {
    std::vector<Environment> all;
    for (const auto& environment : cache.getEnvList()) {
        if (environment) {
            all.push_back(readEnvironment(*environment));
        }
    }
    std::stable_sort(all.begin(), all.end(), [](const Environment& one, const Environment& other) {
        const auto key = [](const Environment& of) {
            return std::make_tuple(!of.veid, of.veid.value_or(0), std::cref(of.name));
        };
        return key(one) < key(other);
    });
    return all;
}

std::vector<Environment> findEnvironments(const std::vector<Environment>& all, const std::string& word) {
    const auto number = numberOf(word);
    KXLEID eid;
    const bool isEid = eid.fromString(word) == 0;
    std::vector<Environment> found;
    std::copy_if(all.begin(), all.end(), std::back_inserter(found), [&](const Environment& one) {
        return (number && one.veid == number) || one.name == word || (isEid && one.eid == eid);
    });
    return found;
}

Environment chooseEnvironment(const std::vector<Environment>& all, const std::string& word) {
    const auto found = findEnvironments(all, word);
    if (found.empty()) {
        failForNothing(word);
    }
    if (found.size() > 1) {
        std::string which;
        for (const Environment& one : found) {
            which += (which.empty() ? "" : ", ") + describe(one);
        }
        throw Failure(ExitCode::Refused, fmt::format("{} may be any of: {}", printableWord(word), which));
    }
    return found.front();
}

std::vector<Environment> selectEnvironments(const std::vector<Environment>& all,
                                            const std::vector<std::string>& words) {
    std::set<KXLEID> selected;
    for (const std::string& word : words) {
        std::vector<Environment> found = findEnvironments(all, word);
        if (found.empty()) {
            std::copy_if(all.begin(), all.end(), std::back_inserter(found),
                         [&](const Environment& one) { return matchesPattern(one, word); });
        }
        if (found.empty()) {
            failForNothing(word);
        }
        for (const Environment& one : found) {
            selected.insert(one.eid);
        }
    }
    std::vector<Environment> kept = all;
    std::erase_if(kept, [&](const Environment& one) { return !words.empty() && selected.count(one.eid) == 0; });
    return kept;
}

std::string idText(const Environment& environment) {
    return environment.veid ? std::to_string(*environment.veid) : environment.eid.toString();
}

std::string osTemplateText(const Environment& environment) {
    if (!environment.osTemplate) {
        return {};
    }
    const auto& [name, version] = *environment.osTemplate;
    return name.empty() || version.empty() ? name : name + "/" + version;
}

std::string stateText(const Environment& environment) {
    return wordOrNumber(stateWord(environment.state), environment.state);
}

std::string transitionText(const Environment& environment) {
    return wordOrNumber(transitionWord(environment.transition), environment.transition);
}

std::optional<std::vector<TextPair>> allAddresses(const Environment& environment) {
    if (!environment.addresses || !environment.inet6Addresses) {
        return environment.addresses ? environment.addresses : environment.inet6Addresses;
    }
    std::vector<TextPair> all = *environment.addresses;
    all.insert(all.end(), environment.inet6Addresses->begin(), environment.inet6Addresses->end());
    return all;
}

std::string addressText(const TextPair& address) {
    const auto& [text, mask] = address;
    in_addr read{};
    if (::inet_pton(AF_INET, mask.c_str(), &read) == 1) {
        const std::uint32_t bits = ntohl(read.s_addr);
        const int ones = std::countl_one(bits);
        if (std::popcount(bits) == ones) {
            return text + "/" + std::to_string(ones);
        }
    }
    return mask.empty() ? text : text + "/" + mask;
}

Json environmentJson(const Environment& environment) {
    Json object;
    object.put("eid", environment.eid.toString());
    if (environment.veid) {
        object.put("veid", *environment.veid);
    }
    object.putText("name", environment.name);
    object.putText("type", environment.type);
    object.put("state", environment.state);
    object.put("transition", environment.transition);
    if (const char* const word = stateWord(environment.state)) {
        object.put("state_name", word);
    }
    if (const char* const word = transitionWord(environment.transition)) {
        object.put("transition_name", word);
    }
    putIfThere(object, "hostname", environment.hostname);
    putIfThere(object, "description", environment.description);
    if (environment.osTemplate) {
        Json osTemplate;
        osTemplate.putText("name", environment.osTemplate->first);
        osTemplate.putText("version", environment.osTemplate->second);
        object.put("os_template", osTemplate);
    }
    putIfThere(object, "base_sample", environment.baseSample);
    if (environment.addresses) {
        object.put("addresses", pairsJson(*environment.addresses, "address", "mask"));
    }
    if (environment.inet6Addresses) {
        object.put("inet6_addresses", prefixesJson(*environment.inet6Addresses));
    }
    if (environment.templates) {
        object.put("templates", pairsJson(*environment.templates, "name", "version"));
    }
    return object;
}

}  // namespace kx::ctl
