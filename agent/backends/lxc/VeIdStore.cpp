#include "agent/backends/lxc/VeIdStore.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <stdio.h>
#include <sys/stat.h>

#include <toml++/toml.h>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <limits>

#include "agent/backends/lxc/RootFile.h"
#include "agent/base/File.h"
#include "agent/base/TomlGuard.h"
#include "wire/Protocol.h"

namespace kx::agent::lxc {
namespace {

constexpr std::size_t kMaxFileBytes = std::size_t{64} * 1024 * 1024;  ///< about a million containers with long names
constexpr std::int64_t kFormat = 1;
constexpr int kSetAsideTries = 1000;

bool isPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '_' ||
           c == '-';
}

/// A name is any bytes, a TOML key is not: what is not plain becomes %XX.
std::string escaped(const std::string& name) {
    std::string result;
    for (const char c : name) {
        result += isPlain(c) ? std::string(1, c) : fmt::format("%{:02X}", static_cast<unsigned char>(c));
    }
    return result;
}

/// @return nothing when escaped() cannot have made the text
std::optional<std::string> unescaped(std::string_view text) {
    std::string name;
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned byte = 0;
        if (text[i] == '%') {
            const auto* digits = text.data() + i + 1;
            if (i + 2 >= text.size() || std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2) {
                return std::nullopt;
            }
            i += 2;
            name += static_cast<char>(byte);
        } else {
            name += text[i];
        }
    }
    return escaped(name) == text && !name.empty() ? std::optional(name) : std::nullopt;
}

/// Reads the table of ids. @return what is wrong with it, empty when nothing is
std::string readIds(const toml::table& file, std::map<std::string, std::int32_t>& idOfName,
                    std::map<std::int32_t, std::string>& nameOfId) {
    if (file["format"].value<std::int64_t>() != kFormat) {
        return fmt::format("format {} expected", kFormat);
    }
    const auto* ids = file["ids"].as_table();
    if (ids == nullptr) {
        return "table ids missing";
    }
    for (const auto& [key, value] : *ids) {
        const auto where = key.source().begin;
        const auto name = unescaped(key.str());
        const auto* integer = value.as_integer();
        const std::int64_t number = integer != nullptr ? integer->get() : 0;
        if (!name || number < kFirstGivenVeId || number > std::numeric_limits<std::int32_t>::max()) {
            return fmt::format("line {}, column {}: not a name with an id", where.line, where.column);
        }
        const auto id = static_cast<std::int32_t>(number);
        if (!nameOfId.emplace(id, *name).second) {
            return fmt::format("line {}, column {}: id {} is given twice", where.line, where.column, id);
        }
        idOfName.emplace(*name, id);
    }
    return {};
}

/// @return what is wrong with the text, empty when nothing is
std::string parseIds(const std::string& text, std::map<std::string, std::int32_t>& idOfName,
                     std::map<std::int32_t, std::string>& nameOfId) {
    if (const auto fault = findUnparsable(text)) {
        return fmt::format("line {}, column {}: {}", fault->line, fault->column, fault->message);
    }
    try {
        return readIds(toml::parse(text), idOfName, nameOfId);
    } catch (const toml::parse_error& error) {
        const auto where = error.source().begin;
        return fmt::format("line {}, column {}: {}", where.line, where.column, error.description());
    }
}

}  // namespace

std::optional<std::int32_t> veIdInName(std::string_view name) {
    std::int32_t number = 0;
    if (name.empty() || name.front() < '1' || name.front() > '9') {
        return std::nullopt;
    }
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (error != std::errc{} || end != name.data() + name.size()) {
        return std::nullopt;
    }
    return number;
}

VeIdStore::VeIdStore(std::string folder, LogSink log)
    : folder_(std::move(folder)), file_(folder_ + "/veids.toml"), log_(std::move(log)) {
    load();
}

void VeIdStore::load() {
    const FileText file = readFile(AT_FDCWD, file_.c_str(), Bounds::Host, kMaxFileBytes);
    if (file.missing) {
        return;
    }
    if (!file.text) {
        mayWrite_ = false;
        log_(Severity::Error, fmt::format("{}: {}; the ids of containers are not remembered", file_, file.problem));
        return;
    }
    const std::string damage = parseIds(*file.text, idOfName_, nameOfId_);
    if (damage.empty()) {
        return;
    }
    // Half of the ids would be worse than none: the other half would be given anew, to the wrong containers.
    idOfName_.clear();
    nameOfId_.clear();
    setAside(damage);
}

