// What the backend's worker knows of one sub-folder of LXC's path, and how it is read from the disk.
// Belongs to the worker thread.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/backends/lxc/CgroupTree.h"
#include "agent/backends/lxc/ContainerNotes.h"
#include "agent/backends/lxc/LogSink.h"
#include "agent/backends/lxc/LxcState.h"
#include "agent/backends/lxc/RecheckList.h"
#include "agent/backends/lxc/RootFile.h"
#include "agent/base/OwnedDescriptor.h"
#include "agent/inventory/Environment.h"

namespace kx::agent::lxc {

/// The running side of a container; empty while there is no init process.
struct ContainerLife {
    pid_t initPid = -1;
    std::shared_ptr<const OwnedDescriptor> pidfd;  ///< readable when init ends; null: init is gone already
    std::uint64_t id = 0;                          ///< names the pidfd in the worker's poll set, and the addresses
    std::optional<CgroupTree::FreezerFiles> freezer;
    std::array<int, 2> freezerWatches{-1, -1};
    std::optional<std::vector<Address>> addresses;  ///< the kernel's; absent: not read yet, or they cannot be
    bool lacksDescriptors = false;                  ///< they cannot be read because the agent has too many files open
    bool cutIsLogged = false;                       ///< that it has more addresses than are published
    Clock::time_point heldUntil;  ///< nothing new is published of the container before, for they may yet be read

    /// @return whether an init process is being watched that has not ended
    bool watched() const { return pidfd != nullptr; }
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
    std::optional<std::vector<Address>> configured;  ///< addresses that the config gives it; absent: never read
    std::string configProblem;                       ///< last complaint about the config, to make it once a change
    std::string addressProblem;                      ///< last complaint about the kernel's addresses, likewise

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
    std::optional<Environment> published;  ///< as last handed on; absent: nothing is known yet
};

/// @brief Puts together what is published of a container.
/// A container whose config liblxc cannot read is published too, as far as it is known: it exists, and a row that
/// vanishes would look like a deleted container. Its state is unknown unless its init process is being watched.
/// Addresses are the kernel's while they are known, else the configured ones; with a config that cannot be read the
/// list is absent.
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
