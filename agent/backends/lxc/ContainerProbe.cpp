#include "agent/backends/lxc/ContainerProbe.h"

#include <fmt/format.h>
#include <lxc/lxccontainer.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "agent/backends/lxc/CommandSocket.h"
#include "agent/backends/lxc/Ipv4Text.h"
#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {
namespace {

/// A path without containers: liblxc reads the configuration of one that it finds, and opens what that names.
constexpr const char* kNoContainers = "/run/lxc/kxagentd";

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

void readNetworks(lxc_container* container, ContainerConfig& config) {
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
    config.addresses = configuredAddresses(lines);
    config.networksLeftOut = left;
}

/// @return an object without a configuration of its own; null when memory is short
ContainerHandle openContainer(const std::string& name) {
    return ContainerHandle(lxc_container_new(name.c_str(), kNoContainers));
}

}  // namespace

std::optional<ContainerConfig> parseConfig(const std::string& name, const std::string& text) {
    const OwnedDescriptor file(::memfd_create("config", MFD_CLOEXEC));
    const ContainerHandle container = openContainer(name);
    const bool written = file && ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const std::string path = fmt::format("/proc/self/fd/{}", file.get());
    if (!written || !container || !container->load_config(container.get(), path.c_str())) {
        return std::nullopt;
    }
    ContainerConfig config;
    config.hostname = configItem(container.get(), "lxc.uts.name");
    config.rootfs = configItem(container.get(), "lxc.rootfs.path");
    config.cgroupFolder = configItem(container.get(), "lxc.cgroup.dir.container");
    readNetworks(container.get(), config);
    return config;
}

std::optional<MonitorAnswer> askMonitor(const std::string& path, const std::string& name, StuckCallBreaker& breaker) {
    const ContainerHandle container = openContainer(name);
    if (!container || !container->set_config_path(container.get(), path.c_str())) {
        return std::nullopt;
    }
    MonitorAnswer answer;
    const bool answered = breaker.guard(commandSocketName(path, name), [&] {
        const char* state = container->state(container.get());
        answer.lxcState = state != nullptr ? state : "";
        if (answer.lxcState != "STOPPED") {
            answer.initPid = container->init_pid(container.get());
        }
    });
    return answered ? std::optional(answer) : std::nullopt;
}

}  // namespace kx::agent::lxc
