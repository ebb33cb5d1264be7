#include "agent/base/Deadline.h"

#include <fmt/format.h>
#include <unistd.h>

#include "agent/base/Log.h"
#include "agent/base/Worker.h"

namespace kx::agent {

Deadline::Deadline(std::chrono::milliseconds limit, std::string what, int status) {
    thread_ = startThread("deadline", [this, limit, what = std::move(what), status] {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, limit, [this] { return over_; })) {
            log::error(
                fmt::format("{} takes longer than {} ms: the agent ends without waiting for it", what, limit.count()));
            ::_exit(status);
        }
    });
}

Deadline::~Deadline() {
    {
        const std::lock_guard lock(mutex_);
        over_ = true;
    }
    changed_.notify_one();
    thread_.join();
}

}  // namespace kx::agent
