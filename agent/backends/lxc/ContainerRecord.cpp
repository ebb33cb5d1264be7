#include "agent/backends/lxc/ContainerRecord.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <fstream>
#include <sstream>

#include "agent/backends/lxc/Descriptors.h"
#include "agent/backends/lxc/OsRelease.h"
#include "agent/backends/lxc/RootfsPath.h"
#include "wire/Protocol.h"

namespace kx::agent::lxc {
namespace {

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

RootFolder openRunningRoot(const ContainerLife& life) {
    RootFolder root;
    if (!life.watched() || rootIsServedByProcess(life.initPid)) {
        return root;
    }
    root.folder = openFolder(fmt::format("/proc/{}/root", life.initPid));
    root.bounds = Bounds::RootMount;
    // The number may be another process's by now; it was not if init has not ended since.
    if (hasEnded(life.pidfd->get())) {
        root.folder.reset();
    }
    return root;
}

RootFolder openRoot(const ContainerRecord& record) {
    RootFolder root;
    if (const auto folder = rootfsFolder(record.rootfs)) {
        root.folder = openFolder(*folder);
    }
    return root.folder ? std::move(root) : openRunningRoot(record.life);
}

}  // namespace

Environment environmentOf(const ContainerRecord& record) {
    Environment environment;
    environment.eid = record.eid;
    environment.type = kContainerType;
    environment.state = static_cast<std::int32_t>(record.status.state);
    environment.transition = static_cast<std::int32_t>(record.status.transition);
    environment.name = record.name;
    environment.veid = record.veid;
    // A container without a configured name gets its own name from LXC.
    environment.hostname = record.hostname.empty() ? record.name : record.hostname;
    environment.description = record.notes.description;
    environment.osTemplate = record.os;
    environment.baseSample = record.notes.baseSample;
    environment.templates = record.notes.templates;
    if (record.life.addresses) {
        environment.addresses = record.life.addresses;
    } else if (!record.malformed) {
        environment.addresses = record.configured;
    }
    return environment;
}

void readNotes(ContainerRecord& record, const std::string& path, const LogSink& log) {
    const std::string file = fmt::format("{}/{}/kx.toml", path, record.name);
    const std::string logged = fmt::format("{}/{}/kx.toml", path, wire::printable(record.name));
    const FileStamp stamp = stampAt(AT_FDCWD, file.c_str());
    const bool fresh = stamp != record.notesStamp;
    record.notesStamp = stamp;
    const FileText content = readFile(AT_FDCWD, file.c_str(), Bounds::Host, kMaxNotesBytes);
    std::string problem;
    if (content.missing) {
        record.notes = {};
    } else if (!content.text) {
        problem = fmt::format("{}: {}", logged, content.problem);
    } else {
        auto parsed = parseContainerNotes(*content.text);
        if (auto* notes = std::get_if<ContainerNotes>(&parsed)) {
            record.notes = std::move(*notes);
        } else if (const auto* error = std::get_if<NotesError>(&parsed)) {
            problem = fmt::format("{}:{}:{}: {}", logged, error->line, error->column, error->message);
        }
    }
    if (!problem.empty() && (fresh || problem != record.notesProblem)) {
        log(Severity::Error, problem + "; the file is ignored, what was last good stays");
    }
    record.notesProblem = problem;
}

void readOs(ContainerRecord& record) {
    const RootFolder root = openRoot(record);
    if (!root.folder) {
        return;
    }
    OsReleaseFile found = readOsRelease(root.folder.get(), root.bounds);
    record.os = std::move(found.os);
    record.osStamp = found.stamp;
}

bool osChanged(const ContainerRecord& record) {
    const RootFolder root = openRoot(record);
    return root.folder && osReleaseStamp(root.folder.get(), root.bounds) != record.osStamp;
}

}  // namespace kx::agent::lxc
