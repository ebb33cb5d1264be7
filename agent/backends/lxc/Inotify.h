// The kernel's notices of changes in folders and files (inotify(7)), with what each watch is for.
// One thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {

/// A set of watches, each with a tag of the user's.
class Inotify {
public:
    /// What a watch is for.
    enum class Kind {
        Path,        ///< LXC's path: containers come and go
        PathParent,  ///< the folder above it: LXC's path itself comes and goes
        Container,   ///< a container's folder
        Cgroup,      ///< a folder in which cgroups of containers appear
        Freezer,     ///< a file that tells of a container's freezer
    };

    /// One notice.
    struct Notice {
        Kind kind;
        std::string owner;   ///< the container's name, or the folder watched
        std::string name;    ///< name of the entry in the folder; empty for the watched thing itself
        std::uint32_t mask;  ///< IN_... bits
    };

    /// @throws std::runtime_error when the system has no inotify instance left
    Inotify();

    /// @return a descriptor that is readable when there are notices
    int descriptor() const { return file_.get(); }

    /// @brief Watches a folder or file.
    /// @param mask IN_... bits of events
    /// @return the watch, positive; -1 with errno set when it cannot be watched
    int add(Kind kind, const std::string& owner, const std::string& path, std::uint32_t mask);

    /// @brief Ends a watch; its outstanding notices are dropped. Does nothing for -1 or a watch that has ended.
    void remove(int watch);

    /// @return whether the watch still exists; the kernel ends one when the thing watched is deleted
    bool has(int watch) const { return tags_.count(watch) != 0; }

    /// @brief Takes all waiting notices.
    /// @return false when the kernel dropped some, so that everything must be looked at again
    bool take(const std::function<void(const Notice&)>& handle);

private:
    struct Tag {
        Kind kind;
        std::string owner;
    };

    OwnedDescriptor file_;
    std::map<int, Tag> tags_;
};

}  // namespace kx::agent::lxc
