#include "ctl/top/TopWatch.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <memory>

#include "ctl/AgentConnection.h"
#include "ctl/Console.h"
#include "ctl/Output.h"
#include "ctl/SignalPipe.h"
#include "ctl/events/ContainerNames.h"
#include "ctl/events/EventJson.h"
#include "ctl/events/EventSubscription.h"
#include "ctl/events/EventText.h"
#include "ctl/events/Mailbox.h"
#include "ctl/events/Resubscription.h"
#include "ctl/top/TopControls.h"
#include "ctl/top/TopKeys.h"
#include "ctl/top/TopTerminal.h"
#include "ctl/top/TopView.h"

namespace kx::ctl {
namespace {

using Clock = std::chrono::steady_clock;

/// Rates need two reports; of the first wait only so much is needed for them.
constexpr std::chrono::milliseconds kLongestFirstInterval{1000};

/// How long what follows Escape in a key's sequence may take, in milliseconds: it may come over a network.
constexpr int kEscapeMs = 50;

TerminalSize screenSize() {
    return terminalSize(STDOUT_FILENO).value_or(TerminalSize());
}

std::size_t page() {
    return topRowsThatFit(screenSize());
}

/// Kept from one sample to the next; the rest is counted.
constexpr std::size_t kMostAlerts = 100;
constexpr std::size_t kMostAlertsAsJson = 10000;

class TopWatch {
public:
    TopWatch(const TopOptions& options, const CommonOptions& common);

    void run();

private:
    enum Watched : std::size_t { Stop, Window, Mail, Keys, Reader, WatchedCount };

    bool isInPlace() const { return terminal_ != nullptr; }
    void wait();
    int millisecondsToWait() const;
    void subscribe();
    void takeMail();
    void takeAlert(const KXLEvent& event);
    void takeWindowSignals();
    void takeKeys();
    void suspend();
    void sampleIfDue();
    void sample();
    void show();
    void draw();
    void writeSample();

