#include "ctl/commands/EventsCommand.h"

#include <ctime>
#include <limits>

#include "ctl/Numbers.h"
#include "ctl/events/EventWatch.h"

namespace kx::ctl {

ExitCode runEvents(const EventsArguments& typed, const CommonOptions& common) {
    EventWatchOptions options{typed.json, std::nullopt, 0, EventFilter(typed.filter)};
    if (typed.since) {
        options.sinceMs = readSince("--since", *typed.since, std::time(nullptr)) * 1000;
    }
    if (typed.count) {
        options.count = readNumber("--count", *typed.count, 1, std::numeric_limits<std::int64_t>::max());
    }
    return watchEvents(options, common.socket);
}

}  // namespace kx::ctl
