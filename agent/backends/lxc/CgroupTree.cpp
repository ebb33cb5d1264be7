#include "agent/backends/lxc/CgroupTree.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "agent/backends/lxc/RootFile.h"

namespace kx::agent::lxc {
namespace {

constexpr std::string_view kPayload = "lxc.payload.";
constexpr std::string_view kMonitor = "lxc.monitor.";
constexpr std::size_t kMaxFreezerBytes = 4096;

std::string contentOf(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> parts;
    while (true) {
        const auto end = text.find(separator);
        parts.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(end + 1);
    }
}

/// The kernel writes blanks and backslashes of a path as \ooo.
std::string unescaped(const std::string& text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            result += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
            i += 3;
        } else {
            result += text[i];
        }
    }
    return result;
}

std::optional<CgroupMount> cgroupMountOf(const std::string& line) {
    const std::vector<std::string> fields = split(line, ' ');
    const auto dash = std::find(fields.begin(), fields.end(), "-");
    if (fields.size() < 6 || fields.end() - dash < 4 || (dash[1] != "cgroup" && dash[1] != "cgroup2")) {
        return std::nullopt;
    }
    CgroupMount mount;
    mount.root = unescaped(fields[3]);
    mount.mountPoint = unescaped(fields[4]);
    mount.v2 = dash[1] == "cgroup2";
    if (!mount.v2) {
        mount.controllers = split(dash[3], ',');
    }
    return mount;
}

bool has(const std::vector<std::string>& list, const std::string& element) {
    return std::find(list.begin(), list.end(), element) != list.end();
}

std::string parentOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

/// LXC leaves systemd's own cgroup of the first process to systemd.
std::string withoutInitScope(const std::string& path) {
    constexpr std::string_view scope = "/init.scope";
    if (path.size() < scope.size() || path.substr(path.size() - scope.size()) != scope) {
        return path;
    }
    const std::string rest = path.substr(0, path.size() - scope.size());
    return rest.empty() ? "/" : rest;
}

/// @return where in a path some folders end, which may have a suffix that LXC adds to a name in use: "-1"; nothing when
/// they are not in it
std::optional<std::size_t> endOfFolder(const std::string& path, const std::string& folders) {
    const auto start = folders.empty() ? std::string::npos : path.find("/" + folders);
    if (start == std::string::npos) {
        return std::nullopt;
    }
    const auto behind = start + 1 + folders.size();
    const auto end = std::min(path.find('/', behind), path.size());
    const std::string suffix = path.substr(behind, end - behind);
    const bool isWhole = suffix.empty() || (suffix.size() > 1 && suffix.front() == '-' &&
                                            suffix.find_first_not_of("0123456789", 1) == std::string::npos);
    return isWhole ? std::optional(end) : std::nullopt;
}

}  // namespace

std::vector<CgroupMount> cgroupMountsIn(std::string_view mountInfo) {
    std::vector<CgroupMount> mounts;
    for (const std::string& line : split(mountInfo, '\n')) {
        if (auto mount = cgroupMountOf(line)) {
            mounts.push_back(std::move(*mount));
        }
    }
    return mounts;
}

std::optional<std::string> cgroupPathIn(std::string_view processCgroups, const CgroupMount& mount) {
    for (const std::string& line : split(processCgroups, '\n')) {
        const auto first = line.find(':');
        const auto second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos) {
            continue;
        }
        const std::string controllers = line.substr(first + 1, second - first - 1);
        const std::vector<std::string> list = split(controllers, ',');
        const bool same =
            mount.v2 ? controllers.empty() : std::any_of(list.begin(), list.end(), [&](const std::string& controller) {
                return !controller.empty() && has(mount.controllers, controller);
            });
        if (same) {
            return line.substr(second + 1);
        }
    }
    return std::nullopt;
}

