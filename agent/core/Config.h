// The agent's configuration: what the file says, over the defaults.
//
// Plain values, any thread. Reading throws ConfigError; Main.cpp and Agent.cpp are the places that catch it.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "agent/alerts/AlertLimits.h"

namespace kx::agent {

/// Where the configuration is looked for when the command line names no file. It need not exist.
inline constexpr const char* kDefaultConfigFile = "/etc/kxagent/kxagentd.toml";

/// Which backend to use. Auto: real containers where there are any, see chooseBackend().
enum class BackendKind { Auto, Lxc, Simulated };

/// All settings, with their defaults. Paths are absolute.
struct Config {
    std::string socket = "/var/opt/orma/agent/agent.sock";  ///< the path that clients have built in
    std::string stateDirectory = "/var/lib/kxagent";
    BackendKind backend = BackendKind::Auto;
    std::string lxcPath = "/var/lib/lxc";  ///< loadConfig()'s default is systemLxcPath()
    std::string inventory = "/etc/kxagent/inventory.toml";
    double periodScale = 1.0;  ///< a requested reporting period is multiplied by this; above 0, at most 1000
    AlertLimits alerts;

    bool operator==(const Config&) const = default;
};

/// The file is missing, unreadable or wrong; what() names it, with line and column where the text is wrong.
class ConfigError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// @brief Takes a configuration's text. An unknown key is an error: it is most often a misspelt one, and silence
/// would leave its default in force.
/// @param text TOML
/// @param fileName as it is named in errors
/// @param config what holds where the text sets nothing
/// @throws ConfigError "FILE:LINE:COL: what is wrong"
Config parseConfig(std::string_view text, const std::string& fileName, Config config = {});

/// @brief Where LXC's own tools look for containers.
/// @param file LXC's system-wide configuration (lxc.system.conf(5))
/// @return its `lxc.lxcpath`; "/var/lib/lxc" where it has none that is an absolute path, or cannot be read
std::string systemLxcPath(const std::string& file = "/etc/lxc/lxc.conf");

/// @brief Reads the configuration.
/// @param path the file
/// @param mustExist false: a file that is not there means the defaults
/// @throws ConfigError
Config loadConfig(const std::string& path, bool mustExist);

}  // namespace kx::agent
