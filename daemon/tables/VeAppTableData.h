// The application-template table: the templates of each container, indexed by VE id and template name.
//
// Thread promise: main thread, inside the handling of one request.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mib/Keys.h"
#include "mib/TableDataContext.h"
#include "tables/VeSubTable.h"

#include <kxa/KXATemplate.h>

class VeAppTableData;

/// @brief What VeSubTable has to know of application templates.
struct VeAppSubListTraits {
    using Element = KXATemplate;
    using Row = VeAppTableData;

    /// @param environment may be null
    /// @return the container's templates in the order of its configuration, save those whose name is longer than 114
    /// bytes, for which there is no object identifier; empty when it does not have the list
    static std::vector<Element> listOf(const KXLEnv* environment);
    /// Name and version count, byte for byte.
    static bool areEqual(const Element& one, const Element& other);
};

using VeAppKeys = Typelist<ForeignKey<ASN_UNSIGNED, 1>, Typelist<PrimaryKey<ASN_OCTET_STR, 1>, NullType>>;
using VeAppTable = VeSubTable<VeAppKeys, VeAppSubListTraits, 1, 2>;

/// @brief One application template of one container, copied out of its configuration.
class VeAppTableData : public TableDataContext<VeAppTable> {
public:
    /// @param veid the container's number
    /// @param application either text may be empty
    VeAppTableData(std::int32_t veid, const KXATemplate& application);

    /// @brief The value of a column.
    /// @param tag 1 name, 2 version; 3, for the index only, the container's number
    /// @return the version is a number: the decimal number that the text begins with, its low 32 bits, 0 when there is
    /// none; null when there is no such column (0 is logged)
    ColumnValue operator[](unsigned tag) override;

private:
    std::int32_t veid_;
    std::string name_;
    std::string version_;
};
