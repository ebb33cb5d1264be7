// What the library keeps of one environment. Immutable once made, shared by every view of it.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include <kxl/KXLEnv.h>
#include <kxl/KXLRefCounter.h>

namespace kx::client {

/// @brief What is asked for in every row is at hand; the rest stays as it came, a fifth of the size, and is decoded
/// when it is copied out. A host may have a hundred thousand of these.
struct EnvRecord : KXLRefCounter {
    KXLEID eid;
    std::string type;
    KXLEnvStatus status{};
    boost::shared_ptr<const KXLEnvCoreBasic> core;
    std::optional<std::int32_t> veid;
    std::string details;  ///< an encoded wire::Configuration without its name

    /// @return whether it says the same
    bool equals(const EnvRecord& other) const;
    /// @return what it takes in a list, with its place there, in bytes
    std::size_t bytes() const;

    static const EnvRecord& of(const KXLEnv& environment) { return *environment.record_; }
};

}  // namespace kx::client
