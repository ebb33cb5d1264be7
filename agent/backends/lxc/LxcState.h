// What liblxc and the kernel's freezer say of a container, turned into what the agent publishes.
//
// LXC's state        published state   transition
// STOPPED            stopped           none
// STARTING           stopped           starting     nothing of the container runs yet
// RUNNING            running           none
// STOPPING           running           stopping     its processes are being ended, or its end is being tidied up
// ABORTING           stopped           aborting     a start that failed is being undone
// FREEZING           running           freezing     some of its processes still run
// FROZEN             frozen            none
// THAWED             frozen            thawing      not yet called running again
// anything else      unknown           none
//
// LXC only knows of a freeze that was ordered through it, the kernel knows of each. So while a container lives
// (RUNNING, FREEZING, FROZEN, THAWED) the kernel's word replaces LXC's. Plain functions, any thread.
#pragma once

#include <string_view>

#include "agent/inventory/Environment.h"

namespace kx::agent::lxc {

/// The two status numbers of a container.
struct Status {
    State state = State::Unknown;
    Transition transition = Transition::None;
    bool operator==(const Status&) const = default;
};

/// @param lxcState a state in LXC's own words, e.g. "RUNNING"; empty when LXC did not answer
Status statusOf(std::string_view lxcState);

/// @return whether a container with that state has an init process that can be frozen
bool isAlive(std::string_view lxcState);

/// What the kernel's freezer does with a container's processes.
enum class Freezer { Unknown, Thawed, Freezing, Frozen };

/// @param text content of cgroup v1's freezer.state (kernel document cgroup-v1/freezer-subsystem)
Freezer freezerOfV1(std::string_view text);

/// @brief Under cgroup v2 what was asked for and what has come of it stand in two files (kernel document cgroup-v2,
/// "Core Interface Files"). What has come of it counts: a frozen ancestor freezes without being asked for here.
/// @param events content of cgroup.events, which has "frozen 0" or "frozen 1"
/// @param freeze content of cgroup.freeze: "1" when the freeze was asked for
Freezer freezerOfV2(std::string_view events, std::string_view freeze);

/// @brief The status of a living container by its freezer.
/// @param byLxc what is returned when the freezer is unknown
Status statusOf(Freezer freezer, Status byLxc);

}  // namespace kx::agent::lxc
