// An environment's configuration, as the agent last sent it.
//
// Thread promise: immutable. Copies share one counted record, so a copy costs one atomic increment. The core record,
// the type and the VE id are at hand; what getters copy out besides is decoded for it.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <boost/shared_ptr.hpp>
#include <string>
#include <vector>

#include <kxa/KXATemplate.h>
#include <kxl/KXLGUID.h>
#include <kxl/KXLIPAddress.h>
#include <kxl/KXLOptionalProperty.h>

namespace kx::client {
struct EnvRecord;
// Declared here because the record itself is the library's own business.
void intrusive_ptr_add_ref(const EnvRecord* record);
void intrusive_ptr_release(const EnvRecord* record);
}  // namespace kx::client

/// @brief The basic core record of a configuration: its text is the container's name.
class KXLEnvCoreBasic {
public:
    explicit KXLEnvCoreBasic(std::string text) : text_(std::move(text)) {}

    /// @return the text, NUL-terminated; never null
    const char* getText() const { return text_.c_str(); }

    /// @return bytes of the text, also behind a NUL
    std::size_t size() const { return text_.size(); }
    bool equals(const KXLEnvCoreBasic& other) const { return text_ == other.text_; }

private:
    std::string text_;
};

/// @brief What every environment's configuration has. Getters return 0 and fill the property, or return -1 and
/// leave it as it is when the configuration does not have it.
class KXLEnvConfig {
public:
    /// A configuration that has nothing.
    KXLEnvConfig() = default;
    explicit KXLEnvConfig(boost::intrusive_ptr<const kx::client::EnvRecord> record);
    KXLEnvConfig(const KXLEnvConfig&);
    KXLEnvConfig& operator=(const KXLEnvConfig&);
    ~KXLEnvConfig();

    /// @return the core record; empty only in a configuration made without one
    const boost::shared_ptr<const KXLEnvCoreBasic>& getCoreBasic() const;

    int getHostname(KXLOptionalProperty<std::string>& hostname) const;
    int getDescription(KXLOptionalProperty<std::string>& description) const;
    int getBaseSampleId(KXLOptionalProperty<KXLGUID>& id) const;
    int getAddresses(KXLOptionalProperty<std::vector<KXLIPAddress>>& addresses) const;

    /// @brief The IPv6 addresses; not there when the agent does not know them, empty when there are none.
    int getInet6Addresses(KXLOptionalProperty<std::vector<KXLInet6Address>>& addresses) const;

protected:
    /// @return the shared record; null in a configuration that has nothing
    const kx::client::EnvRecord* record() const { return record_.get(); }

private:
    boost::intrusive_ptr<const kx::client::EnvRecord> record_;
};
