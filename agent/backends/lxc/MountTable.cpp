#include "agent/backends/lxc/MountTable.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <utility>

#include "agent/backends/lxc/RootFile.h"

namespace kx::agent::lxc {
namespace {

constexpr std::size_t kMaxMountInfoBytes = std::size_t{16} * 1024 * 1024;

/// These have no device of a disk, and are file systems by themselves all the same.
constexpr std::array<std::string_view, 3> kWithoutDevice{"btrfs", "zfs", "tmpfs"};

bool isFuse(std::string_view type) {
    return type.substr(0, 4) == "fuse";
}

}  // namespace

bool Mount::isWholeFileSystem(dev_t device) const {
    const bool isItself =
        major(device) != 0 || std::find(kWithoutDevice.begin(), kWithoutDevice.end(), type) != kWithoutDevice.end();
    return root == "/" && isItself && !isFuse(type);
}

MountTable::MountTable(std::string_view text) {
    while (!text.empty()) {
        std::istringstream line{std::string(text.substr(0, text.find('\n')))};
        text.remove_prefix(std::min(line.view().size() + 1, text.size()));
        Mount mount;
        std::string parent, device, place, word;
        line >> mount.id >> parent >> device >> mount.root >> place;
        while (line >> word && word != "-") {
        }
        if (!(line >> mount.type)) {
            continue;
        }
        if (place == "/") {
            root_ = mount.id;  // of several mounted there the last one is seen
        }
        mounts_.insert_or_assign(mount.id, std::move(mount));
    }
}

MountTable MountTable::of(const std::string& process) {
    const FileText file =
        readFile(AT_FDCWD, fmt::format("/proc/{}/mountinfo", process).c_str(), Bounds::Host, kMaxMountInfoBytes);
    return MountTable(file.text.value_or(std::string()));
}

const Mount* MountTable::find(std::uint64_t id) const {
    const auto found = mounts_.find(id);
    return found == mounts_.end() ? nullptr : &found->second;
}

}  // namespace kx::agent::lxc
