#include "agent/backends/lxc/CommandSocket.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>

#include "agent/backends/lxc/StuckCallBreaker.h"
#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::StartsWith;

struct Address {
    explicit Address(const std::string& name) {
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path + 1, sizeof address.sun_path - 1);
        length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
    sockaddr_un address{};
    socklen_t length;
};

/// A monitor that takes up connections, as the kernel does for it, and never answers.
OwnedDescriptor silentMonitor(const std::string& name, int backlog) {
    OwnedDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const Address address(name);
    EXPECT_EQ(::bind(socket.get(), address.get(), address.length), 0);
    EXPECT_EQ(::listen(socket.get(), backlog), 0);
    return socket;
}

OwnedDescriptor connectTo(const std::string& name) {
    OwnedDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const Address address(name);
    EXPECT_EQ(::connect(socket.get(), address.get(), address.length), 0);
    return socket;
}

std::string ownName(const char* what) {
    return fmt::format("kxtest/{}/{}/command", ::getpid(), what);
}

TEST(CommandSocketTest, isNamedAfterPathAndContainer) {
    EXPECT_EQ(commandSocketName("/var/lib/lxc", "web"), "/var/lib/lxc/web/command");
}

TEST(CommandSocketTest, isHashedWhereTheNameDoesNotFitAnAddress) {
    const std::string fits(106 - 22, 'x');
    EXPECT_EQ(commandSocketName("/var/lib/lxc/", fits).size(), 106U);
    const std::string hashed = commandSocketName("/var/lib/lxc/", fits + "x");
    EXPECT_THAT(hashed, StartsWith("lxc/"));
    EXPECT_THAT(hashed, EndsWith("/command"));
    EXPECT_EQ(hashed.size(), 4U + 16U + 8U);
    EXPECT_NE(hashed, commandSocketName("/var/lib/lxc/", fits + "y"));
}

TEST(CommandSocketTest, isFoundInTheKernelsList) {
    EXPECT_THAT(commandSocketsIn("Num RefCount Protocol Flags Type St Inode Path\n"
                                 "0000: 00000002 00000000 00010000 0001 01 12439 @/var/lib/lxc/web/command\n"
                                 "0000: 00000002 00000000 00010000 0001 01 12440 /run/x/command\n"
                                 "0000: 00000002 00000000 00010000 0001 01 12441\n"
                                 "0000: 00000002 00000000 00010000 0001 01 12442 @other\n"
                                 "0000: 00000003 00000000 00000000 0001 03 12443 @/var/lib/lxc/a b/command"),
                ElementsAre("/var/lib/lxc/a b/command", "/var/lib/lxc/web/command"));
}

TEST(CommandSocketTest, ofThisHostAreFound) {
    const auto monitor = silentMonitor(ownName("listed"), 1);
    EXPECT_EQ(presentCommandSockets().count(ownName("listed")), 1U);
}

TEST(CommandSocketTest, AMonitorThatIsThereIsToldFromNoneAndFromOneThatHangs) {
    const MonitorConnection none = connectToMonitor(ownName("who"));
    EXPECT_FALSE(none.socket);
    EXPECT_FALSE(none.isFull);
    const auto monitor = silentMonitor(ownName("who"), 0);
    const MonitorConnection first = connectToMonitor(ownName("who"));
    EXPECT_TRUE(first.socket);
    EXPECT_EQ(first.owner, ::getuid());
    // Its one place is taken now.
    EXPECT_TRUE(connectToMonitor(ownName("who")).isFull);
}

TEST(CommandSocketTest, AConnectionEndsOnceTheMonitorTakesItUp) {
    const auto monitor = silentMonitor(ownName("works"), 1);
    const MonitorConnection connection = connectToMonitor(ownName("works"));
    pollfd query{connection.socket.get(), POLLIN, 0};
    EXPECT_EQ(::poll(&query, 1, 0), 0);
    {
        const OwnedDescriptor taken(::accept(monitor.get(), nullptr, nullptr));
        char byte = 0;
        EXPECT_EQ(::read(taken.get(), &byte, 1), 0) << "that nothing is asked is what makes it close";
    }
    EXPECT_EQ(::poll(&query, 1, 0), 1);
}

TEST(StuckCallBreakerTest, leavesAnAnsweredCallAlone) {
    StuckCallBreaker breaker(std::chrono::seconds(100));
    bool called = false;
    EXPECT_TRUE(breaker.guard("x", [&] { called = true; }));
    EXPECT_TRUE(called);
}

// Both calls would wait for ever if they were not broken.
TEST(StuckCallBreakerTest, endsCallsThatGetNoAnswerEvenWhenTheyConnectAgain) {
    const auto monitor = silentMonitor(ownName("stuck"), 10);
    StuckCallBreaker breaker(std::chrono::milliseconds(20));
    for (int round = 0; round < 2; ++round) {
        ssize_t received = -1;
        EXPECT_FALSE(breaker.guard(ownName("stuck"), [&] {
            char byte = 0;
            for (int question = 0; question < 2; ++question) {
                received = ::read(connectTo(ownName("stuck")).get(), &byte, 1);
            }
        }));
        EXPECT_EQ(received, 0);
    }
}

TEST(StuckCallBreakerTest, shutsDownNothingButConnectionsToThatSocket) {
    const auto monitor = silentMonitor(ownName("one"), 10);
    const auto other = silentMonitor(ownName("one-more"), 10);
    const auto kept = connectTo(ownName("one-more"));
    const auto broken = connectTo(ownName("one"));
    EXPECT_EQ(shutDownConnectionsTo(ownName("one")), 1);
    char byte = 0;
    EXPECT_EQ(::recv(broken.get(), &byte, 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(::recv(kept.get(), &byte, 1, MSG_DONTWAIT), -1);
}

}  // namespace
}  // namespace kx::agent::lxc
