#include "traps/TrapPace.h"

#include <thread>

#include "link/SNMPNodeLocal.h"
#include "mib/LibraryLock.h"

namespace {

/// The main thread waits for the master in the library: for the answer to a ping, or in an attempt to join it.
constexpr std::chrono::milliseconds librarysStall{50};

bool isLoopWaitedFor() {
    const SNMPNodeLocal* const link = SNMPNodeLocal::instance();
    return link == nullptr || link->isLoopWaitedFor();
}

}  // namespace

TrapPace& TrapPace::instance() {
    static TrapPace theOne({[] { return MasterSession::instance().room(); }, isLoopWaitedFor, Clock::now,
                            [] { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }});
    return theOne;
}

void TrapPace::waitForRoom() {
    const auto deadline = surroundings_.now() + longestStall;
    while (!isAmple()) {
        if (hasStalled_ || surroundings_.isLoopWaitedFor()) {
            return;
        }
        hasStalled_ = surroundings_.now() >= deadline;
        surroundings_.pause();
    }
    hasStalled_ = false;
}

bool TrapGate::isOpen() {
    return MasterSession::instance().room() == MasterSession::Room::Ample &&
           !LibraryLock::instance().isHeldFor(librarysStall);
}
