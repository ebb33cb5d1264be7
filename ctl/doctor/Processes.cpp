#include "ctl/doctor/Processes.h"

#include <dirent.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>

namespace kx::ctl {
namespace {

bool isNumber(const char* name) {
    return *name != '\0' && std::all_of(name, name + std::strlen(name),
                                        [](unsigned char character) { return std::isdigit(character) != 0; });
}

}  // namespace

std::optional<std::string> readProcess(const std::string& pid, const std::string& file) {
    const std::string path = fmt::format("/proc/{}/{}", pid, file);
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> opened(std::fopen(path.c_str(), "re"), std::fclose);
    if (!opened) {
        return std::nullopt;
    }
    std::string text;
    std::array<char, 4096> part{};
    while (const std::size_t count = std::fread(part.data(), 1, part.size(), opened.get())) {
        text.append(part.data(), count);
    }
    return std::ferror(opened.get()) == 0 ? std::optional(text) : std::nullopt;
}

bool isRunning(const std::string& status, const std::string& program) {
    bool isNamed = false;
    bool isAlive = true;
    std::size_t namespaces = 1;  // a kernel without them does not list any
    std::istringstream lines(status);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string key, value;
        fields >> key >> value;
        if (key == "Name:") {
            isNamed = value == program;
        } else if (key == "State:") {
            isAlive = value != "Z" && value != "X";
        } else if (key == "NSpid:") {
            for (std::string inner; fields >> inner;) {
                ++namespaces;  // the id that it has in a namespace further in
            }
        }
    }
    return isNamed && isAlive && namespaces == 1;
}

std::vector<std::string> processesOf(const std::string& program) {
    std::vector<std::string> found;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/proc"), ::closedir);
    while (const dirent* const entry = folder ? ::readdir(folder.get()) : nullptr) {
        const auto status = isNumber(entry->d_name) ? readProcess(entry->d_name, "status") : std::nullopt;
        if (status && isRunning(*status, program)) {
            found.emplace_back(entry->d_name);
        }
    }
    return found;
}

bool isOutdated(const std::string& maps, const std::string& program) {
    const std::string gone = " (deleted)";
    std::istringstream lines(maps);
    for (std::string line; std::getline(lines, line);) {
        if (line.size() < gone.size() || line.compare(line.size() - gone.size(), gone.size(), gone) != 0) {
            continue;
        }
        const std::string name = line.substr(line.rfind('/') + 1);
        if (name == program + gone || name.find("libkxclient.so") == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace kx::ctl
