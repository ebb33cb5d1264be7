#include <kxl/KXLEnv.h>

#include "client/src/values/EnvRecord.h"
#include "client/src/values/Limits.h"

namespace kx::client {

bool EnvRecord::equals(const EnvRecord& other) const {
    return eid == other.eid && type == other.type && status.state == other.status.state &&
           status.transition == other.status.transition && veid == other.veid && core->equals(*other.core) &&
           details == other.details;
}

std::size_t EnvRecord::bytes() const {
    return kEnvironmentBytes + type.size() + details.size() + core->size();
}

}  // namespace kx::client

KXLEnv::KXLEnv(boost::intrusive_ptr<const kx::client::EnvRecord> record)
    : record_(std::move(record)), config_(record_) {}

KXLEnv::~KXLEnv() = default;

const KXLEID& KXLEnv::getEID() const {
    return record_->eid;
}
const std::string& KXLEnv::getType() const {
    return record_->type;
}
const KXLEnvStatus* KXLEnv::getStatus() const {
    return &record_->status;
}
const KXLEnvConfig& KXLEnv::getConfig() const {
    return config_;
}
