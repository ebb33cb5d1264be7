// The kernel's addresses of running containers: what the address watch tells, and who waits for it.

#include <fmt/format.h>

#include <algorithm>

#include "agent/backends/lxc/AddressDump.h"
#include "agent/backends/lxc/LxcWatcher.h"
#include "wire/Protocol.h"

namespace kx::agent::lxc {

void LxcWatcher::watchAddresses(ContainerRecord& record) {
    record.lacksAddresses = true;
    record.heldUntil = Clock::now() + kHold;
    addressWatch_.watch(record.life.id, record.life.initPid, record.life.pidfd);
}

void LxcWatcher::compareAddresses() {
    addressWatch_.compare();
    const bool lacking =
        std::any_of(records_.begin(), records_.end(), [](const auto& one) { return one.second.life.lacksDescriptors; });
    if (!lacking) {
        descriptorProblem_.clear();
    }
}

void LxcWatcher::takeAddressReports() {
    for (AddressReport& report : addressWatch_.takeReports()) {
        const auto name = nameOfLife_.find(report.life);
        const auto record = name != nameOfLife_.end() ? records_.find(name->second) : records_.end();
        if (record != records_.end()) {
            takeAddresses(record->second, std::move(report));
        }
    }
}

void LxcWatcher::takeAddresses(ContainerRecord& record, AddressReport report) {
    complainOfAddresses(record, report);
    record.life.addresses = std::move(report.addresses);
    record.life.inet6Addresses = std::move(report.inet6Addresses);
    record.lacksAddresses = false;
    if (record.defined) {
        refresh(record);
    }
}

void LxcWatcher::complainOfAddresses(ContainerRecord& record, const AddressReport& report) {
    const std::string name = wire::printable(record.name);
    // Whoever is root in the container decides whether it has too many, so that is said once a run of it.
    if (report.cut && !record.life.cutIsLogged) {
        record.life.cutIsLogged = true;
        log_(Severity::Warning,
             fmt::format("container {}: it has more than {} addresses of a family; the others are left out", name,
                         kMaxAddresses));
    }
    record.life.lacksDescriptors = report.noDescriptors;
    if (report.noDescriptors) {
        // Soon all containers have this one; it is the agent's trouble, not theirs.
        logOnChange(descriptorProblem_, Severity::Error,
                    "too many files are open to read the addresses of containers; those they are configured to have "
                    "are published (see the agent's limit of open files)");
        return;
    }
    logOnChange(record.addressProblem, Severity::Warning,
                report.problem.empty() ? ""
                                       : fmt::format("container {}: {}; the addresses it is configured to have are "
                                                     "published",
                                                     name, report.problem));
}

bool LxcWatcher::isHeld(const ContainerRecord& record) const {
    return (record.lacksOs || (record.lacksAddresses && record.life.watched())) && Clock::now() < record.heldUntil;
}

/// @return whether there is a container of which nothing can be published yet
bool LxcWatcher::isAnyUnknown() const {
    return std::any_of(records_.begin(), records_.end(), [this](const auto& one) {
        const ContainerRecord& record = one.second;
        return isBeingRead(record) || (record.defined && !record.published);
    });
}

}  // namespace kx::agent::lxc
