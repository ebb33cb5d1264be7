#include "agent/backends/lxc/ContainerProbe.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <lxc/lxccontainer.h>

#include <algorithm>
#include <memory>

#include "agent/backends/lxc/CommandSocket.h"
#include "agent/backends/lxc/Ipv4Text.h"
#include "agent/backends/lxc/RootFile.h"

namespace kx::agent::lxc {
namespace {

struct PutContainer {
    void operator()(lxc_container* container) const { lxc_container_put(container); }
};
using ContainerHandle = std::unique_ptr<lxc_container, PutContainer>;

/// @return the configured value; empty when there is none
std::string configItem(lxc_container* container, const char* key) {
    const int length = container->get_config_item(container, key, nullptr, 0);
    if (length <= 0) {
        return {};
    }
    std::string value(static_cast<std::size_t>(length) + 1, '\0');
    container->get_config_item(container, key, value.data(), length + 1);
    value.resize(static_cast<std::size_t>(length));
    // liblxc prints a null pointer for some keys that are not set.
    return value == "(null)" ? std::string() : value;
}

/// liblxc, run by root, keeps one lock file a container here and locks it for every reading of the configuration.
/// The file appears with the first lock. Looking whether it is free leaves a moment between look and use: short
/// against the seconds for which a deletion holds it.
bool isLocked(const std::string& path, const std::string& name) {
    const std::string file = fmt::format("/run/lxc/lock/{}/.{}", path, name);
    const OwnedDescriptor lock(::open(file.c_str(), O_RDWR | O_CLOEXEC));
    struct flock query {};
    query.l_type = F_WRLCK;
    query.l_whence = SEEK_SET;
    return lock && ::fcntl(lock.get(), F_OFD_GETLK, &query) == 0 && query.l_type != F_UNLCK;
}

/// `partial` stands in a container's folder while it is being created.
bool isBeingCreated(const std::string& folder) {
    return stampAt(AT_FDCWD, (folder + "/partial").c_str()).size >= 0;
}

void readNetworks(lxc_container* container, ContainerProbe& probe) {
    // One line for each network, with its type. Their numbers need not be contiguous.
    const std::string types = configItem(container, "lxc.net");
    auto left = static_cast<unsigned>(std::count(types.begin(), types.end(), '\n'));
    std::string lines;
    for (unsigned number = 0; left > 0 && number < kMaxNetworks; ++number) {
        const std::string key = fmt::format("lxc.net.{}.", number);
        if (container->get_config_item(container, (key + "type").c_str(), nullptr, 0) >= 0) {
            --left;
            lines += configItem(container, (key + "ipv4.address").c_str()) + "\n";
        }
    }
    probe.addresses = configuredAddresses(lines);
    probe.networksLeftOut = left;
}

void readConfiguration(lxc_container* container, ContainerProbe& probe) {
    probe.hostname = configItem(container, "lxc.uts.name");
    probe.rootfs = configItem(container, "lxc.rootfs.path");
    readNetworks(container, probe);
}

void askMonitor(lxc_container* container, ContainerProbe& probe) {
    const char* state = container->state(container);
    probe.lxcState = state != nullptr ? state : "";
    if (probe.lxcState != "STOPPED") {
        probe.initPid = container->init_pid(container);
    }
}

}  // namespace

ContainerProbe probeContainer(const std::string& path, const std::string& name, StuckCallBreaker& breaker) {
    ContainerProbe probe;
    const std::string folder = fmt::format("{}/{}", path, name);
    if (stampAt(AT_FDCWD, (folder + "/config").c_str()).size < 0) {
        return probe;
    }
    if (isLocked(path, name) || isBeingCreated(folder)) {
        probe.result = ProbeResult::Busy;
        return probe;
    }
    const ContainerHandle container(lxc_container_new(name.c_str(), path.c_str()));
    if (!container) {
        // It may have been deleted since the look at its file.
        const bool there = stampAt(AT_FDCWD, (folder + "/config").c_str()).size >= 0;
        probe.result = there ? ProbeResult::Malformed : ProbeResult::Gone;
        return probe;
    }
    readConfiguration(container.get(), probe);
    const std::string socketName = commandSocketName(path, name);
    if (monitorBehind(socketName) == Monitor::Full) {
        probe.result = ProbeResult::NoAnswer;
        return probe;
    }
    const bool answered = breaker.guard(socketName, [&] { askMonitor(container.get(), probe); });
    probe.result = answered ? ProbeResult::Done : ProbeResult::NoAnswer;
    return probe;
}

}  // namespace kx::agent::lxc
