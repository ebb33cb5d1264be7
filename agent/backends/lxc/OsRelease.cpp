#include "agent/backends/lxc/OsRelease.h"

#include <algorithm>
#include <string>

namespace kx::agent::lxc {
namespace {

constexpr const char* kPaths[] = {"etc/os-release", "usr/lib/os-release"};

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

/// Undoes the quoting of a value. A backslash keeps the next character outside single quotes, as in a shell.
std::string unquoted(std::string_view value) {
    const char quote = !value.empty() && (value.front() == '"' || value.front() == '\'') ? value.front() : '\0';
    if (quote != '\0') {
        value.remove_prefix(1);
    }
    std::string result;
    for (std::size_t i = 0; i < value.size(); ++i) {
        if (quote != '\0' && value[i] == quote) {
            break;
        }
        if (value[i] == '\\' && quote != '\'' && i + 1 < value.size()) {
            ++i;
        }
        result += value[i];
    }
    // It is cut between characters.
    std::size_t end = std::min(result.size(), kMaxOsValueBytes);
    while (end < result.size() && end > 0 && (static_cast<unsigned char>(result[end]) & 0xc0U) == 0x80U) {
        --end;
    }
    result.resize(end);
    return result;
}

}  // namespace

std::optional<Template> parseOsRelease(std::string_view text) {
    Template os;
    while (!text.empty()) {
        const auto end = text.find('\n');
        const std::string_view line = trimmed(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        const auto equals = line.find('=');
        if (line.empty() || line.front() == '#' || equals == std::string_view::npos) {
            continue;
        }
        const std::string_view key = line.substr(0, equals);
        if (key == "ID") {
            os.name = unquoted(line.substr(equals + 1));
        }
        if (key == "VERSION_ID") {
            os.version = unquoted(line.substr(equals + 1));
        }
    }
    if (os.name.empty()) {
        return std::nullopt;
    }
    return os;
}

OsReleaseFile readOsRelease(int root, Bounds bounds) {
    OsReleaseFile result;
    for (const char* path : kPaths) {
        const FileText file = readFile(root, path, bounds, kMaxOsReleaseBytes);
        if (file.missing) {
            continue;
        }
        result.stamp = file.text ? file.stamp : stampWithin(root, path, bounds);
        if (file.text) {
            result.os = parseOsRelease(*file.text);
        }
        break;
    }
    return result;
}

FileStamp osReleaseStamp(int root, Bounds bounds) {
    for (const char* path : kPaths) {
        const FileStamp stamp = stampWithin(root, path, bounds);
        if (stamp.size >= 0) {
            return stamp;
        }
    }
    return {};
}

}  // namespace kx::agent::lxc
