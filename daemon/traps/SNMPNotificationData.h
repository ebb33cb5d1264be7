// What SNMPVeQoSNotificationSender needs to send a trap.
//
// Thread promise: plain values, not changed once they are in an event.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "mib/ColumnValue.h"
#include "mib/NetSnmp.h"

#include <kxl/KXLEvent.h>

/// @brief An object identifier with value semantics.
class OwnedOid {
public:
    OwnedOid() = default;
    OwnedOid(const OwnedOid& other) { assign(other.length_, other.subIds_.get()); }
    OwnedOid& operator=(const OwnedOid& other) {
        assign(other.length_, other.subIds_.get());
        return *this;
    }
    ~OwnedOid() = default;

    /// @param length number of sub-identifiers, which are copied
    /// @param subIds may be null where length is 0, and may be its own
    void assign(std::size_t length, const oid* subIds);

    std::size_t length() const { return length_; }
    /// @return null when there are none
    const oid* subIds() const { return subIds_.get(); }

private:
    std::size_t length_ = 0;
    std::unique_ptr<oid[]> subIds_;  // NOLINT(modernize-avoid-c-arrays): what the library takes
};

/// @brief One variable binding.
struct NotificationVariable {
    ColumnValue value;
    OwnedOid name;
};

/// @brief A trap in the form of RFC 1157; the library makes SNMPv2 notifications of it.
class SNMPNotificationData : public KXLEventData {
public:
    /// Marks the events that carry it.
    static const std::string category;

    int genericTrap = 6;   ///< enterpriseSpecific (RFC 1157, section 4.1.6)
    int specificTrap = 0;  ///< which of the enterprise's traps
    OwnedOid enterprise;
    std::vector<NotificationVariable> variables;
};
