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

void setValue(netsnmp_variable_list* variable, const void* value, std::size_t size) {
    if (snmp_set_var_typed_value(variable, variable->type, value, size) != 0) {
        throw std::bad_alloc();
    }
}

// Both halves of a number go out sign-extended to the library's native long. That is harmless: the AgentX encoder
// takes only the low 32 bits of each. An index is no answer, see TableHelperHelper.cpp.
void setNumber(netsnmp_variable_list* variable, std::int32_t low) {
    const long value = low;
    setValue(variable, &value, sizeof value);
}

// The four bytes lie first, in network order; the rest of the native long is 0. Whoever copies the value on
// sends the four alone.
void setAddress(netsnmp_variable_list* variable, std::int32_t low) {
    const unsigned long value = htonl(static_cast<std::uint32_t>(low));
    setValue(variable, &value, sizeof value);
}

void setCounter64(netsnmp_variable_list* variable, std::int32_t low, std::int32_t high) {
    counter64 value{};
    value.high = static_cast<u_long>(long{high});
    value.low = static_cast<u_long>(long{low});
    setValue(variable, &value, sizeof value);
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

VarbindPtr ColumnValue::toVariable() const {
    VarbindPtr variable(SNMP_MALLOC_TYPEDEF(netsnmp_variable_list));
    if (!variable) {
        throw std::bad_alloc();
    }
    variable->type = type;
    switch (type) {
        case ASN_INTEGER:
        case ASN_UNSIGNED:
            setNumber(variable.get(), low);
            break;
        case ASN_OCTET_STR:
            setValue(variable.get(), text.data(), text.size());
            break;
        case ASN_IPADDRESS:
            setAddress(variable.get(), low);
            break;
        case ASN_COUNTER64:
            setCounter64(variable.get(), low, high);
            break;
        default:
            break;
    }
    return variable;
}
