#include "ctl/events/ContainerNames.h"

#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include "tests/support/MakeEnv.h"

namespace kx::ctl {
namespace {

using Kind = KXLEnvironmentChangeData::Kind;

KXLEID eidOf(int number) {
    KXLGUIDBase::Bytes bytes{};
    bytes.back() = static_cast<std::uint8_t>(number);
    return KXLEID(bytes);
}

wire::Environment container(int number, int veid, const std::string& name) {
    wire::Environment made = test::wireEnv(number);
    made.mutable_configuration()->set_veid(veid);
    made.mutable_configuration()->set_name(name);
    return made;
}

KXLEvent alertAbout(int number) {
    const auto data = boost::make_shared<KXLResourceAlertData>();
    data->eid = eidOf(number);
    return {KXLResourceAlertData::category, data};
}

KXLEvent changeOf(int number, Kind kind, const std::string& name) {
    const auto data = boost::make_shared<KXLEnvironmentChangeData>();
    data->eid = eidOf(number);
    data->kind = kind;
    data->name = name;
    return {KXLEnvironmentChangeData::category, data};
}

class ContainerNamesTest : public testing::Test {
protected:
    void publish(const std::vector<wire::Environment>& environments) {
        client::EnvFeed feed;
        wire::SnapshotChunk chunk;
        chunk.set_generation(1);
        chunk.set_last(true);
        for (const wire::Environment& environment : environments) {
            *chunk.add_environments() = environment;
        }
        ASSERT_EQ(feed.take(chunk), client::EnvFeed::Outcome::Updated);
        cache->store().publish(feed.current());
    }

    boost::intrusive_ptr<KXLEnvCache> cache = test::makeCache({container(1, 101, "web"), test::wireEnv(2)});
    KXLEID host = eidOf(9);
    ContainerNames names{cache, [this] { return host; }};
};

TEST_F(ContainerNamesTest, AreThoseOfTheCache) {
    const auto web = names.of(alertAbout(1));
    ASSERT_TRUE(web);
    EXPECT_EQ(web->eid, eidOf(1));
    EXPECT_EQ(web->veid, 101);
    EXPECT_EQ(web->name, "web");
    EXPECT_FALSE(web->isHost);
}

TEST_F(ContainerNamesTest, HaveNoNumberWhereTheConfigurationHasNone) {
    EXPECT_EQ(names.of(alertAbout(2))->veid, std::nullopt);
}

TEST_F(ContainerNamesTest, AreMissingForAnEnvironmentThatNobodyKnows) {
    const auto unknown = names.of(alertAbout(77));
    ASSERT_TRUE(unknown);
    EXPECT_EQ(unknown->eid, eidOf(77));
    EXPECT_EQ(unknown->veid, std::nullopt);
    EXPECT_EQ(unknown->name, std::nullopt);
}

TEST_F(ContainerNamesTest, TellTheHostByTheIdentifierThatTheAgentHasNow) {
    EXPECT_TRUE(names.of(alertAbout(9))->isHost);
    host = eidOf(1);
    EXPECT_FALSE(names.of(alertAbout(9))->isHost);
    EXPECT_TRUE(names.of(alertAbout(1))->isHost);
}

TEST_F(ContainerNamesTest, AreNothingForAnEventAboutNoEnvironment) {
    EXPECT_FALSE(names.of(KXLEvent("something new", nullptr)));
}

TEST_F(ContainerNamesTest, KeepTheNumberOfAContainerUntilItsRemovalWasTold) {
    publish({});
    EXPECT_EQ(names.of(alertAbout(1))->veid, 101);
    const auto removed = names.of(changeOf(1, Kind::Removed, "web"));
    EXPECT_EQ(removed->veid, 101);
    EXPECT_EQ(removed->name, "web");
    EXPECT_EQ(names.of(alertAbout(1))->veid, std::nullopt);
}

TEST_F(ContainerNamesTest, KeepTheNumberOfAContainerThatWasAddedMeanwhile) {
    publish({container(3, 103, "db")});
    names.of(changeOf(3, Kind::Added, "db"));
    publish({});
    EXPECT_EQ(names.of(changeOf(3, Kind::Removed, "db"))->veid, 103);
}

TEST_F(ContainerNamesTest, AreThoseOfTheChangeEvenWhenTheCacheIsFurther) {
    publish({container(1, 101, "third name")});
    EXPECT_EQ(names.of(changeOf(1, Kind::Modified, std::string("se\0cond", 7)))->name, std::string("se\0cond", 7));
}

TEST_F(ContainerNamesTest, AreThereOnceTheCacheHasTheLastOfThoseThatWereAdded) {
    const std::vector<KXLEvent> events{changeOf(1, Kind::Removed, ""), changeOf(3, Kind::Added, ""),
                                       changeOf(4, Kind::Added, ""), changeOf(77, Kind::Modified, ""), alertAbout(78)};
    EXPECT_FALSE(names.hasLastAddedOf(events));
    publish({container(3, 103, "")});
    EXPECT_FALSE(names.hasLastAddedOf(events));
    publish({container(4, 104, "")});
    EXPECT_TRUE(names.hasLastAddedOf(events));
    EXPECT_TRUE(names.hasLastAddedOf({changeOf(77, Kind::Modified, ""), alertAbout(78)})) << "nothing was added";
    EXPECT_TRUE(names.hasLastAddedOf({}));
}

TEST_F(ContainerNamesTest, AreLearntAnew) {
    publish({container(4, 104, "new")});
    names.learnAll();
    publish({});
    EXPECT_EQ(names.of(alertAbout(4))->veid, 104);
    EXPECT_EQ(names.of(alertAbout(1))->veid, std::nullopt);
}

}  // namespace
}  // namespace kx::ctl
