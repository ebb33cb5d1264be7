// The application-template table: the templates of each container, indexed by VE id and template name.
//
// Thread promise: main thread, inside the handling of one request.
#pragma once

#include "mib/Keys.h"
#include "mib/TableDataContext.h"
#include "tables/VeSubTable.h"

class VeAppTableData;

/// @brief What VeSubTable has to know of application templates.
struct VeAppSubListTraits {
    using Row = VeAppTableData;
};

using VeAppKeys = Typelist<ForeignKey<ASN_UNSIGNED, 1>, Typelist<PrimaryKey<ASN_OCTET_STR, 1>, NullType>>;
using VeAppTable = VeSubTable<VeAppKeys, VeAppSubListTraits, 1, 2>;

/// @brief One application template of one container. There are no rows yet, and no column has a value.
class VeAppTableData : public TableDataContext<VeAppTable> {};
