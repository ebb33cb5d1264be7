#include "agent/backends/lxc/ResourceWatchFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <memory>
#include <utility>

#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {
namespace {

/// More than memory.stat and /proc/vmstat have, whose lines grow by a few with every kernel.
constexpr std::size_t kMaxBytes = std::size_t{32} * 1024;

/// "No limit" of v1 is the largest number of whole pages; nobody has so much memory.
constexpr std::uint64_t kNoLimitFrom = std::uint64_t{1} << 60U;

/// Reads a file. No O_PATH, no second look at what it is: some of these are read for each container every second, and
/// they belong to the kernel.
/// @param atOnce it is one line, which the first read gets whole
/// @return the part of the buffer that has its text; nothing when there is no such file, or its cgroup has gone
std::optional<std::string_view> readText(const std::string& folder, const char* name,
                                         std::array<char, kMaxBytes>& buffer, bool atOnce = false) {
    if (folder.empty()) {
        return std::nullopt;
    }
    const OwnedDescriptor file(
        ::open((folder + "/" + name).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW));
    std::size_t length = 0;
    while (file && length < buffer.size()) {
        const ssize_t count = ::read(file.get(), buffer.data() + length, buffer.size() - length);
        if (count < 0 && errno != EINTR) {
            break;
        }
        length += count > 0 ? static_cast<std::size_t>(count) : 0;
        if (count == 0 || (count > 0 && atOnce)) {
            return std::string_view(buffer.data(), length);
        }
    }
    return std::nullopt;
}

std::optional<std::uint64_t> numberAt(std::string_view text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() ? std::optional(number) : std::nullopt;
}

/// @return the number behind a key that begins a line
std::optional<std::uint64_t> numberOf(std::string_view text, std::string_view key) {
    for (std::size_t at = text.find(key); at != std::string_view::npos; at = text.find(key, at + 1)) {
        const std::size_t behind = at + key.size();
        if ((at == 0 || text[at - 1] == '\n') && behind < text.size() && text[behind] == ' ') {
            return numberAt(text.substr(behind + 1));
        }
    }
    return std::nullopt;
}

std::optional<std::uint64_t> readNumber(const std::string& folder, const char* name) {
    std::array<char, kMaxBytes> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): written before it is read
    const auto text = readText(folder, name, buffer, true);
    return text ? numberAt(*text) : std::nullopt;
}

std::optional<std::uint64_t> readNumberOf(const std::string& folder, const char* name, std::string_view key) {
    std::array<char, kMaxBytes> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): written before it is read
    const auto text = readText(folder, name, buffer);
    return text ? numberOf(*text, key) : std::nullopt;
}

/// @return nothing for "max", for v1's number that means the same, and when there is no such file
std::optional<std::uint64_t> readLimit(const std::string& folder, const char* name) {
    const auto limit = readNumber(folder, name);
    return limit && *limit < kNoLimitFrom ? limit : std::nullopt;
}

bool exists(const std::string& path) {
    struct stat ignored {};
    return ::stat(path.c_str(), &ignored) == 0;
}

bool has(const CgroupMount& mount, std::string_view controller) {
    return std::find(mount.controllers.begin(), mount.controllers.end(), controller) != mount.controllers.end();
}

/// @param sign a file that a v2 cgroup has only where the controller is enabled
ResourceFolder folderOf(const std::vector<CgroupMount>& mounts, std::string_view processCgroups,
                        const std::string& configured, std::string_view controller, const char* sign) {
    ResourceFolder byV2;
    for (const CgroupMount& mount : mounts) {
        const auto path = cgroupPathIn(processCgroups, mount);
        const auto folder = path ? cgroupFolder(mount, payloadPath(*path, configured)) : std::nullopt;
        if (!folder || *folder == mount.mountPoint) {
            continue;
        }
        if (has(mount, controller)) {
            return {*folder, false};
        }
        if (mount.v2 && exists(*folder + sign)) {
            byV2 = {*folder, true};
        }
    }
    return byV2;
}

