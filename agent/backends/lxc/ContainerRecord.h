// What the backend's worker knows of one sub-folder of LXC's path.
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
#include "agent/backends/lxc/ContainerFiles.h"
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
    std::vector<Inet6Address> inet6Addresses;       ///< likewise, as long as `addresses` is there
    bool lacksDescriptors = false;                  ///< they cannot be read because the agent has too many files open
    bool cutIsLogged = false;                       ///< that it has more addresses than are published

    /// @return whether an init process is being watched that has not ended
    bool watched() const { return pidfd != nullptr; }
};

/// One sub-folder of LXC's path. It is a container when it is defined.
struct ContainerRecord {
    std::string name;
    int folderWatch = -1;
    bool defined = false;  ///< has a config, and its creation has finished

    bool filesKnown = false;   ///< its folder has been read
    unsigned filesNeeded = 0;  ///< what is to be read again once the call that reads its folder has returned; Need bits
    unsigned rootNeeded = 0;   ///< likewise of the one that reads its root
    uid_t owner = 0;           ///< of its folder
    std::shared_ptr<const ConfigParts> config;  ///< that was last read
    std::string configFault;                    ///< why it was not taken; empty: it was
    Clock::time_point retryAt;                  ///< when it is read again though it has not changed
    Clock::duration retryDelay{};
    std::string filesProblem;  ///< last complaint about a file system that does not answer
    std::string hostname;
    std::string rootfs;
    std::string cgroupFolder;                        ///< as configured; see payloadPath()
    std::optional<std::vector<Address>> configured;  ///< addresses that the config gives it; absent: never read
    std::string configProblem;                       ///< last complaint about the config, to make it once a change
    std::string addressProblem;                      ///< last complaint about the kernel's addresses, likewise

    FileStamp notesStamp;
    std::string notesProblem;  ///< last complaint about kx.toml, to make it once a change
    ContainerNotes notes;      ///< the last good ones

    FileStamp osStamp;
    std::optional<Template> os;  ///< last known; stays when a root file system is out of reach while stopped

    Status status;
    bool answered = false;         ///< the status has been found out, or cannot be
    OwnedDescriptor monitor;       ///< a connection that its monitor has not taken up yet; none: nothing is asked
    std::uint64_t monitorId = 0;   ///< names it in the worker's poll set
    Clock::time_point monitorDue;  ///< when it counts as silent
    std::string monitorProblem;    ///< last complaint about its command socket
    ContainerLife life;
    bool lacksAddresses = false;  ///< those of a new run are being read
    bool lacksOs = false;  ///< its os-release is being read for the first time, or for the first time in this run
    Clock::time_point heldUntil;  ///< while either is so, nothing new is published of the container before
    unsigned settleStep = 0;      ///< how many rechecks have followed the last sign of a change
    bool settling = false;        ///< a sign of a change was seen, and no stable state since
    unsigned unansweredTries = 0;
    Clock::time_point lastLook;

    std::optional<std::int32_t> veid;
    Eid eid;
    std::optional<Environment> published;  ///< as last handed on; absent: nothing is known yet
};

/// @brief Puts together what is published of a container.
/// A container whose config cannot be read is published too, with what was last known of it: it exists, and a row that
/// vanishes would look like a deleted container. Its state does not depend on the config.
/// Addresses are the kernel's while they are known, else the configured ones; where the config has never been read the
/// list is absent.
Environment environmentOf(const ContainerRecord& record);

/// @brief Takes a `kx.toml` that was read. A wrong one is complained about once a change, the last good one stays; a
/// missing one means that nothing is noted.
/// @param path LXC's path
void takeNotes(ContainerRecord& record, const std::string& path, const FileText& file, const LogSink& log);

}  // namespace kx::agent::lxc
