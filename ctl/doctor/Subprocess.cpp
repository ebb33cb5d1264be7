#include "ctl/doctor/Subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

namespace kx::ctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostOutput = std::size_t{1024} * 1024;

/// @return its process id; -1 when it cannot be run
pid_t spawn(const std::vector<std::string>& arguments, int output) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));  // the interface is older than const
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
    pid_t pid = -1;
    const int error = ::posix_spawnp(&pid, argv.front(), &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    return error == 0 ? pid : -1;
}

/// @return what is written until the last writer closes or time is up
std::string readAll(int from, Clock::time_point until) {
    std::string all;
    std::array<char, 4096> part{};
    pollfd watched{from, POLLIN, 0};
    while (all.size() < kMostOutput) {
        const auto rest = std::chrono::ceil<std::chrono::milliseconds>(until - Clock::now()).count();
        if (rest <= 0 || (::poll(&watched, 1, static_cast<int>(rest)) < 0 && errno != EINTR)) {
            break;
        }
        if (watched.revents == 0) {
            continue;
        }
        const ssize_t count = ::read(from, part.data(), part.size());
        if (count <= 0) {
            break;
        }
        all.append(part.data(), static_cast<std::size_t>(count));
    }
    return all;
}

}  // namespace

std::optional<std::string> outputOf(const std::vector<std::string>& arguments, std::chrono::milliseconds deadline) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        return std::nullopt;
    }
    const pid_t pid = spawn(arguments, ends[1]);
    ::close(ends[1]);
    std::string output;
    if (pid > 0) {
        output = readAll(ends[0], Clock::now() + deadline);
        ::kill(pid, SIGKILL);  // it has ended, or is to
        while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }
    ::close(ends[0]);
    return pid > 0 ? std::optional(output) : std::nullopt;
}

}  // namespace kx::ctl
