#include "agent/backends/simulated/SimulatedHost.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "agent/backends/simulated/GeneratedContainers.h"
#include "agent/base/File.h"
#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::simulated {
namespace {

/// Hands out identifiers and notices the second use of one.
class EidRegister {
public:
    explicit EidRegister(const std::string& machineId) : machineId_(machineId) {
        taken_[Eid::fromName(machineId, "host")] = Place{};
    }

    /// Sets the environment's identifier.
    /// @return what is wrong with it
    std::optional<InventoryError> assign(DescribedEnvironment& described) {
        const std::size_t number = ++numberOfName_[described.environment.name];
        described.environment.eid = described.eid ? *described.eid : fromName(described.environment.name, number);
        return take(described.environment.eid, described.eidPlace);
    }

    /// @return where the file uses the identifier; nothing where it does not
    std::optional<Place> placeOf(const Eid& eid) const {
        const auto found = taken_.find(eid);
        return found == taken_.end() ? std::nullopt : std::optional(found->second);
    }

private:
    Eid fromName(const std::string& name, std::size_t number) const {
        const std::string suffix = number > 1 ? fmt::format("#{}", number) : "";
        return Eid::fromName(machineId_, "simulated/" + name + suffix);
    }

    std::optional<InventoryError> take(const Eid& eid, Place place) {
        const auto [other, fresh] = taken_.emplace(eid, place);
        if (fresh) {
            return std::nullopt;
        }
        const auto owner =
            other->second.line == 0 ? "this host" : fmt::format("the environment of line {}", other->second.line);
        return InventoryError{place.line, place.column, fmt::format("eid {} is that of {}", eid.toString(), owner)};
    }

    const std::string& machineId_;
    std::map<std::string, std::size_t> numberOfName_;
    std::map<Eid, Place> taken_;
};

std::vector<Vocabulary> makeVocabularies(const std::optional<std::string>& productVersion,
                                         std::vector<Category> described) {
    auto vocabularies = standardVocabularies(productVersion);
    const auto basic = std::find_if(vocabularies.begin(), vocabularies.end(),
                                    [](const Vocabulary& each) { return each.name == kBasicFunctionality; });
    for (auto& category : described) {
        const auto standard = std::find_if(basic->categories.begin(), basic->categories.end(),
                                           [&](const Category& each) { return each.name == category.name; });
        if (standard == basic->categories.end()) {
            basic->categories.push_back(std::move(category));
        } else {
            *standard = std::move(category);
        }
    }
    return vocabularies;
}

std::optional<InventoryError> addGenerated(std::size_t count, const std::string& machineId, const EidRegister& eids,
                                           SimulatedHost& host) {
    auto& environments = host.image.environments;
    for (std::size_t index = 0; index < count; ++index) {
        environments.push_back(generateContainer(index, machineId));
        host.counters.emplace(environments.back().eid, generateCounters(index));
        if (const auto place = eids.placeOf(environments.back().eid)) {
            return InventoryError{place->line, place->column, "this is the eid of one of the generated containers"};
        }
    }
    return std::nullopt;
}

InventoryError systemError(int error) {
    return {0, 0, fmt::format("cannot be read: {}", std::strerror(error))};
}

InventoryError tooLong() {
    return {0, 0, fmt::format("is longer than {} bytes", kMaxFileBytes)};
}

}  // namespace

std::variant<SimulatedHost, InventoryError> makeHost(InventoryFile file, const std::string& machineId) {
    SimulatedHost host;
    EidRegister eids(machineId);
    host.image.environments.reserve(file.environments.size() + file.generate);
    for (auto& described : file.environments) {
        if (auto error = eids.assign(described)) {
            return std::move(*error);
        }
        if (!described.counters.empty()) {
            host.counters.emplace(described.environment.eid, std::move(described.counters));
        }
        host.image.environments.push_back(std::move(described.environment));
    }
    if (auto error = addGenerated(file.generate, machineId, eids, host)) {
        return std::move(*error);
    }
    host.image.vocabularies = makeVocabularies(file.productVersion, std::move(file.categories));
    return host;
}

std::variant<std::string, InventoryError> readInventoryText(const std::string& path) {
    // Not blocking: opening a pipe must not wait for its writer.
    const OwnedDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!file || ::fstat(file.get(), &status) != 0) {
        return systemError(errno);
    }
    if (!S_ISREG(status.st_mode)) {
        return InventoryError{0, 0, "is not a regular file"};
    }
    if (static_cast<std::size_t>(status.st_size) > kMaxFileBytes) {
        return tooLong();
    }
    std::string text;
    // To the end, even if the file grows meanwhile: its writer's closing it makes us read again.
    if (const int error = readToEnd(file.get(), kMaxFileBytes, text)) {
        return error == EFBIG ? tooLong() : systemError(error);
    }
    return text;
}

std::variant<SimulatedHost, InventoryError> hostOfText(const std::string& text, const std::string& machineId) {
    // A file that is being written is empty for a moment; a host without containers has a table [host].
    if (text.find_first_not_of(" \t\r\n") == std::string::npos) {
        return InventoryError{0, 0, "is empty"};
    }
    auto parsed = parseInventory(text);
    if (auto* error = std::get_if<InventoryError>(&parsed)) {
        return std::move(*error);
    }
    return makeHost(std::move(std::get<InventoryFile>(parsed)), machineId);
}

}  // namespace kx::agent::simulated
