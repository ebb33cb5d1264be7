#include "agent/backends/lxc/QuotaWatch.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <set>

namespace kx::agent::lxc {
namespace {

using std::chrono::milliseconds;

constexpr auto kDeadline = std::chrono::seconds(10);

/// The disk and the sink, both in the test's hands.
class QuotaWatchTest : public testing::Test {
protected:
    void start(milliseconds period = milliseconds(1)) {
        watch_ = std::make_unique<QuotaWatch>([this](AlertSignal signal) { take(std::move(signal)); },
                                              [this](const std::string& folder) { return read(folder); }, period);
    }

    /// What a container uses of its soft limit of 100.
    void use(const std::string& folder, std::int64_t used) {
        const std::lock_guard lock(mutex_);
        used_[folder] = used;
    }

    /// @return whether the alert with this code has come in time
    bool tells(const std::string& name, std::int32_t code) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, kDeadline, [&] {
            const auto found = told_.find(eidOf(name));
            return found != told_.end() && found->second == code;
        });
    }

    /// Waits until every container that is watched now has been read again, or the whole deadline is over.
    bool looksAt(const std::string& folder, int times = 2) {
        std::unique_lock lock(mutex_);
        const int before = reads_[folder];
        return changed_.wait_for(lock, kDeadline, [&] { return reads_[folder] >= before + times; });
    }

    int reads(const std::string& folder) {
        const std::lock_guard lock(mutex_);
        return reads_[folder];
    }

    static Eid eidOf(const std::string& name) { return Eid::fromName("machine", name); }
    static QuotaTargets targets(const std::vector<std::string>& names) {
        QuotaTargets targets;
        for (const std::string& name : names) {
            targets.insert({eidOf(name), "/" + name});
        }
        return targets;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, std::int64_t> used_;
    std::map<std::string, int> reads_;
    std::map<Eid, std::int32_t> told_;
    std::unique_ptr<QuotaWatch> watch_;

private:
    void take(AlertSignal signal) {
        const std::lock_guard lock(mutex_);
        told_[signal.about] = signal.code;
        changed_.notify_all();
    }
    QuotaReading read(const std::string& folder) {
        const std::lock_guard lock(mutex_);
        ++reads_[folder];
        changed_.notify_all();
        QuotaReading reading;
        reading.quota.spaceSoftLimit = 100;
        reading.quota.spaceUsed = used_[folder];
        reading.quota.spaceGrace = used_[folder] > 100 ? 60 : 0;
        return reading;
    }
};

TEST_F(QuotaWatchTest, looksAtEachContainersRootFolderAgainAndAgain) {
    start();
    watch_->setTargets(targets({"web", "db"}));
    EXPECT_TRUE(looksAt("/web", 3));
    EXPECT_TRUE(looksAt("/db", 3));
}

TEST_F(QuotaWatchTest, tellsWhatRunsOutAndWhenThatIsOver) {
    start();
    watch_->setTargets(targets({"web", "db"}));
    use("/web", 101);
    EXPECT_TRUE(tells("web", kAlertWarning));
    use("/web", 1);
    EXPECT_TRUE(tells("web", kAlertClear));
    const std::lock_guard lock(mutex_);
    EXPECT_EQ(told_.count(eidOf("db")), 0U);
}

TEST_F(QuotaWatchTest, aNewSetOfContainersDoesNotBeginAnAlertAnew) {
    start();
    use("/web", 101);
    watch_->setTargets(targets({"web"}));
    ASSERT_TRUE(tells("web", kAlertWarning));
    {
        const std::lock_guard lock(mutex_);
        told_.clear();
    }
    watch_->setTargets(targets({"web", "db"}));
    ASSERT_TRUE(looksAt("/db"));
    const std::lock_guard lock(mutex_);
    EXPECT_THAT(told_, testing::IsEmpty());
}

TEST_F(QuotaWatchTest, aContainerThatHasStoppedIsLookedAtUntilNothingIsRaised) {
    start();
    use("/web", 101);
    watch_->setTargets(targets({"web", "db"}));
    ASSERT_TRUE(tells("web", kAlertWarning));
    watch_->setTargets(targets({"db"}));
    ASSERT_TRUE(looksAt("/web", 3));
    use("/web", 0);
    ASSERT_TRUE(tells("web", kAlertClear));
    ASSERT_TRUE(looksAt("/db"));
    const int last = reads("/web");
    ASSERT_TRUE(looksAt("/db", 3));
    EXPECT_EQ(reads("/web"), last);
}

TEST_F(QuotaWatchTest, aFolderThatHasMovedIsLookedAtWhereItIs) {
    start();
    watch_->setTargets({{eidOf("web"), "/old"}});
    ASSERT_TRUE(looksAt("/old"));
    watch_->setTargets({{eidOf("web"), "/new"}});
    EXPECT_TRUE(looksAt("/new"));
}

std::set<std::string> threads() {
    std::set<std::string> found;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        found.insert(thread.path().filename());
    }
    return found;
}

/// @return whether there is a thread beside those from before, and it waits for something (proc(5): state S)
bool newThreadSleeps(const std::set<std::string>& before) {
    for (const std::string& thread : threads()) {
        std::ifstream file("/proc/self/task/" + thread + "/stat");
        std::string stat;
        std::getline(file, stat);
        const auto state = stat.rfind(") ");
        if (!before.contains(thread) && state != std::string::npos && stat[state + 2] == 'S') {
            return true;
        }
    }
    return false;
}

TEST_F(QuotaWatchTest, endsAtOnceBetweenLooks) {
    const std::set<std::string> before = threads();
    // Longer than it may take, and not so long that a failure stops everything.
    start(3 * kDeadline);
    watch_->setTargets(targets({"web"}));
    const auto until = std::chrono::steady_clock::now() + kDeadline;
    while (!newThreadSleeps(before)) {
        ASSERT_LT(std::chrono::steady_clock::now(), until) << "it never waits";
        std::this_thread::yield();
    }
    const auto begun = std::chrono::steady_clock::now();
    watch_.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begun, kDeadline);
}

}  // namespace
}  // namespace kx::agent::lxc
