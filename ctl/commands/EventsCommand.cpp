#include "ctl/commands/EventsCommand.h"

#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "ctl/Numbers.h"
#include "ctl/events/EventWatch.h"

namespace kx::ctl {
namespace {

constexpr const char* kHelp = "Shows alerts and changes of containers as they happen";

constexpr const char* kDetails =
    "\nA line for each event: time, kind (alert, change), container (its number and name, its identifier where it\n"
    "has no number, or \"host\"), severity or state, value, text.\n"
    "\n"
    "Waits for the first event, shows it and ends, unless --count or --follow says otherwise. With both it ends\n"
    "after so many events, and connects again until then. Events of before it is subscribed, and of while it is\n"
    "not connected, are not shown; how the subscription stands is told on standard error.";

/// The options as they were typed.
struct Typed {
    bool follow = false;
    bool json = false;
    std::string count;
};

EventWatchOptions readTyped(const Typed& typed, bool hasCount) {
    EventWatchOptions options;
    options.follow = typed.follow;
    options.json = typed.json;
    if (hasCount) {
        options.count = readNumber("--count", typed.count, 1, std::numeric_limits<std::int64_t>::max());
    } else if (!typed.follow) {
        options.count = 1;
    }
    return options;
}

}  // namespace

void addEventsCommand(CLI::App& app, Selection& selection) {
    CLI::App* const events = app.add_subcommand("events", kHelp);
    events->fallthrough()->footer(kDetails);
    const auto typed = std::make_shared<Typed>();
    events->add_flag("-f,--follow", typed->follow,
                     "Goes on until it is interrupted, and connects again when the agent was away");
    events->add_flag("--json", typed->json, "Shows each event as one JSON object a line");
    auto* const count = events->add_option("-n,--count", typed->count, "Ends after this many events")->option_text("N");
    events->callback([typed, count, &selection] {
        selection.run = [options = readTyped(*typed, count->count() != 0)](const std::string& socket) {
            return watchEvents(options, socket);
        };
    });
}

}  // namespace kx::ctl
