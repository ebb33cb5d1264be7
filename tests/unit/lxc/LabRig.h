// Runs the backend beside real containers, in a lab that the test process enters with its whole self.
// One thread, beside the backend's own.
#pragma once

#include <gmock/gmock.h>
#include <sys/types.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "agent/backends/lxc/LxcBackend.h"
#include "tests/support/TemporaryFolder.h"

namespace kx::agent::lxc {

inline constexpr const char* kLabPath = "/var/lib/lxc";

/// How many times as long everything may take: what a sanitizer watches is slow, and often not alone on its machine.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr int kSlowness = 4;
#else
inline constexpr int kSlowness = 1;
#endif

/// Within that long every change must have been seen.
inline constexpr std::chrono::milliseconds kNoticed{1000 * kSlowness};

/// What the backend is told to be the product's version.
inline constexpr const char* kLabVersion = "7.0-lab";

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

    /// @return its number; valid until it has ended
    pid_t pid() const { return pid_; }

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
    void alert(AlertSignal /*signal*/) override {}  // watches are tested by themselves

    /// @brief Delivers images until a condition holds.
    /// @return whether it came to hold within the limit
    bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit = kNoticed);

    /// @brief Runs a command to its end, delivering images meanwhile.
    /// @return whether it succeeded
    bool run(const std::vector<std::string>& words);

    /// @brief Runs a lab command and expects its effect to be seen no later than kNoticed after its end. Prints
    /// when it was seen, from the command's start and from its end.
    void act(const std::vector<std::string>& words, const std::function<bool()>& seen);

    /// @return how long after the last act's end its effect was seen; negative: before
    std::chrono::steady_clock::duration lag() const { return lag_; }

    /// @return a container as last delivered; null when there is none of that name
    const Environment* find(const std::string& name) const;

    /// @return whether a container is there in that state
    bool is(const std::string& name, State state, Transition transition = Transition::None) const;

    /// @return whether a container has been in a state at any time
    bool was(const std::string& name, State state, Transition transition) const;

    /// @brief All that was delivered of a container, image by image.
    std::vector<Environment> pastOf(const std::string& name) const;

    /// @return how many log lines have a text in them
    std::size_t logged(const std::string& part) const;

    Freshness freshness() const { return backend_->freshness(); }
    std::size_t images() const { return images_; }
    std::size_t containers() const { return latest_.environments.size(); }
    const std::vector<Vocabulary>& vocabularies() const { return latest_.vocabularies; }
    void forgetPast() { past_.clear(); }

private:
    using Clock = std::chrono::steady_clock;

    test::TemporaryFolder state_;
    boost::asio::io_context io_;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
    std::unique_ptr<Backend> backend_;
    HostImage latest_;
    std::vector<Environment> past_;
    std::size_t images_ = 0;
    Clock::duration lag_{};
    mutable std::mutex logMutex_;
    std::vector<std::string> log_;
};

/// @brief Writes a file in the lab. It takes the place of an old one at once, so that nobody sees half of it, or none;
/// what is appended is written in place.
void writeFile(const std::string& path, const std::string& text, bool append = false);

/// @brief Writes into a file that the kernel made.
void tellKernel(const std::string& path, const std::string& text);

/// @return the init process of a running container, seen from here
pid_t initOf(const std::string& name);

/// @return the parent of a process; that of a container's init process is its monitor
pid_t parentOf(pid_t pid);

/// @brief Freezes or thaws a container behind LXC's back.
/// @param init its init process
void tellFreezer(pid_t init, bool freeze);

/// @return the words of an `ip` command run in the network namespace of a process
std::vector<std::string> ipCommand(pid_t process, const std::vector<std::string>& words);

/// The capability that entering namespaces takes: CAP_SYS_ADMIN.
inline constexpr unsigned kEnterNamespaces = 21;

/// Takes a capability from the calling thread, and so from threads it starts, until it goes.
class WithoutCapability {
public:
    /// @param number below 32
    explicit WithoutCapability(unsigned number);
    ~WithoutCapability();
    WithoutCapability(const WithoutCapability&) = delete;
    WithoutCapability& operator=(const WithoutCapability&) = delete;

private:
    std::uint32_t effective_ = 0;  ///< as it was
};

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
