// One environment: a container, or the host itself.
//
// Thread promise: immutable once made; held by shared pointers to const, so a reader keeps the environment as
// it was even when the agent has since changed or removed it.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <cstdint>
#include <string>

#include <kxl/KXLEnvConfig.h>
#include <kxl/KXLGUID.h>

/// @brief The state of an environment in two numbers whose meaning is the agent's.
struct KXLEnvStatus {
    std::int32_t state;       ///< 0 unknown, 1 stopped, 2 running, 3 frozen
    std::int32_t transition;  ///< 0 none, 1 starting, 2 stopping, 3 freezing, 4 thawing, 5 aborting
};

/// @brief An environment as the agent last described it.
class KXLEnv {
public:
    explicit KXLEnv(boost::intrusive_ptr<const kx::client::EnvRecord> record);
    virtual ~KXLEnv();

    const KXLEID& getEID() const;
    /// @return the type text, e.g. "lumetra" for a container
    const std::string& getType() const;
    /// @return the status, never null; valid as long as the environment
    const KXLEnvStatus* getStatus() const;
    virtual const KXLEnvConfig& getConfig() const;

private:
    friend struct kx::client::EnvRecord;

    KXLEnv(const KXLEnv&) = delete;
    KXLEnv& operator=(const KXLEnv&) = delete;

    boost::intrusive_ptr<const kx::client::EnvRecord> record_;
    KXLEnvConfig config_;
};
