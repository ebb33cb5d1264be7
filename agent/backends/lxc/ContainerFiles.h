// Reads a container's files: its folder's, and those below its root.
//
// Each may lie on a file system that does not answer, so both functions are made for DetachedCalls: they own what they
// use and touch nothing else. Any thread; they wait for the disk, perhaps for ever.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "agent/backends/lxc/ContainerConfig.h"
#include "agent/backends/lxc/OsRelease.h"
#include "agent/backends/lxc/RootFile.h"
#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {

/// What to read of a container's folder, and what is known of it.
struct FolderQuery {
    std::string path;                           ///< LXC's path
    std::string name;                           ///< the container's
    bool configAnyway = false;                  ///< read its config even if it looks unchanged
    bool notesAnyway = false;                   ///< likewise its kx.toml
    std::shared_ptr<const ConfigParts> config;  ///< that was read; null: none
    FileStamp notes;                            ///< that was read
};

/// What a container's folder has. What has not been asked for and looks unchanged is absent.
struct FolderFiles {
    bool isFolder = false;   ///< there is a folder of that name
    bool hasConfig = false;  ///< it has a config
    bool isBusy = false;     ///< another program holds LXC's lock on it or is creating it: nothing was read
    uid_t owner = 0;         ///< of the folder
    std::optional<ConfigText> config;
    std::optional<FileText> notes;  ///< kx.toml
};

/// @brief Reads a container's folder.
/// A lock held by another program is not waited for: deleting a container holds it until the last file is gone.
FolderFiles readContainerFolder(const FolderQuery& query);

/// Where a container's root is.
struct RootQuery {
    std::string rootfs;                            ///< lxc.rootfs.path
    pid_t initPid = -1;                            ///< whose root it is where rootfs is no folder; -1: it does not run
    std::shared_ptr<const OwnedDescriptor> pidfd;  ///< of that process
    std::optional<FileStamp> known;                ///< of the os-release that was read; absent: read it anyway
};

/// @brief Reads the os-release: in the root file system's folder; where that is none, inside the running container.
/// @return nothing when it is the known one, or the root is out of reach
std::optional<OsReleaseFile> readContainerOs(const RootQuery& query);

}  // namespace kx::agent::lxc
