// kxctl doctor: looks for what keeps the containers from being seen. Main thread only.
#pragma once

#include <string>

#include "ctl/Selection.h"
#include "ctl/doctor/SnmpChecks.h"

namespace kx::ctl {

/// The options as they were typed.
struct DoctorArguments {
    SnmpPlaces places;
    std::string lxcFolder = "/var/lib/lxc";
    bool json = false;
};

/// @return Refused when something does not work
/// @throws Failure of wrong usage
ExitCode runDoctor(const DoctorArguments& typed, const CommonOptions& common);

}  // namespace kx::ctl
