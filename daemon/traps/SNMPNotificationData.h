// A trap that is ready to be sent, as the payload of an event.
//
// Thread promise: plain values; filled by one thread before the event that carries them is dispatched.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "mib/ColumnValue.h"
#include "mib/NetSnmp.h"

#include <kxl/KXLEvent.h>

/// @brief An object identifier that owns its sub-identifiers. Copies have arrays of their own.
class OwnedOid {
public:
    OwnedOid() = default;
    OwnedOid(const OwnedOid& other) { assign(other.length_, other.subIds_.get()); }
    OwnedOid& operator=(const OwnedOid& other) {
        assign(other.length_, other.subIds_.get());
        return *this;
    }
    ~OwnedOid() = default;

    /// @brief Takes a copy of an array, freeing the one held before. The array may be its own.
    /// @param length number of sub-identifiers
    /// @param subIds may be null when there are none
    void assign(std::size_t length, const oid* subIds);

    std::size_t length() const { return length_; }
    /// @return null when there are none
    const oid* subIds() const { return subIds_.get(); }

private:
    std::size_t length_ = 0;
    std::unique_ptr<oid[]> subIds_;  // NOLINT(modernize-avoid-c-arrays): what the library takes
};

/// @brief A variable of a trap: its value and its name.
struct NotificationVariable {
    ColumnValue value;
    OwnedOid name;
};

/// @brief A notification: the trap's numbers, its enterprise, and its variables in sending order.
class SNMPNotificationData : public KXLEventData {
public:
    /// The category of the events that carry this.
    static const std::string category;

    int genericTrap = 6;   ///< enterprise-specific (RFC 1157, section 4.1.6)
    int specificTrap = 0;  ///< the enterprise's own number of the trap
    OwnedOid enterprise;
    std::vector<NotificationVariable> variables;
};