/// Memory of the cgroup and those below it that the kernel takes back before it kills anybody. File cache counts
/// whole, for what is used of it is read again; it does not hold tmpfs and shared memory, which cannot be dropped.
std::uint64_t reclaimableIn(std::string_view stat, bool v2) {
    constexpr std::array<std::string_view, 2> keysV1{"total_inactive_file", "total_active_file"};
    constexpr std::array<std::string_view, 3> keysV2{"inactive_file", "active_file", "slab_reclaimable"};
    std::uint64_t bytes = 0;
    const auto add = [&](std::string_view key) { bytes += numberOf(stat, key).value_or(0); };
    if (v2) {
        std::for_each(keysV2.begin(), keysV2.end(), add);
    } else {
        std::for_each(keysV1.begin(), keysV1.end(), add);
    }
    return bytes;
}

/// Lists a folder and all below it, at most so many.
std::vector<std::string> treeOf(const std::string& top, std::size_t most) {
    std::vector<std::string> folders{top};
    for (std::size_t next = 0; next < folders.size() && folders.size() < most; ++next) {
        for (std::string& inner : innerCgroups(folders[next])) {
            if (folders.size() < most) {
                folders.push_back(std::move(inner));
            }
        }
    }
    return folders;
}

}  // namespace

ResourceFolders resourceFoldersOf(const std::vector<CgroupMount>& mounts, std::string_view processCgroups,
                                  const std::string& configured) {
    return {folderOf(mounts, processCgroups, configured, "memory", "/memory.events"),
            folderOf(mounts, processCgroups, configured, "pids", "/pids.events")};
}

ResourceFolder memoryRootOf(const std::vector<CgroupMount>& mounts) {
    ResourceFolder root;
    for (const CgroupMount& mount : mounts) {
        if (has(mount, "memory")) {
            return {mount.mountPoint, false};
        }
        if (mount.v2) {
            root = {mount.mountPoint, true};
        }
    }
    return root;
}

ResourceFolders resourceFoldersOf(const std::vector<CgroupMount>& mounts, pid_t initPid,
                                  const std::string& configured) {
    std::array<char, kMaxBytes> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): written before it is read
    const auto text = readText("/proc/" + std::to_string(initPid), "cgroup", buffer);
    return text ? resourceFoldersOf(mounts, *text, configured) : ResourceFolders();
}

std::optional<ResourceUse> readWorkingSet(const ResourceFolder& memory) {
    const auto limit = readMemoryLimit(memory);
    const auto usage = readMemoryUsage(memory);
    if (!limit || !usage) {
        return std::nullopt;
    }
    std::array<char, kMaxBytes> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): written before it is read
    const auto stat = readText(memory.path, "memory.stat", buffer);
    const std::uint64_t reclaimable = stat ? reclaimableIn(*stat, memory.v2) : 0;
    // The two were not read at the same moment.
    return ResourceUse{*limit, *usage - std::min(*usage, reclaimable)};
}

std::optional<std::uint64_t> readMemoryUsage(const ResourceFolder& memory) {
    return readNumber(memory.path, memory.v2 ? "memory.current" : "memory.usage_in_bytes");
}

std::optional<std::uint64_t> readMemoryHits(const ResourceFolder& memory) {
    return memory.v2 ? readNumberOf(memory.path, "memory.events", "max") : readNumber(memory.path, "memory.failcnt");
}

std::optional<std::uint64_t> readKills(const ResourceFolder& memory) {
    return readNumberOf(memory.path, memory.v2 ? "memory.events" : "memory.oom_control", "oom_kill");
}

std::optional<std::uint64_t> readLimitOoms(const ResourceFolder& memory) {
    return readNumberOf(memory.path, "memory.events", "oom");
}

