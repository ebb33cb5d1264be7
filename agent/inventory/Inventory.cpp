#include "agent/inventory/Inventory.h"

#include <fmt/format.h>

#include <algorithm>
#include <string_view>
#include <unordered_set>

#include "agent/base/Log.h"
#include "agent/inventory/WireEncoding.h"
#include "wire/Protocol.h"

namespace kx::agent {
namespace {

/// Tag and length of an identifier in a delta.
constexpr std::size_t kRemovedBytes = wire::kEidBytes + 2;

/// Environments in one delta. A client refuses frames that take many times their size once decoded.
constexpr std::size_t kMaxEntries = 5000;

/// Fills deltas, beginning a new one whenever a frame is full, and keeps a list of what is in them. There are two of
/// each, which are the same where no departed environment is concerned.
class DeltaWriter {
public:
    DeltaWriter(std::uint64_t& generation, std::vector<EnvironmentChange>* changes)
        : generation_(generation), changes_(changes) {}

    void remove(const Environment& environment) {
        makeRoom(kRemovedBytes);
        frame_.mutable_delta()->add_removed_eids(environment.eid.toWire());
        plainRemoved_.push_back(environment.eid);
        note(environment, ChangeKind::Removed);
    }

    void depart(const Environment& environment) {
        makeRoom(wireBytesAtMost(environment));
        wire::Environment& gone = *frame_.mutable_delta()->add_changed();
        toWire(environment, gone);
        gone.set_departed(true);
        plainRemoved_.push_back(environment.eid);
        note(environment, ChangeKind::Removed);
        differ_ = true;
    }

    void release(const Environment& departed) {
        makeRoom(kRemovedBytes);
        frame_.mutable_delta()->add_removed_eids(departed.eid.toWire());
        differ_ = true;
    }

    /// @param kind Added or Modified, which are the same in a delta
    void change(const Environment& environment, ChangeKind kind) {
        makeRoom(wireBytesAtMost(environment));
        toWire(environment, *frame_.mutable_delta()->add_changed());
        note(environment, kind);
    }

    InventoryDeltas finish() {
        flush();
        return std::move(deltas_);
    }

private:
    void note(const Environment& environment, ChangeKind kind) {
        if (changes_ != nullptr) {
            changes_->push_back({environment.eid, kind, environment.name, environment.state, environment.transition});
        }
    }

    void makeRoom(std::size_t bytes) {
        if (bytes_ + bytes > Inventory::kFrameBytes || entries_ == kMaxEntries) {
            flush();
        }
        bytes_ += bytes;
        ++entries_;
    }

    void flush() {
        if (!frame_.has_delta()) {
            return;
        }
        frame_.mutable_delta()->set_generation(++generation_);
        deltas_.withDeparted.push_back(encodeBody(frame_));
        deltas_.plain.push_back(differ_ ? encodeBody(plainFrame()) : deltas_.withDeparted.back());
        frame_.Clear();
        plainRemoved_.clear();
        bytes_ = 0;
        entries_ = 0;
        differ_ = false;
    }

    wire::Frame plainFrame() const {
        wire::Frame frame;
        wire::Delta& plain = *frame.mutable_delta();
        plain.set_generation(frame_.delta().generation());
        for (const Eid& eid : plainRemoved_) {
            plain.add_removed_eids(eid.toWire());
        }
        for (const wire::Environment& changed : frame_.delta().changed()) {
            if (!changed.departed()) {
                *plain.add_changed() = changed;
            }
        }
        return frame;
    }

