// The watch with its thread, over files that take the place of the kernel's: inotify works on them as on cgroups of
// v2. What v1 does is in ResourceWatchLabTest.cpp.
#include "agent/backends/lxc/ResourceWatch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <functional>
#include <iterator>
#include <map>

#include "tests/support/TemporaryFolder.h"

namespace kx::agent::lxc {
namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds kPatience{20};

/// What is never due while a test runs.
constexpr milliseconds kNever = std::chrono::hours(1);

class ResourceWatchTest : public testing::Test {
protected:
    ResourceWatchTest() {
        times_.look = milliseconds(50);
        hostKills(100);
    }

    void start() {
        watch_ = std::make_unique<ResourceWatch>(
            ResourceWatchSettings{host_, times_, folder_ / "vmstat", {folder_.path(), true}},
            [this](AlertSignal signal) {
                const std::function<void()> first = std::exchange(duringNextSignal_, nullptr);
                {
                    const std::lock_guard lock(mutex_);
                    told_.push_back(std::move(signal));
                    changed_.notify_all();
                }
                if (first) {
                    first();
                }
            },
            [this](Severity, const std::string& line) {
                const std::lock_guard lock(mutex_);
                logged_.push_back(line);
            });
    }

    /// A file that is written in place is empty for a moment, which the kernel's never are.
    void replace(const std::string& name, const std::string& text) {
        folder_.write("fresh", text);
        std::filesystem::rename(folder_ / "fresh", folder_ / name);
    }

    /// The same of a file that somebody is told of who watches it: what is written over it must not be shorter.
    void writeOver(const std::string& name, const std::string& text) {
        std::fstream(folder_ / name, std::ios::in | std::ios::out) << text;
    }

    void hostKills(int number) { replace("vmstat", "oom_kill " + std::to_string(number) + "\n"); }

    /// @return a container's cgroups of v2, as long as nothing is wrong with it
    ResourceFolders make(const std::string& name) {
        folder_.write(name + "/memory.current", "10\n");
        folder_.write(name + "/memory.events", eventsText(0, 0));
        folder_.write(name + "/memory.max", "1000\n");
        folder_.write(name + "/memory.stat", "");
        folder_.write(name + "/pids.max", "100\n");
        folder_.write(name + "/pids.current", "10\n");
        folder_.write(name + "/pids.events", pidsText(0));
        return {{folder_ / name, true}, {folder_ / name, true}};
    }

    ResourceFolders makeV1(const std::string& name) {
        make(name);
        folder_.write(name + "/memory.oom_control", "oom_kill 0\n");
        folder_.write(name + "/memory.failcnt", "0\n");
        return {{folder_ / name, false}, {folder_ / name, false}};
    }

    void memory(const std::string& name, int used) { replace(name + "/memory.current", std::to_string(used) + "\n"); }
    void events(const std::string& name, int hits, int kills) {
        writeOver(name + "/memory.events", eventsText(hits, kills));
    }
    static std::string eventsText(int hits, int kills) {
        return "max " + std::to_string(hits) + "\noom_kill " + std::to_string(kills) + "\n";
    }
    void pidsHits(const std::string& name, int hits) { writeOver(name + "/pids.events", pidsText(hits)); }
    static std::string pidsText(int hits) { return "max " + std::to_string(hits) + "\n"; }

    /// Has the watch told that a container is about to lose a process, as the kernel does under v1: by the descriptor
    /// that the watch has written into a file of the cgroup.
    /// @param prepare done right before
    void announceKill(
        const std::string& name, const std::function<void()>& prepare = [] {}) {
        int event = -1;
        int subject = -1;
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (std::sscanf(folder_.read(name + "/cgroup.event_control").c_str(), "%d %d", &event, &subject) != 2) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "the watch has not asked to be told";
            std::this_thread::sleep_for(milliseconds(1));
        }
        prepare();
        ASSERT_EQ(::eventfd_write(event, 1), 0);
    }

    static Eid eidOf(const std::string& name) { return Eid::fromName("machine", name); }

