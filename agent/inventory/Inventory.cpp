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

/// Fills deltas, beginning a new one whenever a frame is full, and keeps a list of what is in them.
class DeltaWriter {
public:
    DeltaWriter(std::uint64_t& generation, std::vector<EnvironmentChange>* changes)
        : generation_(generation), changes_(changes) {}

    void remove(const Environment& environment) {
        makeRoom(kRemovedBytes);
        frame_.mutable_delta()->add_removed_eids(environment.eid.toWire());
        note(environment, ChangeKind::Removed);
    }

    /// @param kind Added or Modified, which are the same in a delta
    void change(const Environment& environment, ChangeKind kind) {
        makeRoom(wireBytesAtMost(environment));
        toWire(environment, *frame_.mutable_delta()->add_changed());
        note(environment, kind);
    }

    std::vector<FrameBody> finish() {
        flush();
        return std::move(bodies_);
    }

private:
    void note(const Environment& environment, ChangeKind kind) {
        if (changes_ != nullptr) {
            changes_->push_back({environment.eid, kind, environment.name, environment.state, environment.transition});
        }
    }

    void makeRoom(std::size_t bytes) {
        if (bytes_ + bytes > Inventory::kFrameBytes) {
            flush();
        }
        bytes_ += bytes;
    }

    void flush() {
        if (!frame_.has_delta()) {
            return;
        }
        frame_.mutable_delta()->set_generation(++generation_);
        bodies_.push_back(encodeBody(frame_));
        frame_.Clear();
        bytes_ = 0;
    }

    std::uint64_t& generation_;
    std::vector<EnvironmentChange>* changes_;
    wire::Frame frame_;
    std::size_t bytes_ = 0;
    std::vector<FrameBody> bodies_;
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

std::vector<FrameBody> Inventory::apply(std::vector<Environment> containers, std::vector<EnvironmentChange>* told) {
    Changes changes = takeOver(withoutUnfit(std::move(containers)));
    DeltaWriter writer(generation_, told);
    for (std::size_t i = 0; i < environments_.size(); ++i) {
        if (!changes.present[i]) {
            writer.remove(environments_[i]);
        }
    }
    for (const std::size_t position : changes.changed) {
        writer.change(environments_[position], ChangeKind::Modified);
    }
    removeGone(changes.present);
    for (Environment& environment : changes.added) {
        writer.change(environment, ChangeKind::Added);
        positions_.emplace(environment.eid, environments_.size());
        environments_.push_back(std::move(environment));
    }
    std::vector<FrameBody> deltas = writer.finish();
    if (!deltas.empty()) {
        chunks_.clear();
    }
    return deltas;
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

std::vector<FrameBody> Inventory::snapshot() {
    if (chunks_.empty()) {
        cutIntoChunks();
    }
    std::vector<FrameBody> bodies;
    bodies.reserve(chunks_.size());
    for (std::uint32_t i = 0; i < chunks_.size(); ++i) {
        FrameBody body = chunks_[i].body.lock();
        if (!body) {
            body = encodeChunk(i);
            chunks_[i].body = body;
        }
        bodies.push_back(std::move(body));
    }
    return bodies;
}

void Inventory::cutIntoChunks() {
    std::size_t bytes = 0;
    for (std::size_t i = 0; i < environments_.size(); ++i) {
        const std::size_t more = wireBytesAtMost(environments_[i]);
        const bool full = !chunks_.empty() &&
                          (bytes + more > kFrameBytes || i - chunks_.back().first == wire::kMaxEnvironmentsPerChunk);
        if (chunks_.empty() || full) {
            chunks_.push_back({i, i, {}});
            bytes = 0;
        }
        chunks_.back().end = i + 1;
        bytes += more;
    }
}

FrameBody Inventory::encodeChunk(std::uint32_t number) const {
    wire::Frame frame;
    wire::SnapshotChunk& chunk = *frame.mutable_snapshot_chunk();
    chunk.set_generation(generation_);
    chunk.set_index(number);
    chunk.set_last(number + 1 == chunks_.size());
    for (std::size_t i = chunks_[number].first; i < chunks_[number].end; ++i) {
        toWire(environments_[i], *chunk.add_environments());
    }
    return encodeBody(frame);
}

}  // namespace kx::agent
