#include "agent/core/Agent.h"

#include <fmt/format.h>
#include <malloc.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>

#include "agent/backends/simulated/SimulatedBackend.h"
#include "agent/base/Deadline.h"
#include "agent/base/Log.h"
#include "agent/core/MachineId.h"
#include "agent/core/ServiceManager.h"

namespace kx::agent {
namespace {

/// Clients wait for the backend's first image, so that a restart does not show them an empty host. A backend that
/// is held up longer than this must not keep the whole agent from answering.
constexpr std::chrono::seconds kFirstImagePatience{3};

/// For a backend's threads to end: far more than they take, unless one hangs. A reload that has waited so long is made
/// good by a restart.
constexpr std::chrono::milliseconds kEndPatience{1500};
constexpr std::chrono::milliseconds kReloadPatience{5000};

/// Deltas of this size leave behind enough free memory to be worth giving back.
constexpr std::size_t kLargeUpdateBytes = std::size_t{256} * 1024;

std::string hostName() {
    std::array<char, 256> name{};
    ::gethostname(name.data(), name.size() - 1);
    return name.data();
}

Environment hostEnvironment(const std::string& machineId) {
    Environment host;
    host.eid = Eid::fromName(machineId, kHostName);
    host.type = kHostType;
    host.state = static_cast<std::int32_t>(State::Running);
    host.name = hostName();
    host.hostname = host.name;
    return host;
}

bool isLarge(const HostUpdate& update) {
    std::size_t bytes = 0;
    for (const FrameBody& delta : update.deltas.plain) {
        bytes += delta->size();
    }
    return bytes >= kLargeUpdateBytes;
}

void warnWithoutGroup(const AccessPolicy& access) {
    if (!access.group) {
        log::warning(fmt::format("there is no group {}: only root can use the agent", kAgentGroup));
    }
}

}  // namespace

Agent::Agent(AgentSettings settings)
    : settings_(std::move(settings)),
      signals_(io_, SIGTERM, SIGINT, SIGHUP),
      firstImageTimer_(io_),
      config_(loadConfig(settings_.configFile, settings_.configMustExist)),
      machineId_(machineId(kSystemMachineIdFile, config_.stateDirectory)),
      content_(hostEnvironment(machineId_)),
      counters_(
          io_, [this](const CounterSink& sink) { slot_->readCounters(sink); }, config_.periodScale),
      alerts_(io_, content_.inventory(), config_.alerts, config_.stateDirectory,
              {[this](const std::vector<Alert>& alerts) { server_->publish(alerts); },
               [this](const InventoryDeltas& deltas) { server_->publish(deltas); }}),
      server_(makeServer(config_)),
      slot_(makeSlot(chooseBackend(config_), config_)) {
    alerts_.restore();
    waitForSignal();
    firstImageTimer_.expires_after(kFirstImagePatience);
    firstImageTimer_.async_wait([this](const boost::system::error_code& cancelled) {
        if (!cancelled && !serving_) {
            log::warning(fmt::format("backend {} has found nothing out yet: serving without", slot_->name()));
            beginToServe();
        }
    });
    slot_->start();
    slot_->activate();
}

Agent::~Agent() = default;

void Agent::run() {
    io_.run();
}

std::unique_ptr<Server> Agent::makeServer(const Config& config) {
    const AccessPolicy access = AccessPolicy::ofSystem();
    warnWithoutGroup(access);
    ServerSettings settings{config.socket,
                            settings_.program,
                            content_.inventory().environments().front().eid,
                            access,
                            ServerLimits(),
                            this,
                            &alerts_.consumers(),
                            &counters_};
    settings.freshness = [this] { return slot_ ? slot_->freshness() : Freshness(); };
    return std::make_unique<Server>(io_, std::move(settings), content_);
}

std::unique_ptr<BackendSlot> Agent::makeSlot(BackendKind kind, const Config& config) {
    const auto make = [&](BackendListener& listener) { return makeBackend(io_, kind, config, machineId_, listener); };
    return std::make_unique<BackendSlot>(
        kind, make, [this](HostImage image) { hostChanged(std::move(image)); },
        [this](AlertSignal signal) { alerts_.take(std::move(signal)); });
}

void Agent::hostChanged(HostImage image) {
    counters_.setVocabularies(image.vocabularies);
    alerts_.clearWhatIsGone(image);
    const HostUpdate update =
        content_.apply(std::move(image), [this](const Eid& eid) { return alerts_.isOutstanding(eid); });
    counters_.renumber(update.renumbered);
    server_->publish(update);
    if (!slot_->isDescribed()) {
        alerts_.clearWhatIsOver();
    }
    alerts_.settle();
    if (!serving_) {
        beginToServe();
    }
    // The allocator would keep what building and comparing the image took, for good.
    if (isLarge(update)) {
        ::malloc_trim(0);
    }
}

std::string Agent::whyNoAlerts() const {
    return slot_->isDescribed() ? "" : "only a described host can be told to report alerts; this one is real";
}

void Agent::raise(AlertSignal signal) {
    alerts_.take(std::move(signal));
}

void Agent::beginToServe() {
    serving_ = true;
    firstImageTimer_.cancel();
    server_->accept();
    log::info(summary());
    notifyReady(summary());
}

std::string Agent::summary() const {
    return fmt::format("{}: backend {}, {} environments with the host, listening on {}", settings_.program,
                       slot_->name(), content_.inventory().environments().size(), server_->socketPath());
}

void Agent::waitForSignal() {
    signals_.async_wait([this](const boost::system::error_code& cancelled, int number) {
        if (!cancelled) {
            signalled(number);
        }
    });
}

void Agent::signalled(int number) {
    if (number != SIGHUP) {
        stop();
        return;
    }
    reload();
    waitForSignal();
}

void Agent::stop() {
    notifyStopping();
    log::info("stopping");
    io_.poll();  // what sources have reported and was not taken yet
    alerts_.save();
    server_.reset();
    stopBackend(kEndPatience, EXIT_SUCCESS);
    io_.stop();
}

/// A thread that hangs in a file system may never return.
void Agent::stopBackend(std::chrono::milliseconds patience, int status) {
    const Deadline deadline(patience, fmt::format("stopping backend {}", slot_->name()), status);
    slot_->stop();
}

void Agent::reload() {
    notifyReloading();
    try {
        switchTo(loadConfig(settings_.configFile, settings_.configMustExist));
    } catch (const std::exception& error) {
        log::error(fmt::format("kept the old configuration: {}", error.what()));
    }
    if (serving_) {
        notifyReady(summary());
    }
}

/// Does everything that may fail before it gives up anything of the old.
void Agent::switchTo(const Config& fresh) {
    const BackendKind kind = chooseBackend(fresh);
    const bool otherSocket = fresh.socket != config_.socket;
    const bool otherBackend = kind != slot_->kind() || differInBackend(kind, config_, fresh);
    std::unique_ptr<Server> server = otherSocket ? makeServer(fresh) : nullptr;
    std::unique_ptr<BackendSlot> slot = otherBackend ? startNewBackend(kind, fresh) : nullptr;
    if (server) {
        server_ = std::move(server);
        if (serving_) {
            server_->accept();
        }
    }
    if (slot) {
        stopBackend(kReloadPatience, EXIT_FAILURE);
        slot_ = std::move(slot);
        slot_->activate();
        counters_.readAnew();
    }
    config_ = fresh;
    counters_.setPeriodScale(fresh.periodScale);
    alerts_.setLimits(fresh.alerts);
    log::info(fmt::format("read the configuration again; {}", summary()));
}

std::unique_ptr<BackendSlot> Agent::startNewBackend(BackendKind kind, const Config& config) {
    auto fresh = makeSlot(kind, config);
    // Two that watch real containers would both write the numbers they give to containers into one file.
    const bool oneAtATime = kind == BackendKind::Lxc && slot_->kind() == BackendKind::Lxc;
    if (!oneAtATime) {
        fresh->start();
        return fresh;
    }
    stopBackend(kReloadPatience, EXIT_FAILURE);
    try {
        fresh->start();
    } catch (...) {
        resumeBackend();
        throw;
    }
    return fresh;
}

void Agent::resumeBackend() {
    try {
        slot_->start();
    } catch (const std::exception& error) {
        log::error(fmt::format("nothing is watched until the configuration is read again: {}", error.what()));
    }
    // One that was under way when the backend was stopped will not come.
    counters_.readAnew();
}

std::string checkConfiguration(const AgentSettings& settings) {
    try {
        const Config config = loadConfig(settings.configFile, settings.configMustExist);
        if (chooseBackend(config) != BackendKind::Simulated) {
            return {};
        }
        const auto id = knownMachineId(kSystemMachineIdFile, config.stateDirectory);
        const auto error = checkInventory(config.inventory, id.value_or(std::string()));
        return error ? describe(config.inventory, *error) : std::string();
    } catch (const std::exception& error) {
        return error.what();
    }
}

}  // namespace kx::agent