std::optional<std::string> cgroupFolder(const CgroupMount& mount, const std::string& cgroupPath) {
    std::string_view below = cgroupPath;
    if (mount.root != "/") {
        const bool inside = below.substr(0, mount.root.size()) == mount.root &&
                            (below.size() == mount.root.size() || below[mount.root.size()] == '/');
        if (!inside) {
            return std::nullopt;
        }
        below.remove_prefix(mount.root.size());
    }
    if (below == "/") {
        below = {};
    }
    // "/.." leads out of the cgroup namespace: not shown by any mount in it.
    if (below.substr(0, 3) == "/..") {
        return std::nullopt;
    }
    return fmt::format("{}{}", mount.mountPoint, below);
}

std::string payloadPath(const std::string& cgroupPath, const std::string& configured) {
    if (const auto end = endOfFolder(cgroupPath, configured)) {
        return cgroupPath.substr(0, *end);
    }
    const auto start = cgroupPath.find(fmt::format("/{}", kPayload));
    if (start == std::string::npos) {
        return withoutInitScope(cgroupPath);
    }
    return cgroupPath.substr(0, cgroupPath.find('/', start + 1));
}

std::vector<std::string> containersOfCgroup(std::string_view folderName) {
    std::vector<std::string> names;
    if (folderName.substr(0, kPayload.size()) != kPayload && folderName.substr(0, kMonitor.size()) != kMonitor) {
        return names;
    }
    const std::string_view name = folderName.substr(kPayload.size());
    names.emplace_back(name);
    const auto dash = name.rfind('-');
    const bool suffixed = dash != std::string_view::npos && dash + 1 < name.size() &&
                          name.find_first_not_of("0123456789", dash + 1) == std::string_view::npos;
    if (suffixed) {
        names.emplace_back(name.substr(0, dash));
    }
    return names;
}

CgroupTree CgroupTree::read() {
    CgroupTree tree;
    tree.mounts_ = cgroupMountsIn(contentOf("/proc/self/mountinfo"));
    const std::string ofFirstProcess = contentOf("/proc/1/cgroup");
    for (const CgroupMount& mount : tree.mounts_) {
        const auto path = cgroupPathIn(ofFirstProcess, mount);
        // Inside a cgroup namespace the first process may be out of sight; LXC then works at the mount point.
        const auto folder = path ? cgroupFolder(mount, withoutInitScope(*path)) : std::nullopt;
        const std::string parent = folder && openFolder(*folder) ? *folder : mount.mountPoint;
        if (!has(tree.parents_, parent)) {
            tree.parents_.push_back(parent);
        }
    }
    return tree;
}

std::optional<CgroupTree::FreezerFiles> CgroupTree::freezerOf(pid_t initPid, const std::string& configured) const {
    const std::string cgroups = contentOf(fmt::format("/proc/{}/cgroup", initPid));
    std::optional<FreezerFiles> byV2;
    for (const CgroupMount& mount : mounts_) {
        const auto path = cgroupPathIn(cgroups, mount);
        const auto folder = path ? cgroupFolder(mount, payloadPath(*path, configured)) : std::nullopt;
        if (!folder || *folder == mount.mountPoint) {
            continue;
        }
        if (has(mount.controllers, "freezer")) {
            return FreezerFiles{*folder + "/freezer.state", "", "", parentOf(*folder)};
        }
        if (mount.v2 && stampAt(AT_FDCWD, (*folder + "/cgroup.freeze").c_str()).size >= 0) {
            byV2 = FreezerFiles{"", *folder + "/cgroup.events", *folder + "/cgroup.freeze", parentOf(*folder)};
        }
    }
    return byV2;
}

Freezer readFreezer(const CgroupTree::FreezerFiles& files) {
    const auto read = [](const std::string& path) {
        return readFile(AT_FDCWD, path.c_str(), Bounds::Host, kMaxFreezerBytes).text.value_or(std::string());
    };
    if (!files.state.empty()) {
        return freezerOfV1(read(files.state));
    }
    return freezerOfV2(read(files.events), read(files.freeze));
}

}  // namespace kx::agent::lxc
