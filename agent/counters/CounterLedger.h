// What makes samples of readings: it remembers what each counter showed before.
//
// An increase is told as what has been added since it was last told to the same client, so a client that adds up what
// it gets has what the counter shows, whenever it connected and however often it asks. A level is told as it is, with
// mean and maximum since the reading before.
//
// Clock passed in with the readings; one thread at a time.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/counters/CounterImage.h"
#include "agent/inventory/Numbers.h"
#include "agent/vocabulary/Vocabulary.h"

namespace kx::agent {

/// One counter as it is told.
struct CounterSampleValues {
    std::int64_t first = 0;   ///< a level: now; an increase: the rate now, a second
    std::int64_t second = 0;  ///< a level: the mean; an increase: the mean rate since it was last told
    std::int64_t third = 0;   ///< a level: the maximum; an increase: what was added
    bool operator==(const CounterSampleValues&) const = default;
};

/// Which containers and classes a report is about.
struct CounterScope {
    std::set<std::string> classes;
    std::vector<Eid> eids;  ///< in order; empty: all

    bool covers(const Eid& eid) const { return eids.empty() || std::binary_search(eids.begin(), eids.end(), eid); }
};

/// Which counters are increases.
class CounterKinds {
public:
    CounterKinds() = default;
    /// @param vocabularies the categories of the one that describes the counters say it by "counter_type"
    explicit CounterKinds(const std::vector<Vocabulary>& vocabularies);

    /// @return for each name whether it is an increase; what the vocabulary does not know is a level
    std::vector<bool> increases(const std::string& className, const std::vector<std::string>& names) const;

private:
    std::set<std::pair<std::string, std::string>> increases_;  ///< class and counter
};

/// What all counters showed at a reading, by class, container and instance.
class CounterMemory {
public:
    struct Shown {
        CounterNames names;
        std::vector<std::int64_t> values;
        std::chrono::steady_clock::time_point at;
        bool isOthers = false;  ///< it is what another container showed under the same number

        /// @return what a counter showed; null when it was not there
        const std::int64_t* find(const CounterNames& in, std::size_t position) const;
    };

    /// @return null when the row was not there
    const Shown* find(const std::string& className, const CounterRow& row) const;
    void put(const std::string& className, const CounterNames& names, const CounterRow& row,
             std::chrono::steady_clock::time_point at);

    /// @brief Containers have other numbers. Who adds increases up under the number has what the former owner showed
    /// under it, so the next increase of the new owner is told from there; under a number that was nobody's, from its
    /// start.
    void renumber(const std::vector<Renumbered>& renumbered);

    /// @brief Forgets the rows of some classes that were not put since the last call, of the containers in scope.
    void forgetOthers(const CounterScope& scope);
    /// @brief Forgets all of the containers in scope that had no row put since the last call, and begins a new turn.
    void endTurn(const CounterScope& scope);

private:
    struct Entry {
        Shown shown;
        std::uint64_t turn = 0;
    };
    using Rows = std::map<std::pair<std::string, std::string>, Entry>;  ///< by class and instance
    struct Container {
        Rows rows;
        std::uint64_t turn = 0;
    };

    std::unordered_map<Eid, Container, EidHash> containers_;
    std::uint64_t turn_ = 1;
};

/// @brief Makes the three numbers of every counter of a row.
/// @param before what the row showed at the reading before; null: nothing
/// @param told what it showed when it was last told to the client; null: it never was
std::vector<CounterSampleValues> sampleOf(const CounterRow& row, const CounterNames& names,
                                          const std::vector<bool>& increases, std::chrono::steady_clock::time_point now,
                                          const CounterMemory::Shown* before, const CounterMemory::Shown* told);

}  // namespace kx::agent
