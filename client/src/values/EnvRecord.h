// What the library keeps of one environment. Immutable once made, shared by every view of it.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <kxa/KXATemplate.h>
#include <kxl/KXLEnv.h>
#include <kxl/KXLRefCounter.h>

namespace kx::client {

struct EnvRecord : KXLRefCounter {
    KXLEID eid;
    std::string type;
    KXLEnvStatus status{};
    boost::shared_ptr<const KXLEnvCoreBasic> core;
    std::optional<std::int32_t> veid;
    std::optional<std::string> hostname;
    std::optional<std::string> description;
    std::optional<KXATemplate> osTemplate;
    std::optional<KXLGUID> baseSample;
    std::optional<std::vector<KXLIPAddress>> addresses;
    std::optional<std::vector<KXLInet6Address>> inet6Addresses;
    std::optional<std::vector<KXATemplate>> templates;
};

}  // namespace kx::client
