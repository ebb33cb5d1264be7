#include "agent/core/BackendSlot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace kx::agent {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A backend that the test speaks for.
class Puppet : public Backend {
public:
    void start() override {}
    void stop() override {}
    std::string name() const override { return "puppet"; }
};

class BackendSlotTest : public testing::Test {
protected:
    void make() {
        slot_ = std::make_unique<BackendSlot>(
            BackendKind::Simulated,
            [this](BackendListener& listener) {
                listener_ = &listener;
                return std::make_unique<Puppet>();
            },
            [this](HostImage image) { got_.push_back("image of " + std::to_string(image.environments.size())); },
            [this](AlertSignal signal) { got_.push_back(signal.text); });
    }

    void show(std::size_t environments) { listener_->hostChanged({std::vector<Environment>(environments), {}}); }
    void alert(const std::string& text) { listener_->alert({Eid(), "test", kAlertCritical, text, 0}); }

    std::vector<std::string> got_;
    BackendListener* listener_ = nullptr;
    std::unique_ptr<BackendSlot> slot_;
};

TEST_F(BackendSlotTest, HoldsBackTheLastImageAndAllAlertsUntilItIsTheOneToUse) {
    make();
    show(1);
    alert("one");
    show(2);
    alert("two");
    EXPECT_THAT(got_, IsEmpty());
    slot_->activate();
    EXPECT_THAT(got_, ElementsAre("image of 2", "one", "two"));
}

TEST_F(BackendSlotTest, FromThenOnItLetsThemThrough) {
    make();
    slot_->activate();
    show(1);
    alert("one");
    EXPECT_THAT(got_, ElementsAre("image of 1", "one"));
}

TEST_F(BackendSlotTest, ABackendThatSaysNothingOfItIsReal) {
    make();
    EXPECT_FALSE(slot_->isDescribed());
}

}  // namespace
}  // namespace kx::agent
