// Runs the backend beside real containers, in a lab that the test process enters with its whole self.
// One thread, beside the backend's own.
#pragma once

#include <gmock/gmock.h>
#include <sys/types.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/backends/lxc/LxcBackend.h"
#include "tests/unit/lxc/TestFolder.h"

namespace kx::agent::lxc {

inline constexpr const char* kLabPath = "/var/lib/lxc";

/// Within that long every change must have been seen.
inline constexpr std::chrono::milliseconds kNoticed{1000};

/// A program running beside the test.
class Command {
public:
    /// @param words program and arguments
    explicit Command(const std::vector<std::string>& words);

    /// @brief Kills the program if it still runs.
    ~Command();
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    /// @return whether it has ended; does not wait
    bool ended();

    /// @return 0 after a success; valid once it has ended
    int status() const { return status_; }

private:
    pid_t pid_ = -1;
    int status_ = -1;
};

/// @return the words of a lab command
std::vector<std::string> lab(const std::vector<std::string>& words);

/// Collects what a backend delivers.
class LabHost : public BackendListener {
public:
    /// @param path LXC's path; state is kept in a folder of this object's
    explicit LabHost(std::string path = kLabPath);
    ~LabHost() override;

    void start() { backend_->start(); }
    void stop() { backend_->stop(); }

    void hostChanged(HostImage image) override;

    /// @brief Delivers images until a condition holds.
    /// @return whether it came to hold within the limit
    bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = kNoticed);

    /// @brief Runs a command to its end, delivering images meanwhile.
    /// @return whether it succeeded
    bool run(const std::vector<std::string>& words);

    /// @brief Runs a lab command and expects its effect to be seen no later than kNoticed after its end. Prints
    /// when it was seen, from the command's start and from its end.
    void act(const std::vector<std::string>& words, const std::function<bool()>& seen);

    /// @return a container as last delivered; null when there is none of that name
    const Environment* find(const std::string& name) const;

    /// @return whether a container is there in that state
    bool is(const std::string& name, State state, Transition transition = Transition::None) const;

    /// @return whether a container has been in a state at any time
    bool was(const std::string& name, State state, Transition transition) const;

    std::size_t images() const { return images_; }
    std::size_t containers() const { return latest_.environments.size(); }
    void forgetPast() { past_.clear(); }

private:
    using Clock = std::chrono::steady_clock;

    TestFolder state_;
    boost::asio::io_context io_;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
    std::unique_ptr<Backend> backend_;
    HostImage latest_;
    std::vector<Environment> past_;
    std::size_t images_ = 0;
};

/// @brief Writes a file in the lab.
void writeFile(const std::string& path, const std::string& text, bool append = false);

/// @return the init process of a running container, seen from here
pid_t initOf(const std::string& name);

/// @brief Freezes or thaws a container behind LXC's back.
/// @param init its init process
void tellFreezer(pid_t init, bool freeze);

/// Removes the containers a test has left, so that the next finds an empty lab.
class LabTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /// @brief Makes a container before or beside the backend's run.
    void make(const std::string& name, const std::string& hostname = "");

    LabHost host_;
};

}  // namespace kx::agent::lxc
