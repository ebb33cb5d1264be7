#include "agent/server/SocketFile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "tests/support/TemporaryFolder.h"

namespace kx::agent {
namespace {

using test::TemporaryFolder;
using testing::AllOf;
using testing::HasSubstr;
using testing::ThrowsMessage;

struct stat infoOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info;
}

bool canConnect(const std::string& path) {
    const OwnedDescriptor client(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return ::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

/// A socket file that nobody listens on, as a killed agent leaves it.
void leaveStale(const std::string& path) {
    const OwnedDescriptor left(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(left.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
}

TEST(SocketFile, folderAndSocketHaveTheirModesWhateverTheUmask) {
    const TemporaryFolder folder;
    const std::string path = folder / "deep/er/agent.sock";
    for (const mode_t umask : {0000, 0022, 0077}) {
        const mode_t before = ::umask(umask);
        const SocketFile file(path, std::nullopt);
        EXPECT_EQ(::umask(before), umask) << "the process's umask is back";
        EXPECT_EQ(infoOf(path).st_mode, S_IFSOCK | 0660U);
        EXPECT_EQ(infoOf(folder / "deep/er").st_mode, S_IFDIR | 0755U);
        EXPECT_TRUE(canConnect(path));
    }
}

TEST(SocketFile, theGroupGetsTheFile) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "only root can give files away";
    }
    const TemporaryFolder folder;
    const SocketFile file(folder / "agent.sock", gid_t{4711});
    EXPECT_EQ(infoOf(folder / "agent.sock").st_gid, 4711U);
    EXPECT_EQ(infoOf(folder / "agent.sock").st_uid, 0U);
}

TEST(SocketFile, goesWithItsOwner) {
    const TemporaryFolder folder;
    { const SocketFile file(folder / "agent.sock", std::nullopt); }
    EXPECT_FALSE(std::filesystem::exists(folder / "agent.sock"));
}

TEST(SocketFile, anotherOfTheSameNameIsLeftAlone) {
    const TemporaryFolder folder;
    const std::string path = folder / "agent.sock";
    {
        const SocketFile file(path, std::nullopt);
        std::filesystem::rename(path, folder / "moved");
        leaveStale(path);
    }
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST(SocketFile, aStaleOneIsReplaced) {
    const TemporaryFolder folder;
    leaveStale(folder / "agent.sock");
    ASSERT_FALSE(canConnect(folder / "agent.sock"));
    const SocketFile file(folder / "agent.sock", std::nullopt);
    EXPECT_TRUE(canConnect(folder / "agent.sock"));
}

TEST(SocketFile, whereAnotherAgentListensItIsAnErrorAndThatOneGoesOn) {
    const TemporaryFolder folder;
    const std::string path = folder / "agent.sock";
    const SocketFile first(path, std::nullopt);
    EXPECT_THAT([&] { const SocketFile second(path, std::nullopt); },
                ThrowsMessage<std::runtime_error>(AllOf(HasSubstr(path), HasSubstr("another agent"))));
    EXPECT_TRUE(canConnect(path));
}

TEST(SocketFile, anAgentThatIsTooBusyToAcceptCountsAsListening) {
    const TemporaryFolder folder;
    const std::string path = folder / "agent.sock";
    const SocketFile first(path, std::nullopt);
    std::vector<OwnedDescriptor> waiting;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    do {
        waiting.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
    } while (waiting.size() < 1000 &&
             ::connect(waiting.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0);
    ASSERT_LT(waiting.size(), 1000U) << "the backlog is never full";
    EXPECT_THAT([&] { const SocketFile second(path, std::nullopt); },
                ThrowsMessage<std::runtime_error>(HasSubstr("another agent")));
}

TEST(SocketFile, whileOneAgentStartsAnotherDoesNot) {
    const TemporaryFolder folder;
    const std::string path = folder / "agent.sock";
    { const SocketFile file(path, std::nullopt); }
    EXPECT_EQ(infoOf(path + ".lock").st_mode, S_IFREG | 0600U);
    const OwnedDescriptor starting(::open((path + ".lock").c_str(), O_RDWR));
    for (const int kind : {LOCK_EX, LOCK_SH}) {
        ASSERT_EQ(::flock(starting.get(), kind), 0);
        EXPECT_THAT([&] { const SocketFile second(path, std::nullopt); },
                    ThrowsMessage<std::runtime_error>(AllOf(HasSubstr(path), HasSubstr("being started"))));
    }
}

TEST(SocketFile, aSocketThatIsRemovedIsGone) {
    const TemporaryFolder folder;
    const SocketFile file(folder / "sub/agent.sock", std::nullopt);
    EXPECT_FALSE(file.isGone());
    std::filesystem::remove_all(folder / "sub");
    EXPECT_TRUE(file.isGone());
}

// Every user of the host can open the folder, which is all it takes to lock it.
TEST(SocketFile, whoeverLocksTheFolderKeepsNoAgentFromStarting) {
    const TemporaryFolder folder;
    const OwnedDescriptor stranger(::open(folder.path().c_str(), O_RDONLY | O_DIRECTORY));
    ASSERT_EQ(::flock(stranger.get(), LOCK_EX), 0);
    const SocketFile file(folder / "agent.sock", std::nullopt);
    EXPECT_TRUE(canConnect(folder / "agent.sock"));
}

TEST(SocketFile, whatIsNoSocketIsNotRemoved) {
    const TemporaryFolder folder;
    const std::string file = folder.write("agent.sock", "precious");
    EXPECT_THAT([&] { const SocketFile made(file, std::nullopt); },
                ThrowsMessage<std::runtime_error>(AllOf(HasSubstr(file), HasSubstr("not a socket"))));
    EXPECT_EQ(folder.read("agent.sock"), "precious");
    const std::string link = folder / "link";
    std::filesystem::create_symlink(file, link);
    EXPECT_THROW(SocketFile(link, std::nullopt), std::runtime_error);
}

TEST(SocketFile, aPathThatCannotBeIsAnErrorThatNamesIt) {
    const TemporaryFolder folder;
    const std::string below = folder.write("file", "") + "/agent.sock";
    EXPECT_THAT([&] { const SocketFile made(below, std::nullopt); },
                ThrowsMessage<std::runtime_error>(HasSubstr(below)));
    const std::string tooLong = folder / std::string(200, 'x');
    EXPECT_THAT([&] { const SocketFile made(tooLong, std::nullopt); },
                ThrowsMessage<std::runtime_error>(HasSubstr("too long")));
}

}  // namespace
}  // namespace kx::agent
