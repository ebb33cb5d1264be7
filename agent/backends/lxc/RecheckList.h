// Which containers are to be looked at again, at what, and when. Clock passed in; one thread at a time.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kx::agent::lxc {

using Clock = std::chrono::steady_clock;

/// What is to be read again of a container; bits.
enum Need : unsigned {
    kNeedNothing = 0,
    kNeedLook = 1,        ///< what its monitor says
    kNeedFreezer = 2,     ///< its freezer
    kNeedConfig = 4,      ///< its configuration
    kNeedNotes = 8,       ///< its kx.toml
    kNeedFileCheck = 16,  ///< either, where it has changed
    kNeedOs = 32,         ///< its os-release
    kNeedOsCheck = 64,    ///< likewise, where it has changed
    kNeedFiles = kNeedConfig | kNeedNotes | kNeedFileCheck,
};

/// Deadlines of a few containers; the many that rest are not in it.
class RecheckList {
public:
    /// @brief Asks for a look. An earlier one that is still due stays due when it is; what is needed adds up.
    /// @param needs Need bits
    void add(const std::string& name, unsigned needs, Clock::time_point due);

    /// @brief Forgets a container.
    void remove(const std::string& name) { entries_.erase(name); }

    /// @return the earliest deadline; nothing when no look is asked for
    std::optional<Clock::time_point> earliest() const;

    /// @brief Takes out what is due.
    /// @return names with their needs
    std::vector<std::pair<std::string, unsigned>> takeDue(Clock::time_point now);

private:
    struct Entry {
        unsigned needs = kNeedNothing;
        Clock::time_point due;
    };
    std::map<std::string, Entry> entries_;
};

}  // namespace kx::agent::lxc
