#include "agent/backends/simulated/FileWatch.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/TemporaryFolder.h"

namespace kx::agent::simulated {
namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds kPatience{20};

class FileWatchTest : public testing::Test {
protected:
    void watch(const std::string& path) {
        watch_ = std::make_unique<FileWatch>(io_, path, [this] { ++reports_; });
    }

    static void write(const std::string& path) { std::ofstream(path) << "text"; }

    /// Runs the loop until there are more reports than before.
    bool reports(const std::function<void()>& meanwhile = [] {}) {
        const int before = reports_;
        const auto end = std::chrono::steady_clock::now() + kPatience;
        while (reports_ == before && std::chrono::steady_clock::now() < end) {
            meanwhile();
            io_.restart();
            io_.run_one_for(milliseconds(5));
        }
        return reports_ > before;
    }

    boost::asio::io_context io_;
    test::TemporaryFolder folder_;
    int reports_ = 0;
    std::unique_ptr<FileWatch> watch_;
};

TEST_F(FileWatchTest, AFileThatIsWrittenAllTheTimeIsReportedAllTheSame) {
    watch(folder_ / "file");
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(reports([&] { write(folder_ / "file"); }));
    }
}

TEST_F(FileWatchTest, AChangeWhoseNoticeWasLostIsReported) {
    std::size_t most = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> most;
    ASSERT_GT(most, 0U);
    watch(folder_ / "file");
    // Notices of other files fill the queue, so that there is no space for the one that counts.
    for (std::size_t i = 0; i <= most / 2; ++i) {
        const std::string other = folder_ / "other" + std::to_string(i % 2);
        write(other);
        std::filesystem::remove(other);
    }
    write(folder_ / "file");
    EXPECT_TRUE(reports());
}

TEST_F(FileWatchTest, ALinkThatIsTurnedAgainAndAgainIsFollowed) {
    for (const char* name : {"one", "two"}) {
        std::filesystem::create_directory(folder_ / name);
        write(folder_ / name + "/file");
    }
    std::filesystem::create_symlink("one", folder_ / "current");
    watch(folder_ / "current/file");
    for (const char* name : {"two", "one", "two"}) {
        std::filesystem::create_symlink(name, folder_ / "fresh");
        std::filesystem::rename(folder_ / "fresh", folder_ / "current");
        EXPECT_TRUE(reports()) << "the link leads to " << name;
        write(folder_ / name + "/file");
        EXPECT_TRUE(reports()) << "the file in " << name << " is written";
    }
}

}  // namespace
}  // namespace kx::agent::simulated
