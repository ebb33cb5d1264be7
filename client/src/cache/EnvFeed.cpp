#include "client/src/cache/EnvFeed.h"

#include <unordered_set>

#include "client/src/cache/EnvDecoder.h"

namespace kx::client {

namespace {

std::shared_ptr<const EnvIndex> makeIndex(const std::vector<KXLEnvCache::EnvPtr>& environments) {
    auto index = std::make_shared<EnvIndex>();
    index->positions.reserve(environments.size());
    for (std::size_t i = 0; i < environments.size(); ++i) {
        index->positions.emplace(environments[i]->getEID(), i);
    }
    return index;
}

}  // namespace

void EnvFeed::expectSnapshot() {
    awaitingSnapshot_ = true;
    incoming_.reset();
}

EnvFeed::Outcome EnvFeed::malformed(const char* reason) {
    reason_ = reason;
    return Outcome::Malformed;
}

bool EnvFeed::isNextChunk(const wire::SnapshotChunk& chunk) const {
    return incoming_ ? chunk.index() == nextIndex_ && chunk.generation() == incomingGeneration_ : chunk.index() == 0;
}

bool EnvFeed::append(const wire::SnapshotChunk& chunk) {
    for (const wire::Environment& from : chunk.environments()) {
        auto environment = decodeEnvironment(from, reason_);
        if (!environment) {
            return false;
        }
        incoming_->environments.push_back(std::move(environment));
    }
    return true;
}

EnvFeed::Outcome EnvFeed::take(const wire::SnapshotChunk& chunk) {
    if (!awaitingSnapshot_) {
        return malformed("a snapshot chunk that was not asked for");
    }
    if (!isNextChunk(chunk)) {
        return malformed("a snapshot chunk out of order");
    }
    if (static_cast<std::size_t>(chunk.environments_size()) > wire::kMaxEnvironmentsPerChunk) {
        return malformed("a snapshot chunk with too many environments");
    }
    if (!incoming_) {
        incoming_ = new EnvStorage;
        incomingGeneration_ = chunk.generation();
        nextIndex_ = 0;
    }
    if (incoming_->environments.size() + static_cast<std::size_t>(chunk.environments_size()) > kMaxEnvironments) {
        return malformed("a snapshot with too many environments");
    }
    if (!append(chunk)) {
        return Outcome::Malformed;
    }
    ++nextIndex_;
    if (!chunk.last()) {
        return Outcome::Pending;
    }
    finishSnapshot();
    return Outcome::Updated;
}

void EnvFeed::finishSnapshot() {
    incoming_->environments.shrink_to_fit();
    incoming_->index = makeIndex(incoming_->environments);
    current_ = incoming_;
    incoming_.reset();
    generation_ = incomingGeneration_;
    awaitingSnapshot_ = false;
}

EnvFeed::Outcome EnvFeed::take(const wire::Delta& delta) {
    // A snapshot asked for after a gap is of a later generation than any delta sent before it.
    if (awaitingSnapshot_ || delta.generation() <= generation_) {
        return Outcome::Ignored;
    }
    if (delta.generation() != generation_ + 1) {
        return Outcome::Gap;
    }
    const boost::intrusive_ptr<EnvStorage> next(new EnvStorage);
    next->environments = current_->environments;
    bool membershipChanged = false;
    if (!replaceChanged(delta, *next, membershipChanged)) {
        return Outcome::Malformed;
    }
    if (!removeGone(delta, *next, membershipChanged)) {
        return malformed("a delta removes an identifier that is not 16 bytes long");
    }
    if (next->environments.size() > kMaxEnvironments) {
        return malformed("too many environments");
    }
    next->index = membershipChanged ? makeIndex(next->environments) : current_->index;
    current_ = next;
    generation_ = delta.generation();
    return Outcome::Updated;
}

bool EnvFeed::replaceChanged(const wire::Delta& delta, EnvStorage& next, bool& membershipChanged) {
    const auto& positions = current_->index->positions;
    // A delta that names a new environment twice would otherwise list it twice.
    std::unordered_map<KXLEID, std::size_t, GuidHash> added;
    for (const wire::Environment& from : delta.changed()) {
        auto environment = decodeEnvironment(from, reason_);
        if (!environment) {
            return false;
        }
        const auto known = positions.find(environment->getEID());
        if (known != positions.end()) {
            next.environments[known->second] = std::move(environment);
            continue;
        }
        const auto [entry, isNew] = added.emplace(environment->getEID(), next.environments.size());
        if (isNew) {
            next.environments.push_back(std::move(environment));
            membershipChanged = true;
        } else {
            next.environments[entry->second] = std::move(environment);
        }
    }
    return true;
}

bool EnvFeed::removeGone(const wire::Delta& delta, EnvStorage& next, bool& membershipChanged) {
    std::unordered_set<KXLEID, GuidHash> gone;
    for (const std::string& bytes : delta.removed_eids()) {
        KXLEID eid;
        if (!decodeEid(bytes, eid)) {
            return false;
        }
        gone.insert(eid);
    }
    if (!gone.empty()) {
        std::erase_if(next.environments,
                      [&gone](const KXLEnvCache::EnvPtr& env) { return gone.contains(env->getEID()); });
        membershipChanged = true;
    }
    return true;
}

}  // namespace kx::client