    const TopOptions options_;
    const std::string socket_;
    Mailbox mailbox_;
    AgentConnection agent_;  // after the mailbox, which its thread writes to
    // Only now, with the connection made: until here a signal ends the process at once.
    SignalPipe stop_{{SIGINT, SIGTERM, SIGHUP, SIGQUIT}};
    SignalPipe window_{{SIGWINCH, SIGTSTP}};
    Output output_{STDOUT_FILENO, stop_.descriptor()};
    const Painter painter_;
    std::unique_ptr<TopTerminal> terminal_;
    ContainerNames names_;
    Resubscription again_;
    TopKeyReader keys_;
    bool hasKeys_ = false;
    TopView view_;
    std::uint64_t attempt_ = 0;
    std::int64_t shown_ = 0;
    bool hadReport_ = false;  ///< on this connection
    bool isFinished_ = false;
    Clock::time_point due_ = Clock::now();
};

TopWatch::TopWatch(const TopOptions& options, const CommonOptions& common)
    : options_(options),
      socket_(common.socket),
      agent_(common.socket, &mailbox_),
      painter_(wantsColors(STDOUT_FILENO, common.noColor)),
      names_(agent_.accessPoint().getEnvCache(), [this] { return agent_.accessPoint().getEID(); }) {
    view_.order = options.order;
    view_.isReversed = options.isReversed;
    if (!options.json && !options.count && isTerminal(STDOUT_FILENO)) {
        terminal_ = std::make_unique<TopTerminal>(STDIN_FILENO, output_);
        hasKeys_ = isTerminal(STDIN_FILENO);
    }
}

void TopWatch::run() {
    subscribe();
    while (!isFinished_) {
        sampleIfDue();
        if (!isFinished_) {
            wait();
        }
        if (again_.due() && *again_.due() <= Clock::now()) {
            subscribe();
        }
    }
}

void TopWatch::wait() {
    std::array<pollfd, WatchedCount> watched{};
    watched[Stop] = {stop_.descriptor(), POLLIN, 0};
    watched[Window] = {window_.descriptor(), POLLIN, 0};
    watched[Mail] = {mailbox_.descriptor(), POLLIN, 0};
    watched[Keys] = {hasKeys_ ? STDIN_FILENO : -1, POLLIN, 0};
    watched[Reader] = {output_.descriptor(), 0, 0};
    if (::poll(watched.data(), watched.size(), millisecondsToWait()) <= 0) {
        return;
    }
    isFinished_ = watched[Stop].revents != 0 || (watched[Reader].revents & (POLLERR | POLLHUP)) != 0;
    if (!isFinished_ && watched[Mail].revents != 0) {
        takeMail();
    }
    if (!isFinished_ && watched[Window].revents != 0) {
        takeWindowSignals();
    }
    if (!isFinished_ && watched[Keys].revents != 0) {
        takeKeys();
    }
}

int TopWatch::millisecondsToWait() const {
    const auto next = std::min(due_, again_.due().value_or(due_));
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    return static_cast<int>(std::max<std::int64_t>(rest.count(), 0));
}

// ---- alerts -------------------------------------------------------------------------------------------------------

void TopWatch::subscribe() {
    again_.begin();
    EventSubscription::begin(agent_.accessPoint(), mailbox_, ++attempt_);
}

void TopWatch::takeMail() {
    for (const Notice& notice : mailbox_.takeAll()) {
        for (const KXLEvent& event : notice.events) {
            takeAlert(event);
        }
        if (notice.kind == Notice::Kind::LinkBack) {
            hadReport_ = false;
            names_.learnAll();
            again_.linkBack(Clock::now());
        } else if (notice.kind == Notice::Kind::Subscribed && notice.attempt == attempt_) {
            again_.succeeded();
        } else if (notice.kind == Notice::Kind::Failed && notice.attempt == attempt_) {
            again_.failed(Clock::now());
        } else if (notice.kind == Notice::Kind::Overflow) {
            view_.alertsLeftOut += notice.missing;
        }
    }
    if (isInPlace()) {
        draw();
    }
}

void TopWatch::takeAlert(const KXLEvent& event) {
    const auto about = names_.of(event);
    const auto* const alert = dynamic_cast<const KXLResourceAlertData*>(event.getData().get());
    if (alert == nullptr) {
        return;
    }
    if (options_.json && view_.alertsAsJson.size() < kMostAlertsAsJson) {
        view_.alertsAsJson.push_back(eventJson(event, about));
        return;
    }
    if (!options_.json) {
        view_.alerts.push_back(topAlertLine(event, *alert, about));
        if (view_.alerts.size() <= kMostAlerts) {
            return;
        }
        view_.alerts.pop_front();
    }
    ++view_.alertsLeftOut;
}

// ---- the terminal -------------------------------------------------------------------------------------------------

void TopWatch::takeWindowSignals() {
    for (const int signal : window_.takeAll()) {
        if (signal == SIGTSTP) {
            suspend();
        }
    }
    if (isInPlace()) {
        draw();
    }
}

// The shell gets the terminal as it was; what it did with it meanwhile is its own.
void TopWatch::suspend() {
    if (isInPlace()) {
        terminal_->leave();
    }
    ::raise(SIGSTOP);
    if (isInPlace()) {
        terminal_->enter();
    }
}

void TopWatch::takeKeys() {
    std::array<char, 256> bytes{};
    const ssize_t count = ::read(STDIN_FILENO, bytes.data(), bytes.size());
    if (count <= 0) {
        hasKeys_ = false;  // no keyboard any more
        return;
    }
    std::vector<TopKey> keys = keys_.take({bytes.data(), static_cast<std::size_t>(count)});
    pollfd more{STDIN_FILENO, POLLIN, 0};
    if (keys_.isPending() && ::poll(&more, 1, kEscapeMs) == 0) {
        if (const auto key = keys_.takePending()) {
            keys.push_back(*key);
        }
    }
    for (const TopKey& key : keys) {
        isFinished_ = !takeTopKey(view_, key, page()) || isFinished_;
    }
    if (!isFinished_) {
        draw();
    }
}

// ---- samples ------------------------------------------------------------------------------------------------------

void TopWatch::sampleIfDue() {
    if (Clock::now() < due_) {
        return;
    }
    const bool isFirst = !hadReport_;
    sample();
    due_ = Clock::now() + (isFirst ? std::min(options_.interval, kLongestFirstInterval) : options_.interval);
    // Without rates it is no sample worth writing; on a screen they come in a moment.
    if (isInPlace() || !isFirst) {
        show();
    }
}

void TopWatch::sample() {
    KXLAccessPointPrototype& agent = agent_.accessPoint();
    std::vector<KXLMonitorData> report;
    const int code = queryCounters(agent, {kQuotaClass, kNetworkClass}, {}, report);
    if (code != 0) {
        const std::string trouble = whyUnreachable(code, socket_) + "; the values are old";
        if (view_.trouble.empty() && !isInPlace()) {
            complain(trouble);
        }
        view_.trouble = trouble;
        return;
    }
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    view_.timeMs = static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
    view_.time = localTime(view_.timeMs);
    view_.trouble.clear();
    view_.rows = topRows(readEnvironments(*agent.getEnvCache()), report,
                         readCounterClass(agent, kNetworkClass).value_or(CounterClass{}), hadReport_);
    sortTopRows(view_.rows, view_.order, view_.isReversed);
    hadReport_ = true;
}

void TopWatch::show() {
    if (isInPlace()) {
        draw();
    } else if (view_.trouble.empty()) {
        writeSample();
    }
}

void TopWatch::draw() {
    keepInRange(view_, page());
    isFinished_ = terminal_->draw(topScreen(view_, screenSize(), painter_)) != Output::Result::Written || isFinished_;
}

void TopWatch::writeSample() {
    const auto result =
        options_.json ? output_.writeLine(topJson(view_).line()) : output_.writeLines(topText(view_, painter_));
    view_.alerts.clear();
    view_.alertsAsJson.clear();
    view_.alertsLeftOut = 0;
    isFinished_ = result != Output::Result::Written || ++shown_ == options_.count;
}

}  // namespace

ExitCode watchTop(const TopOptions& options, const CommonOptions& common) {
    TopWatch(options, common).run();
    return ExitCode::Done;
}

}  // namespace kx::ctl
