#include "mib/TableHelperHelper.h"

#include <arpa/inet.h>

#include <cstring>

namespace kx::mib {

namespace {

/// An IP address has four bytes; a variable made from a ColumnValue carries a native long.
constexpr std::size_t addressSize = 4;

/// @brief Turns the four bytes of an IP address over for as long as it lives.
class HostOrderAddress {
public:
    explicit HostOrderAddress(netsnmp_variable_list& variable) : bytes_(variable.val.string) { turn(); }
    ~HostOrderAddress() { turn(); }
    HostOrderAddress(const HostOrderAddress&) = delete;
    HostOrderAddress& operator=(const HostOrderAddress&) = delete;

private:
    void turn() {
        std::uint32_t address = 0;
        std::memcpy(&address, bytes_, addressSize);
        address = ntohl(address);
        std::memcpy(bytes_, &address, addressSize);
    }

    u_char* bytes_;
};

// An IP address is sent as its four bytes: a manager that gets the native long whole takes it for a broken
// address.
void copyValue(netsnmp_variable_list* into, const netsnmp_variable_list& from) {
    const std::size_t size = from.type == ASN_IPADDRESS ? addressSize : from.val_len;
    snmp_set_var_typed_value(into, from.type, from.val.string, size);
}

// The index encoder reads its variables differently from the encoder of answers.
void copyIndexValue(netsnmp_variable_list* into, netsnmp_variable_list& from) {
    if (from.type == ASN_IPADDRESS) {
        // It takes an IP address for a host-order integer; answers carry network order.
        const HostOrderAddress turned(from);
        copyValue(into, from);
        return;
    }
    if (from.type == ASN_UNSIGNED) {
        // It makes a sub-identifier of the whole native long. Sign-extended, the number of a container without
        // one (-1) would have 64 bits in this process but 32 on the AgentX socket, and whether a request for
        // .4294967295 then finds it would depend on how the library widens what it reads (RequestedOid.h): a walk
        // might find the row for ever, or never.
        *from.val.integer = static_cast<std::uint32_t>(*from.val.integer);
    }
    copyValue(into, from);
}

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
    copyValue(request->requestvb, *readColumn(row, column).toVariable());
}

}  // namespace

VarbindPtr buildIndexList(netsnmp_variable_list* indexTemplate, const netsnmp_iterator_info* iinfo, void* row,
                          ReadColumn readColumn) {
    VarbindPtr list(snmp_clone_varbind(indexTemplate));
    const netsnmp_variable_list* key = iinfo->table_reginfo->indexes;
    for (netsnmp_variable_list* index = list.get(); index != nullptr && key != nullptr;
         index = index->next_variable, key = key->next_variable) {
        const VarbindPtr value = readColumn(row, static_cast<unsigned>(key->index)).toVariable();
        copyIndexValue(index, *value);
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
