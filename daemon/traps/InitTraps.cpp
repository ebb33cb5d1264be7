#include "traps/InitTraps.h"

#include "link/SNMPNodeLocal.h"

void init_traps() {
    // Receivers of events are registered with the link here, before anything else can reach it; the first use of
    // the link is what makes it and starts the client library's thread.
    SNMPNodeLocal::instance();
}
