// What an operator calls the environment that an event is about. Main thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <kxl/KXLEnvCache.h>
#include <kxl/KXLEvent.h>

namespace kx::ctl {

/// An environment as it is shown. What is not known is absent.
struct ContainerName {
    KXLEID eid;
    bool isHost = false;
    std::optional<std::int32_t> veid;
    std::optional<std::string> name;  ///< any bytes
};

/// @brief Finds names in the environment cache. It keeps those it has seen, for the events that say that an environment
/// is gone: the cache does not have it any more.
class ContainerNames {
public:
    /// @param cache the agent's environments
    /// @param host tells the identifier of the host itself, which may change when the agent starts again
    ContainerNames(boost::intrusive_ptr<KXLEnvCache> cache, std::function<KXLEID()> host);

    /// @brief Remembers all that the cache has now, and nothing else.
    void learnAll();

    /// @brief Whether the cache has the last environment that these events say was added. They and the cache come over
    /// two connections, so a message may be here before the cache is.
    bool hasLastAddedOf(const std::vector<KXLEvent>& events) const;

    /// @return the environment that the event is about; nothing when it is about none
    std::optional<ContainerName> of(const KXLEvent& event);

private:
    ContainerName find(const KXLEID& eid) const;
    ContainerName ofChange(const KXLEnvironmentChangeData& change);

    boost::intrusive_ptr<KXLEnvCache> cache_;
    std::function<KXLEID()> host_;
    std::map<KXLEID, ContainerName> seen_;
};

}  // namespace kx::ctl
