// The order of virtual functions: code that was compiled against these classes calls them by their position.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "events/KXLSubscriber.h"

#include <kxl/KXLEvent.h>

namespace {

/// @return the position in the table of virtual functions, as the Itanium C++ ABI keeps it in a pointer to a member
template <typename Member>
std::ptrdiff_t slotOf(Member member) {
    std::ptrdiff_t words[2];
    static_assert(sizeof member == sizeof words);
    std::memcpy(words, &member, sizeof words);
#ifdef __aarch64__
    EXPECT_EQ(words[1] & 1, 1) << "not virtual";
    return words[0] / static_cast<std::ptrdiff_t>(sizeof(void*));
#else
    EXPECT_EQ(words[0] & 1, 1) << "not virtual";
    return (words[0] - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
#endif
}

using Subscriber = KXLSubscriber<KXLEvent>;
using Receiver = KXLReceiver<KXLEvent>;

constexpr std::ptrdiff_t destructorSlots = 2;

TEST(SlotOrder, OfASubscriberIsStopStartDestructorMessageFailure) {
    EXPECT_EQ(slotOf(&Subscriber::stop), 0);
    EXPECT_EQ(slotOf(static_cast<int (Subscriber::*)()>(&Subscriber::start)), 1);
    EXPECT_EQ(slotOf(&Subscriber::handleMessage), 2 + destructorSlots);
    EXPECT_EQ(slotOf(&Subscriber::handleFailure), 3 + destructorSlots);
}

TEST(SlotOrder, OfAReceiverIsReceiveThenLoss) {
    EXPECT_EQ(slotOf(&Receiver::receive), 0);
    EXPECT_EQ(slotOf(&Receiver::subscriptionLost), 1);
}

TEST(SlotOrder, OfATaskHandlerIsMessageFailureWriteRead) {
    EXPECT_EQ(slotOf(&KXLTaskHandlerPrototype::handleMessage), 0);
    EXPECT_EQ(slotOf(&KXLTaskHandlerPrototype::handleFailure), 1);
    EXPECT_EQ(slotOf(&KXLTaskHandlerPrototype::writeFinished), 2);
    EXPECT_EQ(slotOf(&KXLTaskHandlerPrototype::readFinished), 3);
}

TEST(SlotOrder, OfATimeoutBeginsWithItsCallback) {
    EXPECT_EQ(slotOf(&KXLTimeoutHandlerPrototype::handleTimeout), 0);
    EXPECT_EQ(slotOf(&Subscriber::RestartTimeoutHandlerPrototype::handleTimeout), 0);
}

}  // namespace