    bool tells(const std::string& source, std::int32_t code, const Eid& about, milliseconds patience = kPatience) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, patience, [&] {
            return std::any_of(told_.begin(), told_.end(), [&](const AlertSignal& signal) {
                return signal.source == source && signal.code == code && signal.about == about;
            });
        });
    }

    /// @return whether it is told that a container has lost so many processes in all
    bool tellsOfKills(const Eid& about, std::int64_t count, milliseconds patience = kPatience) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, patience, [&] {
            return std::any_of(told_.begin(), told_.end(), [&](const AlertSignal& signal) {
                return signal.source == kMemoryOomSource && signal.code == kAlertCritical && signal.about == about &&
                       signal.value == count;
            });
        });
    }

    /// Nothing tells from when on a container is watched; what has happened before is no alert, so it happens until
    /// one comes.
    /// @param happen is told how often it has happened
    bool tellsInTheEnd(const std::string& source, const Eid& about, const std::function<void(int)>& happen) {
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        for (int times = 1; std::chrono::steady_clock::now() < deadline; ++times) {
            happen(times);
            const bool isWarning = source == kMemoryLimitSource;
            if (tells(source, isWarning ? kAlertWarning : kAlertCritical, about, milliseconds(20))) {
                happened_ = times;
                return true;
            }
        }
        return false;
    }

    std::vector<AlertSignal> told(const std::string& source) {
        const std::lock_guard lock(mutex_);
        std::vector<AlertSignal> found;
        std::copy_if(told_.begin(), told_.end(), std::back_inserter(found),
                     [&](const AlertSignal& signal) { return signal.source == source; });
        return found;
    }

    void forgetTold() {
        const std::lock_guard lock(mutex_);
        told_.clear();
    }

    test::TemporaryFolder folder_;
    const Eid host_ = eidOf("host");
    ResourceTimes times_;
    int happened_ = 0;
    std::function<void()> duringNextSignal_;  ///< run by the watch's thread; set before it may tell anything
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<AlertSignal> told_;    ///< guarded by mutex_
    std::vector<std::string> logged_;  ///< guarded by mutex_
    std::unique_ptr<ResourceWatch> watch_;
};

TEST_F(ResourceWatchTest, aKillIsToldWhenTheKernelTellsOfIt) {
    times_.look = times_.calmLook = kNever;
    start();
    watch_->track(eidOf("web"), make("web"));
    ASSERT_TRUE(tellsInTheEnd(kMemoryOomSource, eidOf("web"), [&](int times) { events("web", 0, times); }));
    events("web", 0, 1000);
    EXPECT_TRUE(tellsOfKills(eidOf("web"), 1000));
}

TEST_F(ResourceWatchTest, aHitOfTheLimitOfProcessesIsToldWhenTheKernelTellsOfIt) {
    times_.calmLook = kNever;
    start();
    watch_->track(eidOf("web"), make("web"));
    EXPECT_TRUE(tellsInTheEnd(kPidsLimitSource, eidOf("web"), [&](int times) { pidsHits("web", times); }));
}

TEST_F(ResourceWatchTest, memoryThatIsUsedUpIsToldAndItsEndToo) {
    times_.calmLook = kNever;
    times_.confirmLevel = milliseconds(100);
    times_.quietAfterLevel = milliseconds(100);
    start();
    watch_->track(eidOf("web"), make("web"));
    memory("web", 1000);
    ASSERT_TRUE(tellsInTheEnd(kMemoryLimitSource, eidOf("web"), [&](int times) { events("web", times, 0); }));
    memory("web", 100);
    EXPECT_TRUE(tells(kMemoryLimitSource, kAlertClear, eidOf("web")));
}

TEST_F(ResourceWatchTest, whereTheKernelTellsNothingLooksFindIt) {
    times_.confirmLevel = milliseconds(0);
    start();
    folder_.write("web/cgroup.event_control", "");
    watch_->track(eidOf("web"), makeV1("web"));
    EXPECT_TRUE(tellsInTheEnd(kPidsLimitSource, eidOf("web"), [&](int times) { pidsHits("web", times); }));
    folder_.write("web/memory.limit_in_bytes", "1000\n");
    folder_.write("web/memory.usage_in_bytes", "1000\n");
    EXPECT_TRUE(tellsInTheEnd(kMemoryLimitSource, eidOf("web"),
                              [&](int times) { replace("web/memory.failcnt", std::to_string(times) + "\n"); }));
    const std::lock_guard lock(mutex_);
    EXPECT_THAT(logged_, testing::IsEmpty());
}

TEST_F(ResourceWatchTest, thatTheKernelCannotBeAskedIsOneLineAndLooksFindIt) {
    start();
    for (const std::string name : {"web", "db"}) {
        watch_->track(eidOf(name), makeV1(name));
    }
    EXPECT_TRUE(tellsInTheEnd(kMemoryOomSource, eidOf("db"), [&](int times) {
        replace("db/memory.oom_control", "oom_kill " + std::to_string(times) + "\n");
    }));
    const std::lock_guard lock(mutex_);
    ASSERT_THAT(logged_, testing::SizeIs(1));
    EXPECT_THAT(logged_[0], testing::HasSubstr("No such file"));
}

