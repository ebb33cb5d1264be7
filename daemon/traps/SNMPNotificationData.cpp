#include "traps/SNMPNotificationData.h"

#include <algorithm>

const std::string SNMPNotificationData::category("ve_qos_notification");

void OwnedOid::assign(std::size_t length, const oid* subIds) {
    // In this order: `subIds` may be what we hold.
    auto copy = length == 0 ? nullptr : std::make_unique<oid[]>(length);
    std::copy_n(subIds, length, copy.get());
    subIds_ = std::move(copy);
    length_ = length;
}
