#include "agent/base/Log.h"

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdlib>
#include <thread>

namespace kx::agent {
namespace {

/// What a child process whose standard error is a pipe logs. `journal` : whether the pipe is said to be the journal.
std::string loggedByChild(bool journal) {
    int ends[2];
    if (::pipe(ends) != 0) {
        return "no pipe";
    }
    const pid_t child = ::fork();
    if (child == 0) {
        struct stat info {};
        ::fstat(ends[1], &info);
        const auto inode = journal ? info.st_ino : info.st_ino + 1;
        ::setenv("JOURNAL_STREAM", fmt::format("{}:{}", info.st_dev, inode).c_str(), 1);
        ::dup2(ends[1], STDERR_FILENO);
        log::error("broken");
        log::warning("odd\nname\x01");
        log::info("caf\xc3\xa9");
        ::_exit(0);
    }
    ::close(ends[1]);
    std::string text;
    char buffer[1000];
    for (ssize_t size = 0; (size = ::read(ends[0], buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(size));
    }
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    return text;
}

TEST(Log, LinesForTheJournalStartWithTheirPriority) {
    EXPECT_EQ(loggedByChild(true), "<3>broken\n<4>odd?name?\n<6>caf\xc3\xa9\n");
}

TEST(Log, LinesForAnythingElseArePlain) {
    EXPECT_EQ(loggedByChild(false), "broken\nodd?name?\ncaf\xc3\xa9\n");
}

}  // namespace
}  // namespace kx::agent
