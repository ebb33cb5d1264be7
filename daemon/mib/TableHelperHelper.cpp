#include "mib/TableHelperHelper.h"

namespace kx::mib {

namespace {

// Returns false when the request has no table information, or is none of ours to answer.
bool columnOf(netsnmp_request_info* request, unsigned& column) {
    const netsnmp_table_request_info* const info = netsnmp_extract_table_info(request);
    if (info == nullptr) {
        return false;
    }
    column = info->colnum;
    return true;
}

void answerRequest(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* request, unsigned maxColumn,
                   ReadColumn readColumn) {
    if (request->processed != 0 || reqinfo->mode != MODE_GET) {
        return;
    }
    void* const row = netsnmp_extract_iterator_context(request);
    if (row == nullptr) {
        netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
        return;
    }
    unsigned column = 0;
    if (!columnOf(request, column)) {
        return;
    }
    if (column == 0 || column > maxColumn) {
        netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
        return;
    }
    readColumn(row, column).writeTo(*request->requestvb);
}

}  // namespace

VarbindPtr buildIndexList(netsnmp_variable_list* indexTemplate, const netsnmp_iterator_info* iinfo, void* row,
                          ReadColumn readColumn) {
    VarbindPtr list(snmp_clone_varbind(indexTemplate));
    const netsnmp_variable_list* key = iinfo->table_reginfo->indexes;
    for (netsnmp_variable_list* index = list.get(); index != nullptr && key != nullptr;
         index = index->next_variable, key = key->next_variable) {
        readColumn(row, static_cast<unsigned>(key->index)).writeIndexTo(*index);
    }
    return list;
}

void answerRequests(netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests, unsigned maxColumn,
                    ReadColumn readColumn) {
    for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
        answerRequest(reqinfo, request, maxColumn, readColumn);
    }
}

}  // namespace kx::mib
