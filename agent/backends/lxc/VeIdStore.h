// The VE ids of containers, remembered across restarts.
//
// A container whose name is a decimal number has that number. Any other is given the next free one from 1,000,000 up,
// once: it keeps it while it is stopped, while it does not exist, and when the agent restarts, because managers file
// what they learn under the id. One thread at a time.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/backends/lxc/LogSink.h"

namespace kx::agent::lxc {

/// The first id given to a container whose name is not a number; below it are the ids that people choose.
inline constexpr std::int32_t kFirstGivenVeId = 1'000'000;

/// @param name a container's name
/// @return the id the name stands for: 1..2147483647, without sign and leading zero; else nothing
std::optional<std::int32_t> veIdInName(std::string_view name);

/// Gives ids and remembers them in `veids.toml`.
class VeIdStore {
public:
    /// @brief Reads what is remembered. A missing folder or file means that nothing is. A file that is damaged is
    /// set aside under another name, with an error in the log; one that cannot be read or set aside is never
    /// written over: ids are then given for this run only.
    /// @param folder the state directory; made when the first id is remembered
    /// @param log gets what goes wrong, each thing once until it changes
    VeIdStore(std::string folder, LogSink log);

    /// @brief The ids of the containers that exist now. New ones are written to the disk before this returns.
    /// A number claimed by a container's name is taken from a container it had been given to before, which
    /// gets a new one, with one warning.
    /// @param names all existing containers, each once, in any order: with the whole list at hand no id is
    /// given that another container's name claims
    /// @return an id for each name; a name is left out only when all ids are used up
    std::map<std::string, std::int32_t> assign(const std::vector<std::string>& names);

    /// @return whether something is remembered in memory only; assign() tries to write it again
    bool hasUnsaved() const { return unsaved_ && mayWrite_; }

    /// @return the file the ids are kept in
    const std::string& file() const { return file_; }

private:
    void load();
    void setAside(const std::string& reason);
    void yieldClaimed(const std::map<std::int32_t, std::string>& claimed);
    std::optional<std::int32_t> nextFree(const std::map<std::int32_t, std::string>& claimed) const;
    std::optional<std::int32_t> give(const std::string& name, const std::map<std::int32_t, std::string>& claimed);
    void save();
    std::string write(const std::string& text);
    std::string fileText() const;

    std::string folder_;
    std::string file_;
    LogSink log_;
    std::map<std::string, std::int32_t> idOfName_;
    std::map<std::int32_t, std::string> nameOfId_;
    bool mayWrite_ = true;     ///< false: the file holds what could not be read and must survive
    bool unsaved_ = false;     ///< something is remembered in memory only; tried again at every assign()
    std::string lastProblem_;  ///< last failure to write, to log it on change only
};

}  // namespace kx::agent::lxc
