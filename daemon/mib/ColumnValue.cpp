#include "mib/ColumnValue.h"

#include <arpa/inet.h>

#include <new>
#include <sstream>

namespace {

std::int64_t parseNumber(const std::string& text) {
    std::int64_t number = 0;
    std::istringstream(text) >> number;
    return number;
}

std::int32_t parseAddress(const std::string& text) {
    return static_cast<std::int32_t>(ntohl(inet_addr(text.c_str())));
}

void setValue(netsnmp_variable_list& variable, std::uint8_t type, const void* value, std::size_t size) {
    if (snmp_set_var_typed_value(&variable, type, value, size) != 0) {
        throw std::bad_alloc();
    }
}

void setNumber(netsnmp_variable_list& variable, std::uint8_t type, long value) {
    setValue(variable, type, &value, sizeof value);
}

// Four bytes, whatever the size of a native long, and in either byte order.
void setAddress(netsnmp_variable_list& variable, std::uint32_t value) {
    setValue(variable, ASN_IPADDRESS, &value, sizeof value);
}

void setCounter64(netsnmp_variable_list& variable, std::int32_t low, std::int32_t high) {
    counter64 value{};
    value.high = static_cast<u_long>(long{high});
    value.low = static_cast<u_long>(long{low});
    setValue(variable, ASN_COUNTER64, &value, sizeof value);
}

}  // namespace

bool ColumnValue::isNumber() const {
    switch (type) {
        case ASN_INTEGER:
        case ASN_IPADDRESS:
        case ASN_COUNTER:
        case ASN_UNSIGNED:
        case ASN_TIMETICKS:
        case ASN_COUNTER64:
            return true;
        default:
            return false;
    }
}

void ColumnValue::setInt32(std::int32_t value) {
    if (isNumber()) {
        low = value;
        high = 0;
    }
}

void ColumnValue::setInt64(std::int64_t value) {
    if (isNumber()) {
        low = static_cast<std::int32_t>(value & 0xffffffff);
        high = static_cast<std::int32_t>(value >> 32);
    }
}

void ColumnValue::setFromString(const std::string& value) {
    if (type == ASN_OCTET_STR) {
        text = value;
    } else if (type == ASN_IPADDRESS) {
        setInt32(parseAddress(value));
    } else if (isNumber()) {
        setInt64(parseNumber(value));
    }
}

// Both halves of a number are sign-extended to the library's native long. The AgentX encoder takes only the low 32 bits
// of each, so that no manager sees it.
void ColumnValue::writeTo(netsnmp_variable_list& variable) const {
    switch (type) {
        case ASN_INTEGER:
        case ASN_UNSIGNED:
            setNumber(variable, type, low);
            break;
        case ASN_OCTET_STR:
            setValue(variable, type, text.data(), text.size());
            break;
        case ASN_IPADDRESS:
            setAddress(variable, htonl(static_cast<std::uint32_t>(low)));
            break;
        case ASN_COUNTER64:
            setCounter64(variable, low, high);
            break;
        default:
            setValue(variable, type, nullptr, 0);
            break;
    }
}

// The encoder makes a sub-identifier of the whole native long. Sign-extended, the number of a container without one
// (-1) would have 64 bits in this process but 32 on the AgentX socket, and whether a request for .4294967295 then finds
// it would depend on how the library widens what it reads (RequestedOid.h).
void ColumnValue::writeIndexTo(netsnmp_variable_list& variable) const {
    const auto number = static_cast<std::uint32_t>(low);
    switch (type) {
        case ASN_IPADDRESS:
            setAddress(variable, number);
            break;
        case ASN_UNSIGNED:
            setNumber(variable, type, number);
            break;
        default:
            writeTo(variable);
            break;
    }
}

VarbindPtr ColumnValue::toVariable() const {
    VarbindPtr variable(SNMP_MALLOC_TYPEDEF(netsnmp_variable_list));
    if (!variable) {
        throw std::bad_alloc();
    }
    writeTo(*variable);
    return variable;
}
