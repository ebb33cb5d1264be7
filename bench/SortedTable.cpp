// A sub-agent with the container table as net-snmp's sorted table helper (table_tdata) serves it: all values in memory
// beforehand, rows in a sorted container. It reads the containers once, at its start, through our client library.
//
// It stays in the foreground until SIGTERM, and reads bench_sorted_table.conf in net-snmp's usual places.
#include <array>
#include <csignal>
#include <list>

#include "link/SNMPNodeLocal.h"
#include "mib/NetSnmp.h"
#include "tables/VeTable.h"

// clang-format off
#include <net-snmp/agent/table_tdata.h>
// clang-format on

namespace {

constexpr char name[] = "bench_sorted_table";

/// As long as the published table's, so that both have names of one length.
constexpr std::array<oid, 10> tableOid = {1, 3, 6, 1, 4, 1, 53864, 99, 1, 4};

using Row = std::array<ColumnValue, VeTable::maxColumn>;

volatile std::sig_atomic_t running = 1;

extern "C" void stop(int /*signal*/) {
    running = 0;
}

extern "C" int answer(netsnmp_mib_handler*, netsnmp_handler_registration*, netsnmp_agent_request_info*,
                      netsnmp_request_info* requests) {
    for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
        if (request->processed == 0) {
            const auto* row = static_cast<const Row*>(netsnmp_tdata_extract_entry(request));
            (*row)[netsnmp_extract_table_info(request)->colnum - 1].writeTo(*request->requestvb);
        }
    }
    return SNMP_ERR_NOERROR;
}

void addRow(netsnmp_tdata* table, Row& row) {
    netsnmp_tdata_row* const added = netsnmp_tdata_create_row();
    const long veid = static_cast<std::uint32_t>(row[0].getLow());
    netsnmp_tdata_row_add_index(added, ASN_UNSIGNED, &veid, sizeof veid);
    added->data = &row;
    netsnmp_tdata_add_row(table, added);
}

/// @param rows receives the values, which the table refers to
void registerTable(std::list<Row>& rows) {
    netsnmp_tdata* const table = netsnmp_tdata_create_table(name, 0);
    const VeTableSnapshot snapshot;
    const auto end = snapshot.end();
    for (auto cursor = snapshot.begin(); !(cursor == end); ++cursor) {
        VeTableData container = *cursor;
        Row& row = rows.emplace_back();
        for (unsigned column = 1; column <= VeTable::maxColumn; ++column) {
            row[column - 1] = container[column];
        }
        addRow(table, row);
    }
    auto* const info = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
    netsnmp_table_helper_add_indexes(info, ASN_UNSIGNED, 0);
    info->min_column = VeTable::minColumn;
    info->max_column = VeTable::maxColumn;
    netsnmp_tdata_register(
        netsnmp_create_handler_registration(name, &answer, tableOid.data(), tableOid.size(), HANDLER_CAN_RONLY), table,
        info);
}

}  // namespace

int main() {
    netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
    snmp_enable_stderrlog();
    init_agent(name);
    std::list<Row> rows;
    registerTable(rows);
    SNMPNodeLocal::destroy();
    init_snmp(name);
    std::signal(SIGTERM, stop);
    while (running != 0) {
        agent_check_and_process(1);
    }
    snmp_shutdown(name);
    return 0;
}
