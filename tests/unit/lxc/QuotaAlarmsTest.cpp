#include "agent/backends/lxc/QuotaAlarms.h"

#include <gmock/gmock.h>

#include <string>

#include "agent/backends/lxc/ResourceWatchContainer.h"

namespace kx::agent::lxc {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int64_t kGrace = 3600;

class QuotaAlarmsTest : public testing::Test {
protected:
    /// @return "source code value" of all that is told of so much disk space: 1000 are allowed for a time, 2000 at most
    std::vector<std::string> space(std::int64_t used, std::int64_t graceLeft = kGrace) {
        DiskQuota quota;
        quota.spaceUsed = used;
        quota.spaceSoftLimit = 1000;
        quota.spaceHardLimit = 2000;
        quota.spaceGrace = used > 1000 ? graceLeft : 0;
        return look(quota);
    }

    std::vector<std::string> look(const DiskQuota& quota) {
        std::vector<std::string> told;
        for (const AlertSignal& signal : alarms_.look(quota)) {
            EXPECT_EQ(signal.about, eid_);
            EXPECT_NE(signal.text, "");
            told.push_back(signal.source + " " + std::to_string(signal.code) + " " + std::to_string(signal.value));
        }
        return told;
    }

    const Eid eid_ = Eid::fromName("machine", "web");
    QuotaAlarms alarms_{eid_};
};

TEST_F(QuotaAlarmsTest, usageUpToTheSoftLimitIsNoAlert) {
    EXPECT_THAT(space(0), IsEmpty());
    EXPECT_THAT(space(1000), IsEmpty());
    EXPECT_FALSE(alarms_.isRaised());
}

TEST_F(QuotaAlarmsTest, usageBeyondTheSoftLimitIsAWarningThatIsToldOnce) {
    EXPECT_THAT(space(1001), ElementsAre("quota.space.soft 1 1001"));
    EXPECT_THAT(space(1500), IsEmpty());
    EXPECT_THAT(space(1500), IsEmpty());
    EXPECT_TRUE(alarms_.isRaised());
}

TEST_F(QuotaAlarmsTest, aWarningIsOverWellBelowTheSoftLimit) {
    space(1001);
    EXPECT_THAT(space(1000), IsEmpty());
    EXPECT_THAT(space(950), IsEmpty());
    EXPECT_THAT(space(949), ElementsAre("quota.space.soft 0 949"));
    EXPECT_FALSE(alarms_.isRaised());
    EXPECT_THAT(space(1000), IsEmpty());
    EXPECT_THAT(space(1001), ElementsAre("quota.space.soft 1 1001"));
}

TEST_F(QuotaAlarmsTest, theHardLimitIsCriticalOnceNoBlockMoreFitsIn) {
    space(1500);
    EXPECT_THAT(space(1979), IsEmpty());
    EXPECT_THAT(space(1980), ElementsAre("quota.space.hard 2 1980"));
    EXPECT_THAT(space(2000), IsEmpty());
    EXPECT_THAT(space(1900), IsEmpty());
    EXPECT_THAT(space(1899), ElementsAre("quota.space.hard 0 1899"));
    EXPECT_THAT(space(0), ElementsAre("quota.space.soft 0 0"));
}

TEST_F(QuotaAlarmsTest, bothLimitsReachedAtOnceAreTwoAlertsAndTwoClears) {
    EXPECT_THAT(space(2000), ElementsAre("quota.space.soft 1 2000", "quota.space.hard 2 2000"));
    EXPECT_THAT(space(10), ElementsAre("quota.space.soft 0 10", "quota.space.hard 0 10"));
}

TEST_F(QuotaAlarmsTest, aSoftLimitWhoseGraceIsOverIsAsGoodAsHard) {
    space(1500, 1);
    EXPECT_THAT(space(1500, 0), ElementsAre("quota.space.hard 2 1500"));
    EXPECT_THAT(space(1001, 0), IsEmpty());
    EXPECT_THAT(space(1000), ElementsAre("quota.space.hard 0 1000")) << "it may write again";
    EXPECT_THAT(space(10), ElementsAre("quota.space.soft 0 10"));
}

TEST_F(QuotaAlarmsTest, withoutLimitsNothingRunsOut) {
    DiskQuota quota;
    quota.spaceUsed = 1'000'000;
    quota.inodesUsed = 1'000'000;
    EXPECT_THAT(look(quota), IsEmpty());
}

TEST_F(QuotaAlarmsTest, limitsThatAreTakenAwayAreOver) {
    space(2000);
    DiskQuota quota;
    quota.spaceUsed = 2000;
    EXPECT_THAT(look(quota), ElementsAre("quota.space.soft 0 2000", "quota.space.hard 0 2000"));
}

TEST_F(QuotaAlarmsTest, aHardLimitAloneIsEnough) {
    DiskQuota quota;
    quota.spaceUsed = quota.spaceHardLimit = 5000;
    EXPECT_THAT(look(quota), ElementsAre("quota.space.hard 2 5000"));
}

TEST_F(QuotaAlarmsTest, inodesHaveAlertsOfTheirOwn) {
    DiskQuota quota;
    quota.inodesUsed = 300;
    quota.inodesSoftLimit = 100;
    quota.inodesHardLimit = 300;
    quota.inodesGrace = kGrace;
    EXPECT_THAT(look(quota), ElementsAre("quota.inodes.soft 1 300", "quota.inodes.hard 2 300"));
    quota.spaceUsed = 5;
    quota.spaceSoftLimit = 4;
    quota.spaceGrace = kGrace;
    EXPECT_THAT(look(quota), ElementsAre("quota.space.soft 1 5"));
    quota.inodesUsed = 0;
    EXPECT_THAT(look(quota), ElementsAre("quota.inodes.soft 0 0", "quota.inodes.hard 0 0"));
    EXPECT_TRUE(alarms_.isRaised());
}

TEST_F(QuotaAlarmsTest, eachAlertHasATextOfItsOwn) {
    std::vector<std::string> texts;
    for (const char* source :
         {kSpaceSoftLimitSource, kSpaceHardLimitSource, kInodesSoftLimitSource, kInodesHardLimitSource}) {
        for (const std::int32_t code : {kAlertClear, kAlertCritical}) {
            texts.push_back(resourceSignal(eid_, source, code, 0).text);
        }
    }
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(std::adjacent_find(texts.begin(), texts.end()), texts.end());
}

}  // namespace
}  // namespace kx::agent::lxc
