#include "mib/Registration.h"

#include <array>

#include "mib/Keys.h"
#include "mib/KxScalar.h"
#include "mib/OidLayout.h"
#include "mib/RequestedOid.h"
#include "mib/RowSelector.h"
#include "mib/TableHelperHelper.h"
#include "tables/VeAppTableData.h"
#include "tables/VeIpTableData.h"
#include "tables/VeNetworkCountersTableData.h"
#include "tables/VeQuotaCountersTableData.h"
#include "tables/VeTable.h"

namespace {

/// What registration has to know of a table type.
struct TableDescription {
    const char* name;
    ObjectId object;
    unsigned minColumn;
    unsigned maxColumn;
    int (*addIndexes)(netsnmp_table_registration_info*);
    Netsnmp_Node_Handler* finalHandler;
    netsnmp_iterator_info callbacks;
    int (*injectSelector)(netsnmp_handler_registration*);
};

template <typename T>
TableDescription describe(const char* name, ObjectId object) {
    using Helper = TableHelperHelper<T>;
    // Everything else stays 0: no flags (the rows are not sorted), and no free_loop_context, which the library
    // would call after every row instead of once.
    netsnmp_iterator_info callbacks{};
    callbacks.get_first_data_point = &Helper::first_data_point;
    callbacks.get_next_data_point = &Helper::next_data_point;
    callbacks.make_data_context = &Helper::make_data;
    callbacks.free_data_context = &Helper::free_data;
    callbacks.free_loop_context_at_end = &Helper::free_loop;
    return {name,
            object,
            T::minColumn,
            T::maxColumn,
            &KeyIndexes<typename T::Keys, T::maxColumn>::add_indexes,
            &Helper::final_handler,
            callbacks,
            &RowSelector<T>::inject};
}

/// What the library is given to refer to for the life of the process, in C memory, zero-filled.
struct TableMemory {
    netsnmp_table_registration_info* tableInfo;
    netsnmp_iterator_info* iteratorInfo;
};

/// Nothing of it is ever freed, not even of a table that failed half-way: there is no second try, and no telling
/// what the library already holds. It is noted here so that it stays reachable when the library has shut down and
/// forgotten it: a leak checker must be able to tell what is kept from what is lost.
std::array<TableMemory, 9> tableMemory;  // by object number; raw pointers, so that no destructor runs at exit

bool registerWithLibrary(const TableDescription& table) {
    auto& [tableInfo, iteratorInfo] = tableMemory.at(static_cast<std::size_t>(table.object));
    tableInfo = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
    iteratorInfo = SNMP_MALLOC_TYPEDEF(netsnmp_iterator_info);
    const auto name = objectOid(table.object);
    auto* const registration = netsnmp_create_handler_registration(table.name, table.finalHandler, name.data(),
                                                                   name.size(), HANDLER_CAN_RONLY);
    if (registration == nullptr || tableInfo == nullptr || iteratorInfo == nullptr) {
        return false;
    }
    tableInfo->min_column = table.minColumn;
    tableInfo->max_column = table.maxColumn;
    if (table.addIndexes(tableInfo) != 0) {
        return false;
    }
    *iteratorInfo = table.callbacks;
    iteratorInfo->table_reginfo = tableInfo;
    if (netsnmp_register_table_iterator(registration, iteratorInfo) != SNMPERR_SUCCESS) {
        return false;  // the library has logged why, and freed the registration
    }
    // After the library's handlers, so that the first stands before them. The table works without either.
    inject_requested_oid_handler(registration);
    table.injectSelector(registration);
    return true;
}

void register_table(const TableDescription& table) {
    snmp_log(LOG_WARNING, "Initializing the %s\n", table.name);
    if (!registerWithLibrary(table)) {
        // The message names the failing step; the line before it has named the table.
        snmp_log(LOG_ERR, "memory allocation failed in %s", "register_table");
        return;
    }
    snmp_log(LOG_WARNING, "Done initializing the %s\n", table.name);
}

void registerScalar(ObjectId object) {
    const auto name = objectOid(object);
    netsnmp_register_scalar(netsnmp_create_handler_registration("KxScalar", KxScalar_get_handler, name.data(),
                                                                name.size(), HANDLER_CAN_RONLY));
}

}  // namespace

void register_tables() {
    register_table(describe<VeTable>("KxVeTable", ObjectId::containers));
    register_table(describe<VeIpAddrTable>("KxVeIpAddrTable", ObjectId::addresses));
    register_table(describe<VeAppTable>("KxVeAppAddrTable", ObjectId::applicationTemplates));
    register_table(describe<VeQuotaTable>("KxVeQuotaTable", ObjectId::quotaCounters));
    register_table(describe<VeNetstatTable>("KxVeNetstatTable", ObjectId::networkCounters));
}

void register_scalars() {
    registerScalar(ObjectId::serverIdentifier);
    registerScalar(ObjectId::productVersion);
}
