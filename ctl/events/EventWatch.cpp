#include "ctl/events/EventWatch.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "ctl/AgentConnection.h"
#include "ctl/Console.h"
#include "ctl/Json.h"
#include "ctl/Output.h"
#include "ctl/StopSignals.h"
#include "ctl/events/ContainerNames.h"
#include "ctl/events/EventJson.h"
#include "ctl/events/EventSubscription.h"
#include "ctl/events/EventText.h"
#include "ctl/events/Mailbox.h"
#include "ctl/events/Resubscription.h"

namespace kx::ctl {
namespace {

using Clock = std::chrono::steady_clock;

/// How long events wait for the containers that they say were added. These are on their way at that time already; one
/// that has been removed again never comes.
constexpr std::chrono::milliseconds kNamesDeadline{200};
constexpr int kNamesIntervalMs = 2;

class EventWatch {
public:
    EventWatch(const EventWatchOptions& options, const std::string& socket)
        : options_(options),
          agent_(socket, &mailbox_),
          names_(agent_.accessPoint().getEnvCache(), [this] { return agent_.accessPoint().getEID(); }) {}

    void run();

private:
    /// What there is to do.
    struct Wakeup {
        bool toEnd = false;
        bool hasMail = false;
    };

    Wakeup wait() const;
    int millisecondsToWait() const;
    void subscribe();
    void takeAll();
    void take(const Notice& notice);
    void takeSubscribed();
    void takeFailure();
    void waitForNames(const std::vector<KXLEvent>& events) const;
    void show(const std::vector<KXLEvent>& events);
    std::string lineOf(const KXLEvent& event, const std::optional<ContainerName>& about) const;

    const EventWatchOptions options_;
    Mailbox mailbox_;
    AgentConnection agent_;  // after the mailbox, which its thread writes to
    // Only now, with the connection made: until here a signal ends the process at once.
    StopSignals stop_;
    Output output_{STDOUT_FILENO, stop_.descriptor()};
    ContainerNames names_;
    Resubscription again_;
    std::uint64_t attempt_ = 0;
    std::int64_t shown_ = 0;
    bool wasSubscribed_ = false;
    bool isLinkUp_ = true;
    bool isFinished_ = false;
};

void EventWatch::run() {
    subscribe();
    while (!isFinished_) {
        const Wakeup wakeup = wait();
        if (wakeup.toEnd) {
            return;
        }
        if (wakeup.hasMail) {
            takeAll();
        }
        if (again_.due() && *again_.due() <= Clock::now()) {
            subscribe();
        }
    }
}

// The output is watched for nothing but its end: a reader that has gone is noticed before the next event comes.
EventWatch::Wakeup EventWatch::wait() const {
    std::array<pollfd, 3> watched{
        {{stop_.descriptor(), POLLIN, 0}, {mailbox_.descriptor(), POLLIN, 0}, {output_.descriptor(), 0, 0}}};
    if (::poll(watched.data(), watched.size(), millisecondsToWait()) <= 0) {
        return {};
    }
    const bool isOutputGone = (watched[2].revents & (POLLERR | POLLHUP)) != 0;
    return {watched[0].revents != 0 || isOutputGone, watched[1].revents != 0};
}

int EventWatch::millisecondsToWait() const {
    if (!again_.due()) {
        return -1;
    }
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(*again_.due() - Clock::now());
    return static_cast<int>(std::max<std::int64_t>(rest.count(), 0));
}

void EventWatch::subscribe() {
    again_.begin();
    // What came before is wanted once.
    EventSubscription::begin(agent_.accessPoint(), mailbox_, ++attempt_, wasSubscribed_ ? 0 : options_.sinceMs);
}

// Once enough was shown, what becomes of the agent does not matter any more.
void EventWatch::takeAll() {
    for (const Notice& notice : mailbox_.takeAll()) {
        if (isFinished_) {
            return;
        }
        take(notice);
    }
}

void EventWatch::take(const Notice& notice) {
    switch (notice.kind) {
        case Notice::Kind::Events:
            show(notice.events);
            break;
        case Notice::Kind::Subscribed:
            if (notice.attempt == attempt_) {
                takeSubscribed();
            }
            break;
        case Notice::Kind::Failed:
            if (notice.attempt == attempt_) {
                takeFailure();
            }
            break;
        case Notice::Kind::LinkLost:
            isLinkUp_ = false;
            break;
        case Notice::Kind::LinkBack:
            isLinkUp_ = true;
            names_.learnAll();
            again_.linkBack(Clock::now());
            break;
        case Notice::Kind::Overflow:
            complain(fmt::format("{} events are missing here: they came faster than they were read", notice.missing));
            break;
    }
}

void EventWatch::takeSubscribed() {
    again_.succeeded();
    note(fmt::format("subscribed to events of {}{}", agent_.agentName(),
                     wasSubscribed_ ? " again; what happened meanwhile is not shown" : ""));
    wasSubscribed_ = true;
}

void EventWatch::takeFailure() {
    if (!wasSubscribed_ && isLinkUp_) {
        throw Failure(ExitCode::Refused, "the agent did not accept the subscription to its events");
    }
    if (!wasSubscribed_) {
        throw Failure(ExitCode::Unreachable, "the connection to the agent was lost");
    }
    if (again_.failed(Clock::now())) {
        note("the connection to the agent was lost; trying to connect again");
    }
}

// The cache tells nobody that it has changed, so it is asked now and then.
void EventWatch::waitForNames(const std::vector<KXLEvent>& events) const {
    const auto deadline = Clock::now() + kNamesDeadline;
    pollfd stop{stop_.descriptor(), POLLIN, 0};
    while (!names_.hasLastAddedOf(events) && Clock::now() < deadline && ::poll(&stop, 1, kNamesIntervalMs) <= 0) {
    }
}

void EventWatch::show(const std::vector<KXLEvent>& events) {
    waitForNames(events);
    for (const KXLEvent& event : events) {
        if (isFinished_) {
            return;
        }
        const auto about = names_.of(event);
        if (event.getTimeMs() >= options_.sinceMs && options_.filter.matches(event, about)) {
            isFinished_ =
                output_.writeLine(lineOf(event, about)) != Output::Result::Written || ++shown_ == options_.count;
        }
    }
}

std::string EventWatch::lineOf(const KXLEvent& event, const std::optional<ContainerName>& about) const {
    return options_.json ? eventJson(event, about).line() : textLine(event, about);
}

}  // namespace

ExitCode watchEvents(const EventWatchOptions& options, const std::string& socket) {
    EventWatch(options, socket).run();
    return ExitCode::Done;
}

}  // namespace kx::ctl
