#include <kxl/KXLEnv.h>

#include "client/src/values/EnvRecord.h"

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
