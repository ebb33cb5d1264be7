// kxsnmp: the process. It takes no arguments and has no configuration of its own; the agent library reads its usual
// files for the application name.
#include <malloc.h>

#include <csignal>
#include <cstdlib>

#include "core/ExitTimer.h"
#include "core/MibModule.h"
#include "core/RequestLoop.h"
#include "mib/LibraryLock.h"
#include "mib/NetSnmp.h"

namespace {

constexpr char agentName[] = "kxsnmp";

/// kxsnmp is always a sub-agent; the path of a master agent stands behind this switch and is never taken.
constexpr bool isSubAgent = true;

/// Non-zero while requests are to be served. Written in signal context, read by the main loop.
volatile std::sig_atomic_t running = 0;

/// A write to a socket whose peer has gone must be an error, not the end of the process.
void ignoreBrokenPipes() {
    if (std::signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
        std::exit(EXIT_FAILURE);
    }
}

/// The library forks twice and ends the parents with exit(): no thread, socket or buffered output may exist yet.
void daemonize() {
    if (netsnmp_daemonize(1, 0) != 0) {
        std::exit(EXIT_FAILURE);
    }
}

void startLibrary() {
    snmp_enable_syslog();
    ignoreBrokenPipes();
    if (isSubAgent) {
        netsnmp_ds_set_boolean(NETSNMP_DS_APPLICATION_ID, NETSNMP_DS_AGENT_ROLE, 1);
    }
    daemonize();
    init_agent(agentName);
    init_mib_module();
    // A master agent that does not answer the opening of a session is tried again at the next interval, and not waited
    // for in between.
    netsnmp_ds_set_int(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_RETRIES, 0);
    // From here on alerts may come, and traps be sent, on another thread.
    const InLibrary library;
    // Whether a master agent is there is not looked at: connecting, now or later, is the library's affair.
    init_snmp(agentName);
    if (!isSubAgent) {
        init_master_agent();
    }
}

}  // namespace

/// @brief Handler of SIGTERM and SIGINT. Runs in signal context, where storing the flag is all that is allowed.
extern "C" void stop_server(int /*signo*/) {
    running = 0;
}

int main(int /*argc*/, char** /*argv*/) {
    // One heap for both threads: what the main thread frees after a large answer is used for the pushes that follow.
    // With two, 10,000 containers take 20 MB more.
    mallopt(M_ARENA_MAX, 1);
    startLibrary();
    // Until here the signals end the process at once: there is nothing yet that would need an orderly end.
    running = 1;
    std::signal(SIGTERM, stop_server);
    std::signal(SIGINT, stop_server);
    startExitTimer(running);
    snmp_log(LOG_INFO, "kxsnmp is up and running.\n");
    // Debugging output may be asked for by the library's configuration, but only for start-up.
    snmp_set_do_debugging(0);
    while (running != 0) {
        serveRequests();
    }
    finalize_mib_module();
    snmp_shutdown(agentName);
    return EXIT_SUCCESS;
}
