#include "ctl/Output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <future>
#include <thread>

#include "ctl/ExitCode.h"
#include "ctl/StopSignals.h"
#include "tests/support/ScriptedAgent.h"

namespace kx::ctl {
namespace {

class Pipe {
public:
    Pipe() {
        if (::pipe2(ends_.data(), O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe2");
        }
    }
    ~Pipe() {
        closeReader();
        ::close(ends_[1]);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int reader() const { return ends_[0]; }
    int writer() const { return ends_[1]; }
    void closeReader() {
        if (ends_[0] >= 0) {
            ::close(ends_[0]);
            ends_[0] = -1;
        }
    }
    int unread() const {
        int bytes = 0;
        ::ioctl(ends_[0], FIONREAD, &bytes);
        return bytes;
    }
    /// Waits until this much is unread, and reads it.
    std::string read(std::size_t bytes) const {
        EXPECT_TRUE(test::eventually([&] { return unread() >= static_cast<int>(bytes); }));
        std::string content(bytes, '\0');
        EXPECT_EQ(::read(ends_[0], content.data(), bytes), static_cast<ssize_t>(bytes));
        return content;
    }
    bool isFull() const {
        pollfd watched{ends_[1], POLLOUT, 0};
        return ::poll(&watched, 1, 0) == 0;
    }

private:
    std::array<int, 2> ends_{-1, -1};
};

class OutputTest : public testing::Test {
protected:
    OutputTest() { std::signal(SIGPIPE, SIG_IGN); }
    ~OutputTest() override { std::signal(SIGPIPE, SIG_DFL); }

    Pipe pipe;
};

TEST_F(OutputTest, WritesALineAtOnce) {
    Output output(pipe.writer(), -1);
    EXPECT_EQ(output.writeLine("one"), Output::Result::Written);
    EXPECT_EQ(pipe.read(4), "one\n");
    EXPECT_EQ(output.writeLine(""), Output::Result::Written);
    EXPECT_EQ(pipe.read(1), "\n");
}

TEST_F(OutputTest, WritesALineThatDoesNotFitIntoThePipe) {
    const std::string line(300'000, 'x');
    auto written = std::async(std::launch::async, [&] { return Output(pipe.writer(), -1).writeLine(line); });
    std::string read;
    while (read.size() < line.size() + 1) {
        read += pipe.read(1);
        read += pipe.read(static_cast<std::size_t>(pipe.unread()));
    }
    EXPECT_EQ(written.get(), Output::Result::Written);
    EXPECT_EQ(read, line + "\n");
}

TEST_F(OutputTest, EndsWhenNobodyReadsAnyMore) {
    pipe.closeReader();
    EXPECT_EQ(Output(pipe.writer(), -1).writeLine("one"), Output::Result::Closed);
}

TEST_F(OutputTest, WritesToADescriptorThatDoesNotWait) {
    ::fcntl(pipe.writer(), F_SETFL, O_NONBLOCK);
    const std::string line(100'000, 'x');
    auto written = std::async(std::launch::async, [&] { return Output(pipe.writer(), -1).writeLine(line); });
    EXPECT_TRUE(test::eventually([&] { return pipe.isFull(); }));
    const auto first = static_cast<std::size_t>(pipe.unread());
    pipe.read(first);
    pipe.read(line.size() + 1 - first);
    EXPECT_EQ(written.get(), Output::Result::Written);
}

TEST_F(OutputTest, FailsInWordsWhenTheDiskIsFull) {
    const int full = ::open("/dev/full", O_WRONLY | O_CLOEXEC);
    try {
        Output(full, -1).writeLine("one");
        ADD_FAILURE() << "it was written";
    } catch (const Failure& failure) {
        EXPECT_STREQ(failure.what(), "cannot write: No space left on device");
        EXPECT_EQ(failure.code(), ExitCode::Refused);
    }
    ::close(full);
}

TEST_F(OutputTest, EndsOnASignalWhileTheReaderTakesNothing) {
    StopSignals stop;
    auto written = std::async(std::launch::async, [&] {
        return Output(pipe.writer(), stop.descriptor()).writeLine(std::string(100'000, 'x'));
    });
    ASSERT_TRUE(test::eventually([&] { return pipe.isFull(); }));
    ::kill(::getpid(), SIGTERM);
    EXPECT_EQ(written.get(), Output::Result::Stopped);
}

TEST_F(OutputTest, WritesNothingOnceASignalHasCome) {
    StopSignals stop;
    ::kill(::getpid(), SIGINT);
    EXPECT_TRUE(test::eventually([&] {
        pollfd watched{stop.descriptor(), POLLIN, 0};
        return ::poll(&watched, 1, 0) == 1;
    }));
    EXPECT_EQ(Output(pipe.writer(), stop.descriptor()).writeLine("one"), Output::Result::Stopped);
    EXPECT_EQ(pipe.unread(), 0);
}

TEST(StopSignalsTest, LeavesTheSignalsAsTheyWere) {
    std::signal(SIGTERM, SIG_IGN);
    { const StopSignals stop; }
    EXPECT_EQ(std::signal(SIGTERM, SIG_DFL), SIG_IGN);
}

}  // namespace
}  // namespace kx::ctl
