// The backend over real files in a folder of the test's own: what is published at the start and after each change.
#include "agent/backends/simulated/SimulatedBackend.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <iterator>
#include <memory>

#include "tests/support/TemporaryFolder.h"

namespace kx::agent::simulated {
namespace {

using test::TemporaryFolder;
using test::writeFile;

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::chrono::seconds kDeadline{10};

/// What standard error says from here to the end of this object's life.
class StandardError {
public:
    explicit StandardError(const fs::path& path) : path_(path), saved_(::dup(STDERR_FILENO)) {
        const int file = ::open(path.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
        ::dup2(file, STDERR_FILENO);
        ::close(file);
    }
    ~StandardError() {
        ::dup2(saved_, STDERR_FILENO);
        ::close(saved_);
    }
    StandardError(const StandardError&) = delete;
    StandardError& operator=(const StandardError&) = delete;

    std::string text() const {
        std::ifstream file(path_, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    /// @return how many lines hold the text
    std::size_t count(const std::string& part) const {
        const std::string all = text();
        std::size_t found = 0;
        for (auto at = all.find(part); at != std::string::npos; at = all.find(part, at + 1)) {
            ++found;
        }
        return found;
    }

private:
    const fs::path path_;
    const int saved_;
};

class SimulatedBackendTest : public testing::Test, private BackendListener {
protected:
    void start() { start(file_); }

    void start(const fs::path& path) {
        backend_ = makeSimulatedBackend(io_, path, "machine", *this);
        backend_->start();
    }

    std::string errorOfStart(const fs::path& path) {
        try {
            start(path);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "none";
    }

    void replace(const fs::path& path, const std::string& text) {
        const fs::path fresh = path.string() + ".new";
        writeFile(fresh, text);
        fs::rename(fresh, path);
    }

    /// The names published last, separated by blanks.
    std::string names() const {
        std::string result;
        for (const auto& environment : image_.environments) {
            result += (result.empty() ? "" : " ") + environment.name;
        }
        return result;
    }

    /// @return whether the condition came true while the backend worked
    bool runUntil(const std::function<bool()>& condition) {
        const auto deadline = std::chrono::steady_clock::now() + kDeadline;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            runOne();
        }
        return true;
    }

    /// @return how many handlers ran, at most one
    std::size_t runOne() {
        io_.restart();
        return io_.run_one_for(std::chrono::milliseconds(100));
    }

    /// Lets the backend deal with one replacement: the kernel's notice, and the report when the timer has run out.
    void handleReport() {
        const auto deadline = std::chrono::steady_clock::now() + kDeadline;
        for (std::size_t handled = 0; handled < 2; handled += runOne()) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline);
        }
    }

    bool showsSoon(const std::string& expected) {
        return runUntil([&] { return names() == expected; });
    }

    bool logsSoon(const std::string& part, std::size_t times = 1) {
        return runUntil([&] { return log_.count(part) >= times; });
    }

    TemporaryFolder folder_;
    StandardError log_{folder_ / "log"};
    const fs::path file_ = folder_ / "inventory.toml";
    boost::asio::io_context io_;
    HostImage image_;
    int images_ = 0;
    std::unique_ptr<Backend> backend_;

private:
    void hostChanged(HostImage image) override {
        image_ = std::move(image);
        ++images_;
    }
    void alert(AlertSignal /*signal*/) override { ADD_FAILURE() << "nobody raised one"; }
};

const std::string kOne = "[[environment]]\nname = 'one'\n";
const std::string kTwo = "[[environment]]\nname = 'two'\n";
const std::string kWrong = "[[environment]]\nname = 'three'\nveid = 'no number'\n";

// ---- start ----

TEST_F(SimulatedBackendTest, DeliversTheImageBeforeStartReturns) {
    writeFile(file_, "[host]\nproduct_version = '7'\n" + kOne);
    start();
    EXPECT_EQ(backend_->name(), "simulated");
    EXPECT_EQ(names(), "one");
    EXPECT_EQ(image_.environments.at(0).eid, Eid::fromName("machine", "simulated/one"));
    EXPECT_EQ(image_.vocabularies, standardVocabularies("7"));
}

TEST_F(SimulatedBackendTest, IsADescribedHost) {
    writeFile(file_, kOne);
    start();
    EXPECT_TRUE(backend_->isDescribed());
}

TEST_F(SimulatedBackendTest, DoesNotStartWithAWrongFile) {
    writeFile(file_, kWrong);
    EXPECT_EQ(errorOfStart(file_), file_.string() + ":3:8: veid must be an integer, not a string");
    EXPECT_EQ(images_, 0);
}

TEST_F(SimulatedBackendTest, DoesNotStartWithoutAFile) {
    EXPECT_EQ(errorOfStart(file_), file_.string() + ": cannot be read: No such file or directory");
}

TEST_F(SimulatedBackendTest, DoesNotStartOnAFolderOrADevice) {
    EXPECT_EQ(errorOfStart(folder_.path()), folder_.path() + ": is not a regular file");
    EXPECT_EQ(errorOfStart("/dev/zero"), "/dev/zero: is not a regular file");
}

TEST_F(SimulatedBackendTest, DoesNotWaitForAPipesWriter) {
    ASSERT_EQ(::mkfifo(file_.c_str(), 0600), 0);
    EXPECT_EQ(errorOfStart(file_), file_.string() + ": is not a regular file");
}

TEST_F(SimulatedBackendTest, RefusesAHugeFileWithoutReadingIt) {
    writeFile(file_, "");
    fs::resize_file(file_, 1ULL << 40);
    EXPECT_EQ(errorOfStart(file_), file_.string() + ": is longer than 67108864 bytes");
}

TEST_F(SimulatedBackendTest, StartsAfterAFailedStart) {
    EXPECT_THAT(errorOfStart(file_), HasSubstr("cannot be read"));
    writeFile(file_, kOne);
    backend_->start();
    EXPECT_EQ(names(), "one");
    replace(file_, kTwo);
    EXPECT_TRUE(showsSoon("two"));
}

// ---- changes ----

TEST_F(SimulatedBackendTest, FollowsAFileThatIsWrittenInPlace) {
    writeFile(file_, kOne);
    start();
    writeFile(file_, kTwo);
    EXPECT_TRUE(showsSoon("two"));
    writeFile(file_, kOne + kTwo);
    EXPECT_TRUE(showsSoon("one two"));
}

TEST_F(SimulatedBackendTest, FollowsAFileThatIsReplacedByRename) {
    writeFile(file_, kOne);
    start();
    replace(file_, kTwo);
    EXPECT_TRUE(showsSoon("two"));
    replace(file_, kOne);
    EXPECT_TRUE(showsSoon("one"));
}

TEST_F(SimulatedBackendTest, FollowsAnEditorThatMovesTheOldFileAside) {
    writeFile(file_, kOne);
    start();
    fs::rename(file_, file_.string() + "~");
    writeFile(file_, kTwo);
    EXPECT_TRUE(showsSoon("two"));
    EXPECT_EQ(log_.count("cannot be read"), 0U);
}

TEST_F(SimulatedBackendTest, DoesNotReadAFileThatIsBeingWritten) {
    writeFile(file_, kOne);
    start();
    {
        std::ofstream writer(file_, std::ios::trunc);
        writer << "# not finished yet, and for now without containers\n" << std::flush;
        EXPECT_EQ(io_.poll(), 0U) << "the kernel tells of a file that is not closed yet";
        EXPECT_EQ(names(), "one");
        writer << kTwo;
    }
    EXPECT_TRUE(showsSoon("two"));
    EXPECT_EQ(images_, 2);
}

TEST_F(SimulatedBackendTest, FollowsTheTargetOfALink) {
    fs::create_directory(folder_ / "real");
    writeFile(folder_ / "real/1", kOne);
    fs::create_symlink("real/1", file_);
    start();
    replace(folder_ / "real/1", kTwo);
    EXPECT_TRUE(showsSoon("two"));
}

TEST_F(SimulatedBackendTest, FollowsALinkThatIsTurned) {
    fs::create_directory(folder_ / "real");
    writeFile(folder_ / "real/1", kOne);
    writeFile(folder_ / "real/2", kTwo);
    fs::create_symlink("real/1", file_);
    start();
    fs::create_symlink("real/2", folder_ / "fresh");
    fs::rename(folder_ / "fresh", file_);
    EXPECT_TRUE(showsSoon("two"));
    writeFile(folder_ / "real/2", kOne + kTwo);
    EXPECT_TRUE(showsSoon("one two"));
}

TEST_F(SimulatedBackendTest, FollowsALinkThatIsRemovedAndMadeAnew) {
    writeFile(folder_ / "1", kOne);
    writeFile(folder_ / "2", kTwo);
    fs::create_symlink("1", file_);
    start();
    fs::remove(file_);
    fs::create_symlink("2", file_);
    EXPECT_TRUE(showsSoon("two"));
}

TEST_F(SimulatedBackendTest, FollowsALinkedFolderThatIsTurned) {
    fs::create_directories(folder_ / "v1");
    fs::create_directories(folder_ / "v2");
    writeFile(folder_ / "v1/inventory", kOne);
    writeFile(folder_ / "v2/inventory", kTwo);
    fs::create_symlink("v1", folder_ / "current");
    start(folder_ / "current/inventory");
    fs::create_symlink("v2", folder_ / "fresh");
    fs::rename(folder_ / "fresh", folder_ / "current");
    EXPECT_TRUE(showsSoon("two"));
}

TEST_F(SimulatedBackendTest, FollowsAFolderThatIsRemovedAndMadeAnew) {
    fs::create_directory(folder_ / "sub");
    writeFile(folder_ / "sub/inventory", kOne);
    start(folder_ / "sub/inventory");
    fs::remove_all(folder_ / "sub");
    EXPECT_TRUE(logsSoon("/sub/inventory: cannot be read: No such file or directory; the last good one stays"));
    EXPECT_EQ(names(), "one");
    fs::create_directory(folder_ / "sub");
    writeFile(folder_ / "sub/inventory", kTwo);
    EXPECT_TRUE(showsSoon("two"));
    replace(folder_ / "sub/inventory", kOne);
    EXPECT_TRUE(showsSoon("one"));
}

TEST_F(SimulatedBackendTest, FollowsAFolderThatIsMovedAsideAndReplaced) {
    fs::create_directory(folder_ / "sub");
    fs::create_directory(folder_ / "other");
    writeFile(folder_ / "sub/inventory", kOne);
    writeFile(folder_ / "other/inventory", kTwo);
    start(folder_ / "sub/inventory");
    fs::rename(folder_ / "sub", folder_ / "old");
    fs::rename(folder_ / "other", folder_ / "sub");
    EXPECT_TRUE(showsSoon("two"));
}

TEST_F(SimulatedBackendTest, PublishesNothingWhenAFileIsWrittenUnchanged) {
    writeFile(file_, kOne);
    start();
    replace(file_, kOne);
    handleReport();
    replace(file_, kTwo);
    EXPECT_TRUE(showsSoon("two"));
    EXPECT_EQ(images_, 2);
}

// ---- wrong files ----

TEST_F(SimulatedBackendTest, ReportsAWrongFileInOneLineAndKeepsTheLastGoodOne) {
    writeFile(file_, kOne);
    start();
    replace(file_, kWrong);
    EXPECT_TRUE(
        logsSoon("inventory.toml:3:8: veid must be an integer, not a string; the last good one stays published\n"));
    EXPECT_EQ(names(), "one");
    replace(file_, kTwo);
    EXPECT_TRUE(showsSoon("two"));
    EXPECT_TRUE(logsSoon("inventory.toml: read again, it describes 1 environments\n"));
    EXPECT_EQ(log_.count("\n"), 2U) << log_.text();
}

TEST_F(SimulatedBackendTest, ReportsTheSameErrorAgainOnlyAfterTheFileWasGood) {
    writeFile(file_, kOne);
    start();
    replace(file_, kWrong);
    EXPECT_TRUE(logsSoon("3:8: veid must be"));
    replace(file_, kWrong + "# another comment\n");
    handleReport();
    replace(file_, kOne);
    EXPECT_TRUE(logsSoon("read again"));
    EXPECT_EQ(log_.count("3:8: veid must be"), 1U);
    replace(file_, kWrong);
    EXPECT_TRUE(logsSoon("3:8: veid must be", 2));
}

TEST_F(SimulatedBackendTest, GoesOnWithTheSameFileWhenItIsBack) {
    writeFile(file_, kOne);
    start();
    fs::rename(file_, folder_ / "away");
    EXPECT_TRUE(logsSoon("cannot be read"));
    fs::rename(folder_ / "away", file_);
    EXPECT_TRUE(logsSoon("read again"));
    EXPECT_EQ(names(), "one");
}

// ---- end ----

TEST_F(SimulatedBackendTest, DeliversNothingOnceItIsStopped) {
    writeFile(file_, kOne);
    start();
    replace(file_, kTwo);
    io_.poll();  // the change may have been noticed, and its report be due
    backend_->stop();
    io_.restart();
    io_.run_for(std::chrono::seconds(1));  // returns at once: nothing is left to wait for
    EXPECT_TRUE(io_.stopped());
    EXPECT_EQ(images_, 1);
}

TEST_F(SimulatedBackendTest, MayBeDestroyedWhileAChangeIsUnderWay) {
    writeFile(file_, kOne);
    start();
    replace(file_, kTwo);
    backend_.reset();
    io_.restart();
    io_.run();
    EXPECT_EQ(images_, 1);
}

// ---- check ----

TEST_F(SimulatedBackendTest, IsNotNeededToCheckAFile) {
    writeFile(file_, kOne);
    EXPECT_EQ(checkInventory(file_, "machine"), std::nullopt);
    writeFile(file_, kWrong);
    EXPECT_EQ(describe("f", checkInventory(file_, "machine").value()), "f:3:8: veid must be an integer, not a string");
    fs::remove(file_);
    EXPECT_EQ(describe("f", checkInventory(file_, "machine").value()), "f: cannot be read: No such file or directory");
}

}  // namespace
}  // namespace kx::agent::simulated