TEST_F(ResourceWatchTest, aContainerThatHasStoppedIsClearedInItsTimeAndNoMoreRead) {
    times_.quietAfterKill = milliseconds(500);
    start();
    watch_->track(eidOf("web"), make("web"));
    ASSERT_TRUE(tellsInTheEnd(kMemoryOomSource, eidOf("web"), [&](int times) { events("web", 0, times); }));
    watch_->untrack(eidOf("web"));
    // Orders are obeyed in order: once the later one is watched, the earlier one no longer is.
    watch_->track(eidOf("db"), make("db"));
    ASSERT_TRUE(tellsInTheEnd(kMemoryOomSource, eidOf("db"), [&](int times) { events("db", 0, times); }));
    events("web", 0, 1000);
    // On a slow machine it has been cleared before it stopped, so nothing of what was told is forgotten.
    EXPECT_TRUE(tells(kMemoryOomSource, kAlertClear, eidOf("web")));
    EXPECT_FALSE(tellsOfKills(eidOf("web"), 1000, 5 * times_.look));
}

TEST_F(ResourceWatchTest, whatHappensLastIsSeenAtTheEnd) {
    times_.look = times_.calmLook = kNever;
    start();
    folder_.write("web/cgroup.event_control", "");
    watch_->track(eidOf("web"), makeV1("web"));
    watch_->track(eidOf("db"), make("db"));
    // Both are watched once the later one is.
    ASSERT_TRUE(tellsInTheEnd(kMemoryOomSource, eidOf("db"), [&](int times) { events("db", 0, times); }));
    replace("web/memory.oom_control", "oom_kill 1\n");
    watch_->untrack(eidOf("web"));
    EXPECT_TRUE(tells(kMemoryOomSource, kAlertCritical, eidOf("web")));
}

TEST_F(ResourceWatchTest, processesKilledOutsideOfContainersAreTheHosts) {
    times_.look = milliseconds(200);
    times_.quietAfterKill = milliseconds(300);
    start();
    // From then on the host's count has been read: one that is read between a kill's two counts is of no use.
    ASSERT_TRUE(tellsInTheEnd(kHostOomSource, host_, [&](int times) { hostKills(100 + times); }));
    ASSERT_TRUE(tells(kHostOomSource, kAlertClear, host_));
    const int host = 100 + happened_;
    const std::int64_t before = told(kHostOomSource).back().value;
    forgetTold();
    // The container's count comes first: what is seen of it earlier is none of the host's.
    watch_->track(eidOf("web"), make("web"));
    ASSERT_TRUE(tellsInTheEnd(kMemoryOomSource, eidOf("web"), [&](int times) {
        events("web", 0, times);
        hostKills(host + times);
    }));
    const int seen = happened_;
    events("web", 0, seen + 5);
    hostKills(host + seen + 5);
    ASSERT_TRUE(tellsOfKills(eidOf("web"), seen + 5));
    EXPECT_THAT(told(kHostOomSource), testing::IsEmpty());
    ASSERT_TRUE(tellsInTheEnd(kHostOomSource, host_, [&](int) { hostKills(host + seen + 5 + 7); }));
    EXPECT_EQ(told(kHostOomSource).at(0).value, before + 7) << "without the container's";
    EXPECT_TRUE(tells(kHostOomSource, kAlertClear, host_));
}

TEST_F(ResourceWatchTest, aKillForTheLimitOfAnotherCgroupIsNotTheHosts) {
    times_.look = milliseconds(200);
    times_.quietAfterKill = milliseconds(300);
    folder_.write("service/memory.events", "oom 0\noom_kill 0\n");
    start();
    ASSERT_TRUE(tellsInTheEnd(kHostOomSource, host_, [&](int times) { hostKills(100 + times); }));
    ASSERT_TRUE(tells(kHostOomSource, kAlertClear, host_)) << "all of them have been taken in";
    const int host = 100 + happened_;
    forgetTold();
    replace("service/memory.events", "oom 3\noom_kill 3\n");
    hostKills(host + 3);
    EXPECT_FALSE(tells(kHostOomSource, kAlertCritical, host_, 5 * times_.look));
    EXPECT_TRUE(tellsInTheEnd(kHostOomSource, host_, [&](int times) { hostKills(host + 3 + times); }));
}

TEST_F(ResourceWatchTest, killsThatV1DoesNotTellOfAreLookedForWhenTheHostCountsThem) {
    start();
    folder_.write("web/cgroup.event_control", "");
    folder_.write("web/service/memory.oom_control", "oom_kill 0\n");
    watch_->track(eidOf("web"), makeV1("web"));
    EXPECT_TRUE(tellsInTheEnd(kMemoryOomSource, eidOf("web"), [&](int times) {
        replace("web/service/memory.oom_control", "oom_kill " + std::to_string(times) + "\n");
        hostKills(100 + times);
    }));
    EXPECT_THAT(told(kHostOomSource), testing::IsEmpty());
}

