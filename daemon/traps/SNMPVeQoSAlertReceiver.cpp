#include "traps/SNMPVeQoSAlertReceiver.h"

#include <kxa/KXAEnvConfig.h>

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>

#include "link/SNMPNodeLocal.h"
#include "mib/OidLayout.h"
#include "traps/SNMPNotificationData.h"
#include "traps/TrapPace.h"

namespace {

constexpr int alertTrap = 1;

NotificationVariable variable(ColumnValue value, const oid* name, std::size_t length) {
    NotificationVariable result{std::move(value), {}};
    result.name.assign(length, name);
    return result;
}

template <std::size_t length>
NotificationVariable variable(ColumnValue value, const std::array<oid, length>& name) {
    return variable(std::move(value), name.data(), name.size());
}

ColumnValue number(std::uint8_t asnType, std::int32_t value) {
    ColumnValue result(asnType);
    result.setInt32(value);
    return result;
}

ColumnValue text(const std::string& value) {
    ColumnValue result(ASN_OCTET_STR);
    result.setFromString(value);
    return result;
}

ColumnValue counter64(std::int64_t value) {
    ColumnValue result(ASN_COUNTER64);
    result.setInt64(value);
    return result;
}

// An alert must not get lost for want of a number: -1 arrives as 4294967295.
std::int32_t veidOf(const KXLEnv& environment) {
    int veid = -1;
    KXAEnvConfig(environment.getConfig()).getVeid(veid);
    return veid;
}

boost::shared_ptr<SNMPNotificationData> notificationOf(const KXLResourceAlertData& alert, std::int32_t veid) {
    auto notification = boost::make_shared<SNMPNotificationData>();
    notification->enterprise.assign(trapEnterprise.size(), trapEnterprise.data());
    notification->specificTrap = alertTrap;
    notification->variables = {
        variable(number(ASN_UNSIGNED, veid), containerNumberColumn),
        variable(text(alert.alertText), objectOid(ObjectId::alertText)),
        variable(number(ASN_INTEGER, alert.alertCode), objectOid(ObjectId::alertCode)),
        variable(counter64(alert.alertValue), objectOid(ObjectId::alertValue)),
    };
    return notification;
}

// The host is in the cache too, but its alerts are not for managers of containers.
KXLEnvCache::EnvPtr containerOf(SNMPNodeLocal& link, const KXLEID& eid) {
    const auto cache = eid == link.getServerEID() ? nullptr : link.getEnvCache();
    return cache ? cache->getEnvCopy(eid) : nullptr;
}

}  // namespace

int SNMPVeQoSAlertReceiver::receive(const KXLEvent& event) {
    if (event.getCategory() != KXLResourceAlertData::category) {
        return 0;
    }
    const auto alert = boost::dynamic_pointer_cast<KXLResourceAlertData>(event.getData());
    SNMPNodeLocal* const link = SNMPNodeLocal::instance();
    if (!alert || link == nullptr) {
        return 0;
    }
    const auto container = containerOf(*link, alert->eid);
    if (!container) {
        return 0;
    }
    KXLEvent notification(event);
    notification.setData(notificationOf(*alert, veidOf(*container)));
    notification.setCategory(SNMPNotificationData::category);
    TrapPace::instance().waitForRoom();
    link->dispatchEvent(notification);
    return 0;
}
