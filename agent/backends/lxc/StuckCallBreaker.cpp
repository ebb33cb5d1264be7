#include "agent/backends/lxc/StuckCallBreaker.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <charconv>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

#include "agent/base/OwnedDescriptor.h"

namespace kx::agent::lxc {
namespace {

/// A broken call may connect again, for its next question.
constexpr std::chrono::milliseconds kAgain{10};

bool isConnectedTo(int socket, std::string_view name) {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    if (::getpeername(socket, reinterpret_cast<sockaddr*>(&address), &length) != 0 || address.sun_family != AF_UNIX) {
        return false;
    }
    // liblxc passes the address with its closing zero bytes counted or not, so what follows the name is not compared.
    const std::size_t bytes = length - offsetof(sockaddr_un, sun_path);
    return bytes > name.size() && address.sun_path[0] == '\0' &&
           std::string_view(address.sun_path + 1, name.size()) == name &&
           (bytes == name.size() + 1 || address.sun_path[name.size() + 1] == '\0');
}

}  // namespace

int shutDownConnectionsTo(const std::string& name) {
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir("/proc/self/fd"), ::closedir);
    int count = 0;
    while (const dirent* entry = folder ? ::readdir(folder.get()) : nullptr) {
        int number = -1;
        std::from_chars(entry->d_name, entry->d_name + std::strlen(entry->d_name), number);
        if (number < 0) {
            continue;
        }
        // The number may be closed and used again by its owner at any moment. A copy stays what it is, so it is the
        // copy that is looked at and then shut down.
        const OwnedDescriptor copy(::fcntl(number, F_DUPFD_CLOEXEC, 0));
        if (copy && isConnectedTo(copy.get(), name) && ::shutdown(copy.get(), SHUT_RDWR) == 0) {
            ++count;
        }
    }
    return count;
}

StuckCallBreaker::StuckCallBreaker(std::chrono::milliseconds limit) : limit_(limit), thread_("breaker") {
    thread_.start([this] { run(); });
}

StuckCallBreaker::~StuckCallBreaker() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

bool StuckCallBreaker::guard(const std::string& socketName, const std::function<void()>& call) {
    {
        const std::lock_guard lock(mutex_);
        socketName_ = socketName;
        ++calls_;
        inCall_ = true;
        broken_ = false;
    }
    changed_.notify_all();
    try {
        call();
    } catch (...) {
        endCall();
        throw;
    }
    return endCall();
}

/// @return whether the call has ended by itself
bool StuckCallBreaker::endCall() {
    std::unique_lock lock(mutex_);
    inCall_ = false;
    // A shutdown under way must not hit the connections of the next call.
    changed_.wait(lock, [this] { return !breaking_; });
    return !broken_;
}

// The end of a call wakes nobody: calls are far shorter than the limit and come in bursts, so the thread looks once
// a limit whether the call it has been timing still runs.
void StuckCallBreaker::run() {
    std::unique_lock lock(mutex_);
    while (!ending_) {
        std::optional<Worker::Pause> pause(std::in_place);
        changed_.wait(lock, [this] { return ending_ || inCall_; });
        const std::uint64_t timed = calls_;
        const bool another = changed_.wait_for(lock, limit_, [&] { return ending_ || calls_ != timed; });
        pause.reset();
        if (!another && inCall_) {
            breakWhileStuck(lock);
        }
    }
}

void StuckCallBreaker::breakWhileStuck(std::unique_lock<std::mutex>& lock) {
    const std::uint64_t stuck = calls_;
    while (!ending_ && inCall_ && calls_ == stuck) {
        broken_ = breaking_ = true;
        const std::string name = socketName_;
        lock.unlock();
        shutDownConnectionsTo(name);
        lock.lock();
        breaking_ = false;
        changed_.notify_all();
        changed_.wait_for(lock, kAgain, [&] { return ending_ || !inCall_ || calls_ != stuck; });
    }
}

}  // namespace kx::agent::lxc