    std::uint64_t& generation_;
    std::vector<EnvironmentChange>* changes_;
    wire::Frame frame_;              ///< for clients that know departed environments
    std::vector<Eid> plainRemoved_;  ///< for the others
    bool differ_ = false;
    std::size_t bytes_ = 0;
    std::size_t entries_ = 0;
    InventoryDeltas deltas_;
};

}  // namespace

/// What differs between the old list and the new one.
struct Inventory::Changes {
    std::vector<bool> present;         ///< by position in the old list: still there
    std::vector<std::size_t> changed;  ///< positions in the old list
    std::vector<Environment> added;
};

Inventory::Inventory(Environment host) {
    positions_.emplace(host.eid, 0);
    environments_.push_back(std::move(host));
}

InventoryDeltas Inventory::apply(std::vector<Environment> containers, std::vector<EnvironmentChange>* changes,
                                 const IsOutstanding& isOutstanding) {
    completeSnapshots();
    containers = withoutUnfit(std::move(containers));
    takeBack(containers);
    Changes differences = takeOver(std::move(containers));
    DeltaWriter writer(generation_, changes);
    for (std::size_t i = 0; i < environments_.size(); ++i) {
        if (!differences.present[i] && isOutstanding && isOutstanding(environments_[i].eid)) {
            writer.depart(environments_[i]);
            departed_.push_back(environments_[i]);
        } else if (!differences.present[i]) {
            writer.remove(environments_[i]);
        }
    }
    for (const std::size_t position : differences.changed) {
        writer.change(environments_[position], ChangeKind::Modified);
    }
    removeGone(differences.present);
    for (Environment& environment : differences.added) {
        writer.change(environment, ChangeKind::Added);
        positions_.emplace(environment.eid, environments_.size());
        environments_.push_back(std::move(environment));
    }
    return writer.finish();
}

InventoryDeltas Inventory::release(const IsOutstanding& isOutstanding) {
    completeSnapshots();
    DeltaWriter writer(generation_, nullptr);
    std::erase_if(departed_, [&](const Environment& departed) {
        const bool isOver = !isOutstanding(departed.eid);
        if (isOver) {
            writer.release(departed);
        }
        return isOver;
    });
    return writer.finish();
}

void Inventory::restoreDeparted(std::vector<Environment> environments) {
    completeSnapshots();
    std::erase_if(environments, [&](const Environment& each) { return contains(each.eid); });
    departed_ = std::move(environments);
}

const Environment* Inventory::find(const Eid& eid) const {
    const auto known = positions_.find(eid);
    if (known != positions_.end()) {
        return &environments_[known->second];
    }
    const auto departed = std::find_if(departed_.begin(), departed_.end(),
                                       [&](const Environment& environment) { return environment.eid == eid; });
    return departed == departed_.end() ? nullptr : &*departed;
}

/// What has departed and is there again is an environment like any other that is new.
void Inventory::takeBack(const std::vector<Environment>& containers) {
    if (departed_.empty()) {
        return;
    }
    std::unordered_set<Eid, EidHash> present;
    for (const Environment& environment : containers) {
        present.insert(environment.eid);
    }
    std::erase_if(departed_, [&](const Environment& departed) { return present.contains(departed.eid); });
}

std::optional<Eid> Inventory::findByNumber(std::int32_t veid) const {
    const auto found = std::find_if(environments_.begin(), environments_.end(),
                                    [veid](const Environment& environment) { return environment.veid == veid; });
    return found == environments_.end() ? std::nullopt : std::optional(found->eid);
}

/// Leaves out what cannot be published: a second environment of one identifier, and one too large for a frame.
std::vector<Environment> Inventory::withoutUnfit(std::vector<Environment> containers) {
    std::set<Eid> complaints;
    std::unordered_set<Eid, EidHash> seen{environments_.front().eid};
    seen.reserve(containers.size() + 1);
    std::erase_if(containers, [&](const Environment& environment) {
        if (!seen.insert(environment.eid).second) {
            complain(environment, "another one has its identifier", complaints);
            return true;
        }
        if (wireBytesAtMost(environment) > kMaxEnvironmentBytes) {
            complain(environment, fmt::format("it takes more than {} bytes", kMaxEnvironmentBytes), complaints);
            return true;
        }
        return false;
    });
    complainedOf_ = std::move(complaints);
    return containers;
}

void Inventory::complain(const Environment& environment, const std::string& why, std::set<Eid>& complaints) {
    if (complaints.insert(environment.eid).second && !complainedOf_.contains(environment.eid)) {
        log::warning(fmt::format("left out environment {} \"{}\": {}", environment.eid.toString(),
                                 wire::printable(environment.name), why));
    }
}

Inventory::Changes Inventory::takeOver(std::vector<Environment> containers) {
    Changes changes{std::vector<bool>(environments_.size()), {}, {}};
    changes.present.front() = true;
    for (Environment& environment : containers) {
        const auto known = positions_.find(environment.eid);
        if (known == positions_.end()) {
            changes.added.push_back(std::move(environment));
            continue;
        }
        changes.present[known->second] = true;
        Environment& held = environments_[known->second];
        if (!(held == environment)) {
            held = std::move(environment);
            changes.changed.push_back(known->second);
        }
    }
    return changes;
}

void Inventory::removeGone(const std::vector<bool>& present) {
    std::size_t to = 0;
    for (std::size_t from = 0; from < environments_.size(); ++from) {
        if (!present[from]) {
            positions_.erase(environments_[from].eid);
            continue;
        }
        if (to != from) {
            environments_[to] = std::move(environments_[from]);
            positions_[environments_[to].eid] = to;
        }
        ++to;
    }
    environments_.erase(environments_.begin() + static_cast<std::ptrdiff_t>(to), environments_.end());
}

std::shared_ptr<Snapshot> Inventory::snapshot(bool withDeparted) {
    std::shared_ptr<Snapshot>& known = snapshots_[withDeparted && !departed_.empty() ? 1 : 0];
    if (!known) {
        static const std::vector<Environment> none;
        known = std::make_shared<Snapshot>(generation_, environments_, withDeparted ? departed_ : none);
    }
    return known;
}

/// Those who are still sending one need what is in it.
void Inventory::completeSnapshots() {
    for (std::shared_ptr<Snapshot>& each : snapshots_) {
        if (each && each.use_count() > 1) {
            each->complete();
        }
        each.reset();
    }
}

}  // namespace kx::agent
