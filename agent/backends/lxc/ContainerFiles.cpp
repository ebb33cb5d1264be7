#include "agent/backends/lxc/ContainerFiles.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <fstream>
#include <sstream>
#include <utility>

#include "agent/backends/lxc/ContainerNotes.h"
#include "agent/backends/lxc/Descriptors.h"
#include "agent/backends/lxc/RootfsPath.h"

namespace kx::agent::lxc {
namespace {

/// liblxc, run by root, keeps one lock file a container here and holds its lock while it writes the configuration or
/// deletes the container. The file appears with the first lock.
bool isLocked(const std::string& path, const std::string& name) {
    const std::string file = fmt::format("/run/lxc/lock/{}/.{}", path, name);
    const OwnedDescriptor lock(::open(file.c_str(), O_RDWR | O_CLOEXEC));
    struct flock query {};
    query.l_type = F_WRLCK;
    query.l_whence = SEEK_SET;
    return lock && ::fcntl(lock.get(), F_OFD_GETLK, &query) == 0 && query.l_type != F_UNLCK;
}

bool isThere(const std::string& file) {
    return stampAt(AT_FDCWD, file.c_str()).size >= 0;
}

/// A file system that a process of the container serves could leave every lookup in it without an answer.
bool rootIsServedByProcess(pid_t initPid) {
    std::ifstream mounts(fmt::format("/proc/{}/mountinfo", initPid));
    bool served = false;
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream fields(line);
        std::string number, parent, device, root, mountPoint;
        fields >> number >> parent >> device >> root >> mountPoint;
        const auto dash = line.find(" - ");
        // The last mount on "/" is the one that is seen.
        if (dash != std::string::npos && mountPoint == "/") {
            served = line.compare(dash + 3, 4, "fuse") == 0;
        }
    }
    return served;
}

struct RootFolder {
    OwnedDescriptor folder;
    Bounds bounds = Bounds::Root;
};

RootFolder openRunningRoot(const RootQuery& query) {
    RootFolder root;
    if (query.pidfd == nullptr || rootIsServedByProcess(query.initPid)) {
        return root;
    }
    root.folder = openFolder(fmt::format("/proc/{}/root", query.initPid));
    root.bounds = Bounds::RootMount;
    // The number may be another process's by now; it was not if init has not ended since.
    if (hasEnded(query.pidfd->get())) {
        root.folder.reset();
    }
    return root;
}

RootFolder openRoot(const RootQuery& query) {
    RootFolder root;
    if (const auto folder = rootfsFolder(query.rootfs)) {
        root.folder = openFolder(*folder);
    }
    return root.folder ? std::move(root) : openRunningRoot(query);
}

}  // namespace

FolderFiles readContainerFolder(const FolderQuery& query) {
    FolderFiles files;
    const std::string path = fmt::format("{}/{}", query.path, query.name);
    const OwnedDescriptor folder = openFolder(path);
    struct stat status {};
    files.isFolder = folder && ::fstat(folder.get(), &status) == 0;
    files.owner = status.st_uid;
    files.hasConfig = files.isFolder && isThere(path + "/config");
    // `partial` is in a container's folder while it is being created.
    files.isBusy = isLocked(query.path, query.name) || isThere(path + "/partial");
    if (!files.hasConfig || files.isBusy) {
        return files;
    }
    if (query.configAnyway || !query.config || haveChanged(*query.config)) {
        files.config = readConfig(path + "/config");
    }
    const std::string notes = path + "/kx.toml";
    if (query.notesAnyway || stampAt(AT_FDCWD, notes.c_str()) != query.notes) {
        files.notes = readFile(AT_FDCWD, notes.c_str(), Bounds::Host, kMaxNotesBytes);
        if (!files.notes->text) {
            files.notes->stamp = stampAt(AT_FDCWD, notes.c_str());
        }
    }
    return files;
}

std::optional<OsReleaseFile> readContainerOs(const RootQuery& query) {
    const RootFolder root = openRoot(query);
    if (!root.folder || (query.known && osReleaseStamp(root.folder.get(), root.bounds) == *query.known)) {
        return std::nullopt;
    }
    return readOsRelease(root.folder.get(), root.bounds);
}

}  // namespace kx::agent::lxc
