#include "agent/core/MachineId.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <random>
#include <stdexcept>

#include "agent/base/File.h"
#include "agent/base/Log.h"

namespace kx::agent {
namespace {

constexpr std::size_t kIdBytes = 32;
constexpr std::size_t kMaxFileBytes = 4096;

bool isHexadecimal(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

std::optional<std::string> idIn(const std::string& file) {
    std::string problem;
    auto text = readRegularFile(file, kMaxFileBytes, problem);
    if (text && !text->empty() && text->back() == '\n') {
        text->pop_back();
    }
    if (!text || text->size() != kIdBytes || !std::all_of(text->begin(), text->end(), isHexadecimal)) {
        return std::nullopt;
    }
    // The kernel's and systemd's way of saying "none".
    if (text->find_first_not_of('0') == std::string::npos) {
        return std::nullopt;
    }
    return text;
}

std::string makeId() {
    std::random_device random;
    std::string id;
    while (id.size() < kIdBytes) {
        id += fmt::format("{:08x}", random());
    }
    return id;
}

std::string keptFileIn(const std::string& stateDirectory) {
    return stateDirectory + "/machine-id";
}

}  // namespace

std::optional<std::string> knownMachineId(const std::string& systemFile, const std::string& stateDirectory) {
    if (auto id = idIn(systemFile)) {
        return id;
    }
    const std::string keptFile = keptFileIn(stateDirectory);
    auto id = idIn(keptFile);
    std::error_code error;
    if (!id && std::filesystem::exists(keptFile, error)) {
        throw std::runtime_error(fmt::format("{} holds no machine id; remove it to have a new one made", keptFile));
    }
    return id;
}

std::string machineId(const std::string& systemFile, const std::string& stateDirectory) {
    if (const auto id = knownMachineId(systemFile, stateDirectory)) {
        return *id;
    }
    const std::string keptFile = keptFileIn(stateDirectory);
    std::string id = makeId();
    std::string problem = makeFolders(stateDirectory);
    if (problem.empty()) {
        problem = replaceFile(keptFile, id + "\n");
    }
    if (!problem.empty()) {
        throw std::runtime_error(fmt::format("{} has no machine id and none can be kept: {}", systemFile, problem));
    }
    log::warning(fmt::format("{} has no machine id: made one and kept it in {}", systemFile, keptFile));
    return id;
}

}  // namespace kx::agent
