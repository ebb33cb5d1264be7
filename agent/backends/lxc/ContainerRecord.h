// What the backend's worker knows of one sub-folder of LXC's path, and how it is read from the disk.
// Belongs to the worker thread.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "agent/backends/lxc/CgroupTree.h"
#include "agent/backends/lxc/ContainerNotes.h"
#include "agent/backends/lxc/LogSink.h"
#include "agent/backends/lxc/LxcState.h"
#include "agent/backends/lxc/RecheckList.h"
#include "agent/backends/lxc/RootFile.h"
#include "agent/core/OwnedDescriptor.h"
#include "agent/inventory/Environment.h"

namespace kx::agent::lxc {

/// The running side of a container; empty while there is no init process.
struct ContainerLife {
    pid_t initPid = -1;
    OwnedDescriptor pidfd;  ///< becomes readable when init ends; none: init is gone already
    std::uint64_t id = 0;   ///< names the pidfd in the worker's poll set
    std::optional<CgroupTree::FreezerFiles> freezer;
    std::array<int, 2> freezerWatches{-1, -1};

    /// @return whether an init process is being watched that has not ended
    bool watched() const { return static_cast<bool>(pidfd); }
};

/// One sub-folder of LXC's path. It is a container when it is defined.
struct ContainerRecord {
    std::string name;
    int folderWatch = -1;
    bool defined = false;  ///< has a config, and its creation has finished

    FileStamp configStamp;  ///< of the config that was last opened
    bool malformed = false;
    std::string hostname;
    std::string rootfs;

    FileStamp notesStamp;
    std::string notesProblem;  ///< last complaint about kx.toml, to make it once a change
    ContainerNotes notes;      ///< the last good ones

    FileStamp osStamp;
    std::optional<Template> os;  ///< last known; stays when a root file system is out of reach while stopped

    Status status;
    ContainerLife life;
    pid_t endedPid = -1;      ///< init process that has ended, which LXC may still report for a moment
    unsigned settleStep = 0;  ///< how many rechecks have followed the last sign of a change
    bool settling = false;    ///< a sign of a change was seen, and no stable state since
    unsigned unansweredTries = 0;
    Clock::time_point lastLook;

    std::optional<std::int32_t> veid;
    Eid eid;
    Environment published;  ///< as last handed on
};

/// @brief Puts together what is published of a container.
/// A container whose config liblxc cannot read is published too, as far as it is known: it exists, and a row that
/// vanishes would look like a deleted container. Its state is unknown unless its init process is being watched.
Environment environmentOf(const ContainerRecord& record);

/// @brief Reads `kx.toml` again. A wrong one is complained about once a change, the last good one stays; a missing one
/// means that nothing is noted.
/// @param path LXC's path
void readNotes(ContainerRecord& record, const std::string& path, const LogSink& log);

/// @brief Reads the os-release again: in the root file system's folder; where that is none, inside the running
/// container.
void readOs(ContainerRecord& record);

/// @brief Whether readOs() would find another file than last time. Costs one or two lookups.
bool osChanged(const ContainerRecord& record);

}  // namespace kx::agent::lxc
