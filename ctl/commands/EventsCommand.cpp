#include "ctl/commands/EventsCommand.h"

#include <limits>

#include "ctl/Numbers.h"
#include "ctl/events/EventWatch.h"

namespace kx::ctl {

ExitCode runEvents(const EventsArguments& typed, const CommonOptions& common) {
    EventWatchOptions options{typed.json, std::nullopt, EventFilter(typed.filter)};
    if (typed.count) {
        options.count = readNumber("--count", *typed.count, 1, std::numeric_limits<std::int64_t>::max());
    }
    return watchEvents(options, common.socket);
}

}  // namespace kx::ctl
