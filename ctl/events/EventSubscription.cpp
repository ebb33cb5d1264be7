#include "ctl/events/EventSubscription.h"

#include <memory>
#include <utility>
#include <vector>

#include <kxl/KXLDerivedParserFactory.h>
#include <kxl/KXLTimeoutHandlerPrototype.h>

namespace kx::ctl {
namespace {

using Factory = KXLDerivedParserFactory<KXLEvent, KXLEvent>;

/// An event of an unknown type, or one that does not hold what its type promises, is one without data: that it came
/// is worth knowing.
KXLEvent parse(KXLMessageReaderPrototype& reader) {
    const auto& known = Factory::factoryInternalData();
    const auto parser = known.parsers.find(reader.getTypeName());
    KXLEvent* raw = nullptr;
    if (parser == known.parsers.end() || parser->second->parse(reader, raw) != 0) {
        known.defaultParser->parse(reader, raw);
    }
    const std::unique_ptr<KXLEvent> event(raw);
    return event ? *event : KXLEvent(reader.getTypeName(), nullptr);
}

}  // namespace

/// A timeout of no time: takes the opening to the library's thread. On any other, the subscription could reach the
/// agent between the opening of the connection and the coming of its handler, who would never hear of it.
class EventSubscription::Opening : public KXLTimeoutHandlerPrototype {
public:
    Opening(boost::intrusive_ptr<KXLAccessPrototype> access, const KXLEID& agent,
            boost::intrusive_ptr<EventSubscription> subscription)
        : access_(std::move(access)), agent_(agent), subscription_(std::move(subscription)) {
        set(0, 0);
    }

    void handleTimeout() override { subscription_->open(*access_, agent_); }

private:
    const boost::intrusive_ptr<KXLAccessPrototype> access_;
    const KXLEID agent_;
    const boost::intrusive_ptr<EventSubscription> subscription_;
};

void EventSubscription::begin(const KXLAccessPointPrototype& agent, Mailbox& mailbox, std::uint64_t attempt,
                              std::uint64_t sinceMs) {
    const auto access = agent.getAccess();
    const boost::intrusive_ptr<EventSubscription> subscription(new EventSubscription(mailbox, attempt, sinceMs));
    if (access->registerTimeout(new Opening(access, agent.getEID(), subscription)) != 0) {
        subscription->handleFailure();
    }
}

void EventSubscription::open(KXLAccessPrototype& access, const KXLEID& agent) {
    connection_ = access.openEventConnection(agent, "live");
    if (connection_) {
        connection_->includeSince(sinceMs_);
    }
    const boost::intrusive_ptr<KXLTaskHandlerPrototype> self(this);
    if (!connection_ || connection_->subscribe(KXLEvent::subscriptionName, self) != 0) {
        handleFailure();
    }
}

void EventSubscription::handleFailure() {
    connection_.reset();
    mailbox_.put({Notice::Kind::Failed, attempt_, {}, 0});
}

void EventSubscription::handleMessage(KXLMessageTaskPrototype& task) {
    std::vector<KXLEvent> events;
    const std::unique_ptr<KXLMessageReaderPrototype> reader = task.makeReader();
    if (reader->enterField(KXLEvent::listField) == 0) {
        for (int found = reader->firstElement(KXLEvent::eventTag); found == 0;
             found = reader->nextElement(KXLEvent::eventTag)) {
            events.push_back(parse(*reader));
        }
    }
    task.finish();
    if (!events.empty()) {
        mailbox_.put({Notice::Kind::Events, attempt_, std::move(events), 0});
    }
}

}  // namespace kx::ctl
