#include "ctl/events/Mailbox.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <boost/make_shared.hpp>
#include <string>
#include <thread>

namespace kx::ctl {
namespace {

KXLEvent alertOf(std::size_t bytes) {
    const auto data = boost::make_shared<KXLResourceAlertData>();
    data->alertText = std::string(bytes, 'x');
    return {KXLResourceAlertData::category, data};
}

KXLEvent changeOf(std::size_t bytes) {
    const auto data = boost::make_shared<KXLEnvironmentChangeData>();
    data->name = std::string(bytes, 'x');
    return {KXLEnvironmentChangeData::category, data};
}

Notice eventsOf(std::size_t count, std::size_t bytes) {
    return {Notice::Kind::Events, 0, std::vector<KXLEvent>(count, alertOf(bytes)), 0};
}

bool isReadable(const Mailbox& mailbox) {
    pollfd watched{mailbox.descriptor(), POLLIN, 0};
    return ::poll(&watched, 1, 0) == 1;
}

/// The kinds of what is in it, a letter each; of an overflow the number.
std::string contentOf(Mailbox& mailbox) {
    std::string content;
    for (const Notice& notice : mailbox.takeAll()) {
        content += notice.kind == Notice::Kind::Overflow ? std::to_string(notice.missing)
                                                         : std::string(1, "ESFLB"[static_cast<int>(notice.kind)]);
    }
    return content;
}

TEST(Mailbox, GivesEverythingInTheOrderInWhichItCame) {
    Mailbox mailbox;
    mailbox.put({Notice::Kind::Subscribed, 1, {}, 0});
    mailbox.put(eventsOf(2, 1));
    mailbox.linkLost();
    mailbox.put({Notice::Kind::Failed, 1, {}, 0});
    mailbox.linkBack();
    EXPECT_EQ(contentOf(mailbox), "SELFB");
    EXPECT_EQ(contentOf(mailbox), "");
}

TEST(Mailbox, IsReadableWhileSomethingIsInIt) {
    Mailbox mailbox;
    EXPECT_FALSE(isReadable(mailbox));
    mailbox.linkLost();
    mailbox.linkBack();
    EXPECT_TRUE(isReadable(mailbox));
    mailbox.takeAll();
    EXPECT_FALSE(isReadable(mailbox));
}

TEST(Mailbox, CountsEventsInTheirPlaceWhenThereIsNoRoom) {
    Mailbox mailbox(10'000);
    mailbox.put(eventsOf(1, 9'000));
    mailbox.put(eventsOf(3, 9'000));
    mailbox.put(eventsOf(2, 9'000));
    mailbox.linkLost();
    mailbox.put(eventsOf(4, 9'000));
    EXPECT_EQ(contentOf(mailbox), "E5L4");
    mailbox.put(eventsOf(1, 9'000));
    EXPECT_EQ(contentOf(mailbox), "E") << "there is room again once it was emptied";
}

TEST(Mailbox, TakesASmallMessageAfterALargeOneHadNoRoom) {
    Mailbox mailbox(10'000);
    mailbox.put(eventsOf(1, 5'000));
    mailbox.put(eventsOf(1, 9'000));
    mailbox.put(eventsOf(1, 10));
    EXPECT_EQ(contentOf(mailbox), "E1E");
}

TEST(Mailbox, HasRoomForOneMessageOfAnySize) {
    Mailbox mailbox(100);
    mailbox.put(eventsOf(1, 100'000));
    EXPECT_EQ(contentOf(mailbox), "E");
}

TEST(Mailbox, CountsTheNamesOfChangesAndEventsWithoutAnything) {
    Mailbox mailbox(10'000);
    mailbox.put({Notice::Kind::Events, 0, {changeOf(9'000)}, 0});
    mailbox.put({Notice::Kind::Events, 0, {changeOf(9'000)}, 0});
    EXPECT_EQ(contentOf(mailbox), "E1");
    mailbox.put({Notice::Kind::Events, 0, std::vector<KXLEvent>(100), 0});
    mailbox.put({Notice::Kind::Events, 0, std::vector<KXLEvent>(100), 0});
    EXPECT_EQ(contentOf(mailbox), "E100");
}

TEST(Mailbox, LosesNothingBetweenTwoThreads) {
    constexpr std::uint64_t kNotices = 20'000;
    Mailbox mailbox;
    std::thread other([&] {
        for (std::uint64_t i = 0; i < kNotices; ++i) {
            mailbox.put({Notice::Kind::Failed, i, {}, 0});
        }
    });
    std::uint64_t expected = 0;
    while (expected < kNotices) {
        pollfd watched{mailbox.descriptor(), POLLIN, 0};
        ASSERT_EQ(::poll(&watched, 1, 20'000), 1) << "it is not readable though something is to come";
        for (const Notice& notice : mailbox.takeAll()) {
            ASSERT_EQ(notice.attempt, expected++);
        }
    }
    other.join();
}

}  // namespace
}  // namespace kx::ctl