std::optional<std::uint64_t> readGroupKills(const ResourceFolder& memory) {
    return readNumberOf(memory.path, "memory.events", "oom_group_kill");
}

std::optional<std::uint64_t> readMemoryLimit(const ResourceFolder& memory) {
    return readLimit(memory.path, memory.v2 ? "memory.max" : "memory.limit_in_bytes");
}

std::optional<std::uint64_t> readPidsLimit(const std::string& pidsFolder) {
    return readLimit(pidsFolder, "pids.max");
}

std::optional<std::uint64_t> readPids(const std::string& pidsFolder) {
    return readNumber(pidsFolder, "pids.current");
}

std::optional<std::uint64_t> readPidsHits(const std::string& pidsFolder) {
    return readNumberOf(pidsFolder, "pids.events", "max");
}

bool hasInnerCgroups(const std::string& folder) {
    constexpr nlink_t linksOfEmpty = 2;  // its name and its "."; each folder in it adds its ".."
    struct stat status {};
    return ::stat(folder.c_str(), &status) == 0 && status.st_nlink != linksOfEmpty;
}

std::vector<std::string> innerCgroups(const std::string& folder) {
    std::vector<std::string> inner;
    const std::unique_ptr<DIR, int (*)(DIR*)> list(::opendir(folder.c_str()), ::closedir);
    while (const dirent* entry = list ? ::readdir(list.get()) : nullptr) {
        const std::string_view name = entry->d_name;
        if (entry->d_type == DT_DIR && name != "." && name != "..") {
            inner.push_back(folder + "/" + entry->d_name);
        }
    }
    return inner;
}

std::optional<HostMemory> readHostMemory(const std::string& vmstat) {
    std::array<char, kMaxBytes> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init): written before it is read
    const auto slash = vmstat.rfind('/');
    const auto text = readText(vmstat.substr(0, slash), vmstat.c_str() + slash + 1, buffer);
    const auto kills = text ? numberOf(*text, "oom_kill") : std::nullopt;
    if (!kills) {
        return std::nullopt;
    }
    HostMemory memory{*kills, std::nullopt};
    // One for each zone of memory that the kernel may have.
    for (const std::string_view key :
         {"allocstall_dma", "allocstall_dma32", "allocstall_normal", "allocstall_high", "allocstall_movable"}) {
        if (const auto count = numberOf(*text, key)) {
            memory.reclaims = memory.reclaims.value_or(0) + *count;
        }
    }
    return memory;
}

std::uint64_t TreeCount::lookAtTop(const std::string& top, const Read& read) {
    const auto count = read(top);
    if (!count) {
        return 0;
    }
    return take(top, *count, !std::exchange(begun_, true));
}

std::uint64_t TreeCount::lookAtTree(const std::string& top, const Read& read) {
    const bool firstLook = !begun_;
    std::uint64_t growth = 0;
    std::map<std::string, std::uint64_t> present;
    for (const std::string& folder : treeOf(top, kMaxFolders)) {
        if (const auto count = read(folder)) {
            growth += take(folder, *count, firstLook);
            present[folder] = *count;
            begun_ = true;
        }
    }
    // One that has gone may come again under the same name, and counts from 0 then.
    counts_ = std::move(present);
    return growth;
}

/// @return by how much the count of one cgroup has grown
std::uint64_t TreeCount::take(const std::string& folder, std::uint64_t count, bool firstLook) {
    const auto [known, fresh] = counts_.try_emplace(folder, 0);
    const std::uint64_t before = std::exchange(known->second, count);
    // A count that has become smaller is that of a new cgroup under an old name.
    const std::uint64_t growth = count >= before ? count - before : count;
    const bool isKnown = firstLook || (fresh && firstSeen_ == FirstSeen::IsKnown);
    total_ += firstLook || !isKnown ? growth : 0;
    return isKnown ? 0 : growth;
}

}  // namespace kx::agent::lxc
