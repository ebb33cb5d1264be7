#include "core/ExitTimer.h"

#include <sys/time.h>

#include "traps/MasterSession.h"

namespace {

constexpr timeval tick{0, 500000};

const volatile std::sig_atomic_t* runningFlag = nullptr;
volatile std::sig_atomic_t hasTickedSinceStop = 0;

}  // namespace

/// @brief Handler of SIGALRM. Runs in signal context on the main thread: the loop's thread blocks all signals.
extern "C" void exit_timer_ticked(int /*signo*/) {
    if (*runningFlag != 0) {
        return;
    }
    if (hasTickedSinceStop != 0) {
        MasterSession::instance().cutOff();
    }
    hasTickedSinceStop = 1;
}

void startExitTimer(const volatile std::sig_atomic_t& running) {
    runningFlag = &running;
    struct sigaction action {};
    action.sa_handler = exit_timer_ticked;  // without SA_RESTART: it is to interrupt system calls
    sigaction(SIGALRM, &action, nullptr);
    const itimerval every{tick, tick};
    setitimer(ITIMER_REAL, &every, nullptr);
}
