#include "client/src/cache/EnvFeed.h"

#include <unordered_set>
#include <utility>

#include "client/src/cache/EnvDecoder.h"
#include "client/src/values/EnvRecord.h"
#include "client/src/values/Limits.h"

namespace kx::client {

namespace {

using EnvPtr = KXLEnvCache::EnvPtr;

/// What an environment takes in a second list.
constexpr std::size_t kSharedBytes = 80;

std::size_t bytesOf(const EnvPtr& environment) {
    return EnvRecord::of(*environment).bytes();
}

std::size_t bytesOf(const EnvStoragePtr& storage) {
    std::size_t bytes = 0;
    if (storage) {
        for (const EnvPtr& environment : storage->environments) {
            bytes += bytesOf(environment);
        }
        for (const auto& [eid, environment] : storage->index->departed) {
            bytes += bytesOf(environment);
        }
    }
    return bytes;
}

void fillPositions(EnvIndex& index, const std::vector<EnvPtr>& environments) {
    index.positions.reserve(environments.size());
    for (std::size_t i = 0; i < environments.size(); ++i) {
        index.positions.emplace(environments[i]->getEID(), i);
    }
}

/// The list that follows another one by a delta.
class NextList {
public:
    explicit NextList(const EnvStorage& before)
        : before_(before), next_(new EnvStorage), departed_(before.index->departed) {
        next_->environments = before.environments;
    }

    /// A delta that names a new environment twice does not list it twice.
    void put(EnvPtr environment) {
        const KXLEID eid = environment->getEID();
        isOther_ = departed_.erase(eid) != 0 || isOther_;
        gone_.erase(eid);
        const auto known = before_.index->positions.find(eid);
        if (known != before_.index->positions.end()) {
            next_->environments[known->second] = std::move(environment);
            return;
        }
        const auto [entry, isNew] = added_.emplace(eid, next_->environments.size());
        if (isNew) {
            next_->environments.push_back(std::move(environment));
            isOther_ = true;
        } else {
            next_->environments[entry->second] = std::move(environment);
        }
    }

    void depart(EnvPtr environment) {
        const KXLEID eid = environment->getEID();
        gone_.insert(eid);
        departed_[eid] = std::move(environment);
    }

    void remove(const KXLEID& eid) {
        gone_.insert(eid);
        departed_.erase(eid);
    }

    /// @return the list; shares its index with the one before where it has the same environments
    boost::intrusive_ptr<EnvStorage> finish() {
        if (gone_.empty() && !isOther_) {
            next_->index = before_.index;
            return next_;
        }
        std::erase_if(next_->environments, [this](const EnvPtr& env) { return gone_.contains(env->getEID()); });
        auto index = std::make_shared<EnvIndex>();
        index->departed = std::move(departed_);
        fillPositions(*index, next_->environments);
        next_->index = std::move(index);
        return next_;
    }

private:
    const EnvStorage& before_;
    const boost::intrusive_ptr<EnvStorage> next_;
    std::unordered_map<KXLEID, EnvPtr, GuidHash> departed_;
    std::unordered_map<KXLEID, std::size_t, GuidHash> added_;
    std::unordered_set<KXLEID, GuidHash> gone_;
    bool isOther_ = false;
};

}  // namespace

EnvFeed::EnvFeed(EnvStoragePtr shown) : shown_(std::move(shown)), shownBytes_(bytesOf(shown_)) {}

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

bool EnvFeed::fits(const wire::SnapshotChunk& chunk) {
    const auto size = static_cast<std::size_t>(chunk.environments_size());
    if (!awaitingSnapshot_) {
        malformed("a snapshot chunk that was not asked for");
    } else if (!isNextChunk(chunk)) {
        malformed("a snapshot chunk out of order");
    } else if (size > wire::kMaxEnvironmentsPerChunk) {
        malformed("a snapshot chunk with too many environments");
    } else if (size == 0 && !chunk.last()) {
        malformed("an empty snapshot chunk that is not the last");
    } else if (incoming_ && incoming_->environments.size() + size > kMaxEnvironments) {
        malformed("a snapshot with too many environments");
    } else {
        return true;
    }
    return false;
}

// An agent that is back sends what it sent before: without this a large host would be held twice meanwhile.
EnvPtr EnvFeed::takeShared(EnvPtr environment) {
    if (shown_) {
        const auto known = shown_->index->positions.find(environment->getEID());
        if (known != shown_->index->positions.end()) {
            const EnvPtr& earlier = shown_->environments[known->second];
            if (EnvRecord::of(*earlier).equals(EnvRecord::of(*environment))) {
                incomingBytes_ += kSharedBytes;
                return earlier;
            }
        }
    }
    incomingBytes_ += bytesOf(environment);
    return environment;
}

bool EnvFeed::append(const wire::SnapshotChunk& chunk) {
    for (const wire::Environment& from : chunk.environments()) {
        auto environment = decodeEnvironment(from, reason_);
        if (!environment) {
            return false;
        }
        environment = takeShared(std::move(environment));
        if (shownBytes_ + incomingBytes_ > kMaxEnvironmentBytes) {
            malformed("a snapshot that would take too much memory");
            return false;
        }
        if (from.departed()) {
            incomingIndex_->departed[environment->getEID()] = std::move(environment);
        } else {
            incoming_->environments.push_back(std::move(environment));
        }
    }
    return true;
}

EnvFeed::Outcome EnvFeed::take(const wire::SnapshotChunk& chunk) {
    if (!fits(chunk)) {
        return Outcome::Malformed;
    }
    if (!incoming_) {
        incoming_ = new EnvStorage;
        incomingIndex_ = std::make_shared<EnvIndex>();
        incomingBytes_ = 0;
        incomingGeneration_ = chunk.generation();
        nextIndex_ = 0;
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
    fillPositions(*incomingIndex_, incoming_->environments);
    incoming_->index = std::move(incomingIndex_);
    current_ = incoming_;
    incoming_.reset();
    shown_ = current_;
    shownBytes_ = bytesOf(shown_);
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
    NextList next(*current_);
    std::size_t bytes = shownBytes_;
    for (const wire::Environment& from : delta.changed()) {
        auto environment = decodeEnvironment(from, reason_);
        if (!environment) {
            return Outcome::Malformed;
        }
        bytes += bytesOf(environment);
        from.departed() ? next.depart(std::move(environment)) : next.put(std::move(environment));
    }
    for (const std::string& identifier : delta.removed_eids()) {
        KXLEID eid;
        if (!decodeEid(identifier, eid)) {
            return malformed("a delta removes an identifier that is not 16 bytes long");
        }
        next.remove(eid);
    }
    if (bytes > kMaxEnvironmentBytes) {
        return malformed("a delta that would take too much memory");
    }
    const auto list = next.finish();
    if (list->environments.size() > kMaxEnvironments) {
        return malformed("too many environments");
    }
    current_ = list;
    shown_ = current_;
    shownBytes_ = bytesOf(shown_);
    generation_ = delta.generation();
    return Outcome::Updated;
}

}  // namespace kx::client
