#include "agent/backends/lxc/LimitKills.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace kx::agent::lxc {
namespace {

bool isAbove(const std::string& folder, const std::set<std::string>& containers) {
    const auto below = containers.lower_bound(folder + "/");
    return below != containers.end() && below->compare(0, folder.size() + 1, folder + "/") == 0;
}

/// A count that has become smaller is that of a new cgroup under an old name.
std::uint64_t growth(std::uint64_t now, std::uint64_t before) {
    return now >= before ? now - before : now;
}

}  // namespace

LimitKills::LimitKills(ResourceFolder root) : root_(std::move(root)) {
    takeNew({});
}

std::uint64_t LimitKills::takeNew(const std::set<std::string>& containers) {
    Known present;
    std::uint64_t kills = 0;
    std::vector<Place> places;
    const auto addInner = [&](const Place& above) {
        for (std::string& folder : innerCgroups(above.folder)) {
            if (places.size() < kMaxFolders && containers.count(folder) == 0) {
                places.push_back({std::move(folder), above.limited});
            }
        }
    };
    addInner({root_.path, false});
    for (std::size_t next = 0; next < places.size(); ++next) {
        // Under v2 a cgroup counts for all below it, where containers would be counted twice.
        const bool counts = !root_.v2 || !isAbove(places[next].folder, containers);
        Place place = places[next];
        kills += counts ? take(place, present) : 0;
        if (!root_.v2 || !counts) {
            addInner(place);
        }
    }
    known_ = std::move(present);
    return kills;
}

/// @return kills for a limit's sake since the last survey
std::uint64_t LimitKills::take(Place& place, Known& present) const {
    const ResourceFolder folder{place.folder, root_.v2};
    const Counts now{readKills(folder).value_or(0), root_.v2 ? readLimitOoms(folder).value_or(0) : 0};
    present[place.folder] = now;
    const auto known = known_.find(place.folder);
    const Counts before = known == known_.end() ? Counts() : known->second;
    const std::uint64_t kills = growth(now.kills, before.kills);
    if (root_.v2) {
        const std::uint64_t hits = growth(now.hits, before.hits);
        // One hit may kill a whole cgroup (memory.oom.group).
        return hits > 0 && readGroupKills(folder).value_or(0) > 0 ? kills : std::min(kills, hits);
    }
    place.limited = place.limited || (readMemoryLimit(folder) && readMemoryHits(folder).value_or(0) > 0);
    return place.limited ? kills : 0;
}

}  // namespace kx::agent::lxc
