// Where the published objects stand. Every object identifier that is registered for reading is made from these.
//
// Thread promise: constants.
#pragma once

#include <array>

#include "mib/NetSnmp.h"

/// Sub-identifiers of the subtree root 1.3.6.1.4.1.53864.1.1, below which everything is published.
inline constexpr std::array<oid, 9> mibRoot = {1, 3, 6, 1, 4, 1, 53864, 1, 1};

/// Sub-identifiers in the object identifier of a scalar (without its instance) or of a table.
inline constexpr std::size_t objectOidLength = mibRoot.size() + 1;

/// An object's own number, the one sub-identifier below the root. 3 is not in use; 9 to 11 are objects of
/// notifications, for which no table and no scalar answers.
enum class ObjectId : oid {
    serverIdentifier = 1,
    productVersion = 2,
    containers = 4,
    addresses = 5,
    applicationTemplates = 6,
    quotaCounters = 7,
    networkCounters = 8,
    alertText = 9,
    alertCode = 10,
    alertValue = 11,
};

/// @brief The object identifier of a scalar or a table: the root and the object's number. The library puts the
/// rest behind it: a scalar's instance 0; a table's entry 1, the column and the index.
/// @return ten sub-identifiers
constexpr std::array<oid, objectOidLength> objectOid(ObjectId object) {
    std::array<oid, objectOidLength> result{};
    for (std::size_t i = 0; i < mibRoot.size(); ++i) {
        result[i] = mibRoot[i];
    }
    result[mibRoot.size()] = static_cast<oid>(object);
    return result;
}

/// The column of a container's number in the container table, without an instance: how traps name it.
inline constexpr std::array<oid, objectOidLength + 2> containerNumberColumn = {1, 3, 6, 1, 4, 1, 53864, 1, 1, 4, 1, 1};

/// The enterprise of the traps.
inline constexpr std::array<oid, 8> trapEnterprise = {1, 3, 6, 1, 4, 1, 53864, 2};
