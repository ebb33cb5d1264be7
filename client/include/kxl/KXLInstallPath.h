// Where the agent is installed.
#pragma once

/// @brief The path of a file below the agent's install folder, /opt/orma/agent. Any thread.
/// @param name the file's name, not null; an empty name gives the folder itself
/// @param absolute true: the whole path; false: relative to the install folder
/// @return the path, valid for the life of the process; null when the name is null
const char* getAgentInstallPathHard(const char* name, bool absolute);