TEST_F(ResourceWatchTest, killsThatV1AnnouncesAreNotLookedForWithoutASign) {
    start();
    folder_.write("web/cgroup.event_control", "");
    watch_->track(eidOf("web"), makeV1("web"));
    ASSERT_TRUE(tellsInTheEnd(kPidsLimitSource, eidOf("web"), [&](int times) { pidsHits("web", times); }));
    replace("web/memory.oom_control", "oom_kill 1\n");
    forgetTold();
    ASSERT_TRUE(tellsInTheEnd(kPidsLimitSource, eidOf("web"), [&](int times) { pidsHits("web", 1000 + times); }));
    EXPECT_THAT(told(kMemoryOomSource), testing::IsEmpty());
    announceKill("web");
    EXPECT_TRUE(tells(kMemoryOomSource, kAlertCritical, eidOf("web")));
}

TEST_F(ResourceWatchTest, aKillThatV1AnnouncesIsLookedForUntilItIsCounted) {
    times_.look = kNever;
    start();
    folder_.write("web/cgroup.event_control", "");
    watch_->track(eidOf("web"), makeV1("web"));
    announceKill("web");
    // Some of the looks have found nothing by then.
    EXPECT_FALSE(tells(kMemoryOomSource, kAlertCritical, eidOf("web"), milliseconds(20)));
    replace("web/memory.oom_control", "oom_kill 1\n");
    EXPECT_TRUE(tells(kMemoryOomSource, kAlertCritical, eidOf("web")));
}

TEST_F(ResourceWatchTest, aContainerThatDiesOfAnAnnouncedKillIsToldInTheHostsPlace) {
    start();
    folder_.write("web/cgroup.event_control", "");
    watch_->track(eidOf("web"), makeV1("web"));
    announceKill("web");
    watch_->untrack(eidOf("web"));
    hostKills(101);
    EXPECT_TRUE(tells(kMemoryOomSource, kAlertCritical, eidOf("web")));
    EXPECT_FALSE(tells(kHostOomSource, kAlertCritical, host_, 5 * times_.look));
}

// The kernel's notice and the end come while the watch is busy, so it learns of the end first.
TEST_F(ResourceWatchTest, AKillAnnouncedRightBeforeAContainersEndIsItsOwn) {
    folder_.write("web/cgroup.event_control", "");
    folder_.write("db/cgroup.event_control", "");
    duringNextSignal_ = [this] {
        announceKill("web");
        watch_->untrack(eidOf("web"));
    };
    start();
    watch_->track(eidOf("web"), makeV1("web"));
    watch_->track(eidOf("db"), makeV1("db"));
    announceKill("db", [this] { replace("db/memory.oom_control", "oom_kill 1\n"); });
    ASSERT_TRUE(tells(kMemoryOomSource, kAlertCritical, eidOf("db")));
    hostKills(102);
    EXPECT_TRUE(tells(kMemoryOomSource, kAlertCritical, eidOf("web")));
    EXPECT_FALSE(tells(kHostOomSource, kAlertCritical, host_, 5 * times_.look));
}

TEST_F(ResourceWatchTest, theRemovalOfACgroupAnnouncesNoKill) {
    start();
    folder_.write("web/cgroup.event_control", "");
    watch_->track(eidOf("web"), makeV1("web"));
    announceKill("web", [this] { std::filesystem::remove(folder_ / "web/memory.oom_control"); });
    watch_->untrack(eidOf("web"));
    hostKills(101);
    EXPECT_TRUE(tells(kHostOomSource, kAlertCritical, host_));
    EXPECT_THAT(told(kMemoryOomSource), testing::IsEmpty());
}

/// @return the process's threads and the signals that each has blocked
std::map<std::string, std::uint64_t> blockedSignals() {
    std::map<std::string, std::uint64_t> masks;
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream status(thread.path() / "status");
        for (std::string word; status >> word;) {
            if (word == "SigBlk:") {
                status >> std::hex >> masks[thread.path().filename()];
            }
        }
    }
    return masks;
}

TEST_F(ResourceWatchTest, itsThreadTakesNoSignals) {
    const auto before = blockedSignals();
    start();
    const auto after = blockedSignals();
    ASSERT_EQ(after.size(), before.size() + 1);
    for (const auto& [thread, mask] : after) {
        if (!before.contains(thread)) {
            for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
                EXPECT_NE(mask & (std::uint64_t{1} << static_cast<unsigned>(number - 1)), 0U) << number;
            }
        }
    }
}

TEST_F(ResourceWatchTest, itEndsAtOnceWhateverItWatches) {
    start();
    for (int i = 0; i < 300; ++i) {
        const std::string name = "ct" + std::to_string(i);
        watch_->track(eidOf(name), make(name));
    }
    const auto begin = std::chrono::steady_clock::now();
    watch_.reset();
    // Obeying 300 orders is part of it, under a sanitizer too.
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
}

}  // namespace
}  // namespace kx::agent::lxc
