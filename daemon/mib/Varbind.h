// Ownership of the agent library's variable lists.
//
// Thread promise: a list belongs to whoever holds the pointer; any one thread at a time.
#pragma once

#include <memory>

#include "mib/NetSnmp.h"

/// @brief Frees a variable and all that follow it with the library's own function: the list is C memory.
struct VarbindDeleter {
    void operator()(netsnmp_variable_list* variables) const { snmp_free_varbind(variables); }
};

/// @brief Sole owner of a variable list; release() hands it to the library.
using VarbindPtr = std::unique_ptr<netsnmp_variable_list, VarbindDeleter>;
