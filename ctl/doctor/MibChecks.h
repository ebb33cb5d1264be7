// A look at whether net-snmp's tools know the names of the MIB module. Main thread only.
#pragma once

#include <optional>
#include <string>

#include "ctl/doctor/Finding.h"

namespace kx::ctl {

/// @brief Asks the tool snmptranslate.
Finding examineNames();

/// @return what is to be said of the names of the MIB module, of which the tool snmptranslate was asked for one
/// @param unaided what it says as it is configured; nothing: there is no such tool
/// @param aided what it says when it is told to load the module
Finding mibFinding(const std::optional<std::string>& unaided, const std::optional<std::string>& aided);

}  // namespace kx::ctl
