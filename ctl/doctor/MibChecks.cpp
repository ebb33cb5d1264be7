#include "ctl/doctor/MibChecks.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "ctl/Printable.h"
#include "ctl/doctor/SnmpTools.h"

namespace kx::ctl {
namespace {

constexpr const char* kModule = "CORVANE-MIB";
constexpr const char* kNamedObject = "kxServerEid";
constexpr const char* kBaseModules = "/usr/share/kxsnmp/mibs";  // of the package kxsnmp
constexpr const char* kItsNumber = ".1.3.6.1.4.1.53864.1.1.1";

/// Names that are not qualified are known when the module is loaded, not as soon as it could be.
std::optional<std::string> askForNumber(const std::vector<std::string>& options) {
    std::vector<std::string> command{"snmptranslate", "-IR", "-On"};
    command.insert(command.end(), options.begin(), options.end());
    command.emplace_back(kNamedObject);
    return outputOf(command, kToolDeadline);
}

bool isTranslated(const std::string& said) {
    return lineWith(said, kItsNumber) == kItsNumber;
}

/// @return the modules that net-snmp has not found, each once, separated by commas
std::string missingModules(const std::string& said) {
    const std::string words = "Cannot find module (";
    std::vector<std::string> names;
    for (std::size_t at = said.find(words); at != std::string::npos; at = said.find(words, at + 1)) {
        const std::size_t from = at + words.size();
        const std::string name = said.substr(from, said.find(')', from) - from);
        if (std::find(names.begin(), names.end(), name) == names.end()) {
            names.push_back(name);
        }
    }
    return printable(fmt::format("{}", fmt::join(names, ", ")));
}

/// The environment's MIBS goes before snmp.conf.
Finding notLoadedFinding() {
    const std::string place =
        std::getenv("MIBS") == nullptr
            ? fmt::format("let /etc/snmp/snmp.conf say \"mibs SNMPv2-MIB:{}\" instead of \"mibs :\"", kModule)
            : fmt::format("name {} in MIBS, which the environment has", kModule);
    return {Verdict::Warn, "mib",
            fmt::format("net-snmp's tools can read {}, but do not load it by themselves", kModule),
            fmt::format("{}; for one command, -m {} does", place, kModule)};
}

Finding absentModuleFinding(const std::string& said) {
    const std::string words = "MIB search path: ";
    const std::string line = lineWith(said, words);
    const std::string path = printable(line.substr(std::min(line.size(), words.size())));
    return {Verdict::Warn, "mib", fmt::format("net-snmp's tools do not find {} in {}", kModule, path),
            fmt::format("copy {}.txt to one of these folders, or name its folder in MIBDIRS; the package kxsnmp puts "
                        "it into /usr/share/snmp/mibs",
                        kModule)};
}

Finding unreadableModuleFinding(const std::string& said) {
    const std::string missing = missingModules(said);
    if (missing == kModule) {
        return absentModuleFinding(said);
    }
    if (!missing.empty()) {
        return {
            Verdict::Warn, "mib", fmt::format("{} stands on modules that are missing: {}", kModule, missing),
            fmt::format("let /etc/snmp/snmp.conf say \"mibdirs -{0}\"; for one command, -M -{0} does", kBaseModules)};
    }
    return {Verdict::Warn, "mib",
            fmt::format("net-snmp's tools do not know {}: {}", kModule, printable(lastLine(said))),
            fmt::format("see what is wrong: snmptranslate -m {} -IR {}", kModule, kNamedObject)};
}

}  // namespace

Finding mibFinding(const std::optional<std::string>& unaided, const std::optional<std::string>& aided) {
    if (!unaided || !aided) {
        return {Verdict::Warn, "mib", "cannot be told: there is no snmptranslate", kGetTools};
    }
    if (isTranslated(*unaided)) {
        return {Verdict::Ok, "mib", fmt::format("net-snmp's tools know the names of {}", kModule), ""};
    }
    return isTranslated(*aided) ? notLoadedFinding() : unreadableModuleFinding(*aided);
}

Finding examineNames() {
    const auto unaided = askForNumber({});
    const bool isEnough = !unaided || isTranslated(*unaided);
    return mibFinding(unaided, isEnough ? unaided : askForNumber({"-m", kModule}));
}

}  // namespace kx::ctl