void VeIdStore::setAside(const std::string& reason) {
    for (int number = 0; number < kSetAsideTries; ++number) {
        const std::string aside = number == 0 ? file_ + ".damaged" : fmt::format("{}.damaged.{}", file_, number);
        if (::renameat2(AT_FDCWD, file_.c_str(), AT_FDCWD, aside.c_str(), RENAME_NOREPLACE) == 0) {
            log_(Severity::Error,
                 fmt::format("{}: {}; set aside as {}, containers without a number for a name get new ids", file_,
                             reason, aside));
            return;
        }
        if (errno != EEXIST) {
            break;
        }
    }
    mayWrite_ = false;
    log_(Severity::Error, fmt::format("{}: {}; it cannot be set aside ({}), the ids of containers are not remembered",
                                      file_, reason, std::strerror(errno)));
}

std::map<std::string, std::int32_t> VeIdStore::assign(const std::vector<std::string>& names) {
    std::map<std::int32_t, std::string> claimed;
    for (const std::string& name : names) {
        if (const auto id = veIdInName(name)) {
            claimed.emplace(*id, name);
        }
    }
    yieldClaimed(claimed);
    std::map<std::string, std::int32_t> result;
    for (const auto& [id, name] : claimed) {
        result.emplace(name, id);
    }
    for (const std::string& name : names) {
        if (result.count(name) != 0) {
            continue;
        }
        if (const auto id = give(name, claimed)) {
            result.emplace(name, *id);
        }
    }
    if (unsaved_) {
        save();
    }
    return result;
}

/// Takes the claimed ids from the names they had been given to, and gives those new ones: at once, even to a
/// container that does not exist now, so that the warning comes once and not again when it returns.
void VeIdStore::yieldClaimed(const std::map<std::int32_t, std::string>& claimed) {
    for (const auto& [id, owner] : claimed) {
        const auto given = nameOfId_.find(id);
        if (given == nameOfId_.end()) {
            continue;
        }
        const std::string name = given->second;
        idOfName_.erase(name);
        nameOfId_.erase(given);
        const auto other = give(name, claimed);
        log_(Severity::Warning, fmt::format("id {} had been given to container {} and is claimed by the container of "
                                            "that name; {} has id {} from now on",
                                            id, wire::printable(name), wire::printable(name), other.value_or(0)));
    }
}

std::optional<std::int32_t> VeIdStore::nextFree(const std::map<std::int32_t, std::string>& claimed) const {
    std::int64_t id = kFirstGivenVeId;
    if (!nameOfId_.empty()) {
        id = std::int64_t{nameOfId_.rbegin()->first} + 1;
    }
    // Past the highest one given: an id that was taken from somebody is not given to a third.
    while (id <= std::numeric_limits<std::int32_t>::max() && claimed.count(static_cast<std::int32_t>(id)) != 0) {
        ++id;
    }
    if (id <= std::numeric_limits<std::int32_t>::max()) {
        return static_cast<std::int32_t>(id);
    }
    for (std::int32_t low = kFirstGivenVeId; low < std::numeric_limits<std::int32_t>::max(); ++low) {
        if (nameOfId_.count(low) == 0 && claimed.count(low) == 0) {
            return low;
        }
    }
    return std::nullopt;
}

std::optional<std::int32_t> VeIdStore::give(const std::string& name,
                                            const std::map<std::int32_t, std::string>& claimed) {
    const auto known = idOfName_.find(name);
    if (known != idOfName_.end()) {
        return known->second;
    }
    const auto id = nextFree(claimed);
    if (!id) {
        log_(Severity::Error, fmt::format("no id is left for container {}", wire::printable(name)));
        return std::nullopt;
    }
    idOfName_.emplace(name, *id);
    nameOfId_.emplace(*id, name);
    unsaved_ = true;
    return id;
}

std::string VeIdStore::fileText() const {
    std::string text = "# Ids of the containers whose names are not numbers. Written by the management agent.\n";
    text += fmt::format("format = {}\n\n[ids]\n", kFormat);
    for (const auto& [id, name] : nameOfId_) {
        text += fmt::format("\"{}\" = {}\n", escaped(name), id);
    }
    return text;
}

void VeIdStore::save() {
    if (!mayWrite_) {
        return;
    }
    const std::string problem = write(fileText());
    unsaved_ = !problem.empty();
    if (unsaved_ && problem != lastProblem_) {
        log_(Severity::Error, fmt::format("new ids of containers are not remembered: {}", problem));
    }
    lastProblem_ = problem;
}

std::string VeIdStore::write(const std::string& text) {
    const std::string problem = makeFolders(folder_);
    return problem.empty() ? replaceFile(file_, text) : problem;
}

}  // namespace kx::agent::lxc
