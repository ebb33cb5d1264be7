#include "agent/backends/lxc/NetworkCounters.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "agent/backends/lxc/Descriptors.h"
#include "agent/vocabulary/Vocabulary.h"
#include "wire/Protocol.h"

namespace kx::agent::lxc {
namespace {

/// The kernel wraps its counters around at 64 bits; so does whoever adds them up.
std::int64_t signedValue(std::uint64_t value) {
    return static_cast<std::int64_t>(value);
}

InterfaceList failure(const char* what, int error) {
    return {{}, false, fmt::format("{}: {}", what, std::strerror(error))};
}

}  // namespace

NetworkCounters::NetworkCounters(LogSink log)
    : log_(std::move(log)),
      names_(networkCounterNames()),
      tables_(kNetworkClass, std::make_shared<const std::vector<std::string>>(names_)) {}

bool NetworkCounters::read(const CounterTarget& target) {
    bool ownNetwork = true;
    InterfaceList list = readList(target, ownNetwork);
    // What was found under the number was another process's if init has ended meanwhile.
    if (hasEnded(target.pidfd->get())) {
        return false;
    }
    Run& run = runs_[target.eid];
    if (run.initPid != target.initPid) {
        run = {target.initPid, {}, {}, false, 0};
    }
    run.reading = reading_;
    complain(run, wire::printable(target.name), list);
    if (list.problem.empty()) {
        run.last = std::move(list.interfaces);
    }
    addRows(target, run.last, list.problem.empty() && ownNetwork);
    return true;
}

std::vector<CounterTable> NetworkCounters::take() {
    std::erase_if(runs_, [this](const auto& entry) { return entry.second.reading != reading_; });
    ++reading_;
    return tables_.take();
}

InterfaceList NetworkCounters::readList(const CounterTarget& target, bool& ownNetwork) {
    const OwnedDescriptor space = openNetworkSpace(target.initPid);
    if (!space) {
        return failure("its network namespace cannot be opened", errno);
    }
    ownNetwork = !traveller_.isHost(idOf(space.get()));
    if (!ownNetwork) {
        return {};
    }
    OwnedDescriptor socket;
    int error = 0;
    const int noEntry = traveller_.inside(space.get(), [&] {
        socket = openRouteSocket();
        error = errno;
    });
    if (!socket) {
        return failure("its network namespace cannot be entered", noEntry != 0 ? noEntry : error);
    }
    return readInterfaces(socket.get());
}

void NetworkCounters::complain(Run& run, const std::string& name, const InterfaceList& list) {
    if (list.problem != run.problem && !list.problem.empty()) {
        log_(Severity::Warning, fmt::format("container {}: {}; its network counters stay as they were and count as "
                                            "unknown",
                                            name, list.problem));
    }
    run.problem = list.problem;
    if (list.cut && !run.cutIsLogged) {
        run.cutIsLogged = true;
        log_(
            Severity::Warning,
            fmt::format("container {}: it has more than {} network interfaces; the counters of the others are left out",
                        name, kMaxInterfaces));
    }
}

void NetworkCounters::addRows(const CounterTarget& target, const std::vector<InterfaceCounters>& interfaces,
                              bool known) {
    const std::vector<std::string> unknown = known ? std::vector<std::string>() : names_;
    // A container that runs is in every class: clients drop one that a report lacks.
    if (interfaces.empty()) {
        tables_.add({target.eid, "", std::vector<std::int64_t>(names_.size(), 0)}, unknown);
    }
    for (const InterfaceCounters& one : interfaces) {
        tables_.add({target.eid,
                     std::to_string(one.index),
                     {signedValue(one.bytesIn), signedValue(one.packetsIn), signedValue(one.bytesOut),
                      signedValue(one.packetsOut)}},
                    unknown);
    }
}

}  // namespace kx::agent::lxc
