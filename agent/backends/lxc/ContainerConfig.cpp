#include "agent/backends/lxc/ContainerConfig.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <string_view>

namespace kx::agent::lxc {
namespace {

constexpr int kMaxDepth = 16;

constexpr std::string_view kBlanks = " \t\r";

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(kBlanks);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string_view withoutQuotes(std::string_view value) {
    const bool quoted =
        value.size() > 1 && (value.front() == '"' || value.front() == '\'') && value.back() == value.front();
    return quoted ? value.substr(1, value.size() - 2) : value;
}

/// Reads one configuration, file by file.
class Reader {
public:
    void readFileOrFolder(const std::string& path, const std::string& includer, int depth) {
        std::error_code error;
        if (std::filesystem::is_directory(path, error)) {
            readFolder(path, depth);
        } else {
            readOne(path, includer, depth);
        }
    }

    void readOne(const std::string& path, const std::string& includer, int depth) {
        const FileText file = readFile(AT_FDCWD, path.c_str(), Bounds::Host, kMaxConfigBytes);
        result_.parts.emplace_back(path, file.text ? file.stamp : stampAt(AT_FDCWD, path.c_str()));
        if (!file.text) {
            complain(fmt::format("{}: {}", path, file.problem), includer);
        } else if (depth > kMaxDepth || result_.text.size() + file.text->size() > kMaxConfigBytes) {
            complain(fmt::format("{}: included too deeply, or too much", path), includer);
        } else {
            takeLines(*file.text, path, depth);
        }
    }

    ConfigText take() { return std::move(result_); }

private:
    void readFolder(const std::string& path, int depth) {
        result_.parts.emplace_back(path, stampAt(AT_FDCWD, path.c_str()));
        std::set<std::string> files;
        std::error_code error;
        std::filesystem::directory_iterator entries(path, error);
        for (; !error && entries != std::filesystem::directory_iterator(); entries.increment(error)) {
            if (entries->path().extension() == ".conf") {
                files.insert(entries->path().string());
            }
        }
        for (const std::string& file : files) {
            readOne(file, path, depth);
        }
    }

    void takeLines(std::string_view text, const std::string& path, int depth) {
        while (!text.empty() && result_.problem.empty()) {
            const auto end = text.find('\n');
            takeLine(text.substr(0, end), path, depth);
            text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        }
    }

    void takeLine(std::string_view line, const std::string& path, int depth) {
        const auto equals = line.find('=');
        const std::string_view key = trimmed(line.substr(0, equals));
        const std::string_view value =
            equals == std::string_view::npos ? std::string_view() : withoutQuotes(trimmed(line.substr(equals + 1)));
        if (key == "lxc.include" && !value.empty()) {
            readFileOrFolder(std::string(value), path, depth + 1);
        } else if (key != "lxc.log.file" && key != "lxc.log.level" && key != "lxc.log.syslog") {
            result_.text.append(line).push_back('\n');
        }
    }

    void complain(std::string problem, const std::string& includer) {
        if (result_.problem.empty()) {
            result_.problem = std::move(problem);
            if (!includer.empty()) {
                result_.problem += fmt::format(" (included by {})", includer);
            }
        }
    }

    ConfigText result_;
};

}  // namespace

ConfigText readConfig(const std::string& file) {
    Reader reader;
    reader.readOne(file, {}, 0);
    return reader.take();
}

bool haveChanged(const ConfigParts& parts) {
    return std::any_of(parts.begin(), parts.end(),
                       [](const auto& part) { return stampAt(AT_FDCWD, part.first.c_str()) != part.second; });
}

}  // namespace kx::agent::lxc
