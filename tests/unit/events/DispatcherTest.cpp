#include "events/KXLDispatcher.h"

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

#include <kxl/KXLEvent.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using ReceiverPtr = boost::intrusive_ptr<KXLReceiver<KXLEvent>>;

/// Calls a function for each event.
class Receiver : public KXLReceiver<KXLEvent> {
public:
    explicit Receiver(std::function<void(const KXLEvent&)> receive) : receive_(std::move(receive)) {}
    int receive(const KXLEvent& event) override {
        receive_(event);
        return 0;
    }

private:
    std::function<void(const KXLEvent&)> receive_;
};

class Dispatcher : public testing::Test {
protected:
    ReceiverPtr named(const std::string& name) {
        return ReceiverPtr(
            new Receiver([this, name](const KXLEvent& event) { log_.push_back(name + event.getCategory()); }));
    }
    std::vector<std::string> dispatch() {
        log_.clear();
        dispatcher_.handleEvent(KXLEvent("!", nullptr));
        return log_;
    }

    std::vector<std::string> log_;
    KXLDispatcher<KXLEvent> dispatcher_;
};

TEST_F(Dispatcher, WithoutReceiversDropsEvents) {
    EXPECT_THAT(dispatch(), IsEmpty());
}

TEST_F(Dispatcher, DeliversInTheOrderOfKeysAndOfRegistration) {
    dispatcher_.addReceiver(0, named("b"));
    dispatcher_.addReceiver(5, named("d"));
    dispatcher_.addReceiver(0, named("c"));
    dispatcher_.addReceiver(-1, named("a"));
    EXPECT_THAT(dispatch(), ElementsAre("a!", "b!", "c!", "d!"));
}

TEST_F(Dispatcher, TakesTheReceiversOfAnotherOverInTheirOrder) {
    dispatcher_.addReceiver(0, named("a"));
    dispatcher_.addReceiver(0, named("b"));
    KXLDispatcher<KXLEvent> next;
    next.addReceiver(0, named("own"));
    next.addReceivers(dispatcher_.copyReceivers());
    log_.clear();
    next.handleEvent(KXLEvent("!", nullptr));
    EXPECT_THAT(log_, ElementsAre("own!", "a!", "b!"));
}

TEST_F(Dispatcher, LetsAReceiverRegisterAnotherThatGetsTheNextEvent) {
    dispatcher_.addReceiver(0, ReceiverPtr(new Receiver([this](const KXLEvent&) {
                                log_.push_back("registers");
                                dispatcher_.addReceiver(0, named("new"));
                            })));
    EXPECT_THAT(dispatch(), ElementsAre("registers"));
    EXPECT_THAT(dispatch(), ElementsAre("registers", "new!"));
}

}  // namespace
