#include "agent/backends/lxc/RootfsPath.h"

namespace kx::agent::lxc {

std::optional<std::string> rootfsFolder(std::string_view value) {
    for (const std::string_view kind : {"dir:", "btrfs:"}) {
        if (value.substr(0, kind.size()) == kind) {
            value.remove_prefix(kind.size());
            break;
        }
    }
    // Whatever other kind there is, its name stands in front of the first slash.
    if (value.empty() || value.front() != '/') {
        return std::nullopt;
    }
    return std::string(value);
}

}  // namespace kx::agent::lxc
