#include "core/MibModule.h"

#include "link/SNMPNodeLocal.h"
#include "mib/LibraryLock.h"
#include "mib/NetSnmp.h"
#include "mib/Registration.h"
#include "traps/InitTraps.h"
#include "traps/UnsentAlerts.h"

// The life cycle is logged as warnings, so that it is kept where informational messages are filtered out. The
// misspelling in the second message is what log filters already match; it stays.

void init_mib_module() {
    snmp_log(LOG_WARNING, "CorvaneMIB: Initializing the CorvaneMIB module\n");
    init_traps();
    const InLibrary library;  // not before: making the link waits for its thread
    register_tables();
    register_scalars();
    snmp_log(LOG_WARNING, "CorvaneMIB: Done initalizing CorvaneMIB module\n");
}

void finalize_mib_module() {
    snmp_log(LOG_WARNING, "CorvaneMIB: Finalizing the CorvaneMIB module\n");
    SNMPNodeLocal::destroy();
    UnsentAlerts::instance().end();
    snmp_log(LOG_WARNING, "CorvaneMIB: Done finalizing CorvaneMIB module\n");
}
