// The container's view of a configuration.
//
// Thread promise: immutable; any thread. Making one and reading the VE id allocate nothing: both happen once
// per row of every request.
#pragma once

#include <string>
#include <vector>

#include <kxa/KXATemplate.h>
#include <kxl/KXLEnvConfig.h>

/// @brief A configuration read as a container's. Getters return 0, or -1 and leave their argument as it is.
class KXAEnvConfig : public KXLEnvConfig {
public:
    explicit KXAEnvConfig(const KXLEnvConfig& config);

    /// @brief The container's number (VE id), any 32-bit value the agent gave it.
    int getVeid(int& veid) const;
    int getOsTemplate(KXLOptionalProperty<KXATemplate>& osTemplate) const;
    int getTemplates(KXLOptionalProperty<std::vector<KXATemplate>>& templates) const;
};
