#include "agent/backends/simulated/FileWatch.h"

#include <fmt/format.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <list>
#include <stdexcept>

#include "agent/base/Log.h"

namespace kx::agent::simulated {
namespace {

namespace fs = std::filesystem;

/// IN_MODIFY is left out on purpose: a file is looked at when its writer is done with it.
constexpr std::uint32_t kNotices = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE | IN_ATTRIB |
                                   IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

/// What leaves a finished file behind.
constexpr std::uint32_t kFinished = IN_CLOSE_WRITE | IN_MOVED_TO;

/// What happens to the watched folder itself, or to the whole queue.
constexpr std::uint32_t kAnyName = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_Q_OVERFLOW;

/// As many links as the kernel follows.
constexpr int kMaxLinks = 40;

/// A plan that keeps changing while it is applied is given up; the next notice tries again.
constexpr int kMaxPlans = 5;

using Parts = std::list<std::string>;

void prepend(Parts& parts, const fs::path& path) {
    Parts front;
    for (const auto& part : path.relative_path()) {
        if (!part.empty() && part != ".") {
            front.push_back(part.string());
        }
    }
    parts.splice(parts.begin(), front);
}

int openInotify() {
    const int file = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (file < 0) {
        throw std::runtime_error(fmt::format("cannot watch for changes: {}", std::strerror(errno)));
    }
    return file;
}

}  // namespace

WatchPlan planWatches(const std::string& path) {
    WatchPlan plan;
    Parts parts;
    prepend(parts, path);
    fs::path folder = "/";  // no link in it, so its lexical parent is its parent
    for (int links = 0; !parts.empty();) {
        const std::string name = parts.front();
        parts.pop_front();
        if (name == "..") {
            folder = folder.parent_path();
            continue;
        }
        std::error_code error;
        const fs::path entry = folder / name;
        const auto status = fs::symlink_status(entry, error);
        if (fs::is_symlink(status) && ++links <= kMaxLinks) {
            plan[folder].insert(name);
            const fs::path target = fs::read_symlink(entry, error);
            folder = target.is_absolute() ? "/" : folder;
            prepend(parts, target);
        } else if (parts.empty() || !fs::is_directory(status)) {
            plan[folder].insert(name);
            break;
        } else {
            folder = entry;
        }
    }
    return plan;
}

FileWatch::FileWatch(boost::asio::io_context& io, const std::string& path, std::function<void()> changed)
    : path_(fs::absolute(path)), changed_(std::move(changed)), inotify_(io, openInotify()), timer_(io) {
    problem_ = refreshWatches();
    if (!problem_.empty()) {
        throw std::runtime_error(problem_);
    }
    waitForNotices();
}

void FileWatch::waitForNotices() {
    inotify_.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                        [this, life = std::weak_ptr<void>(life_)](const boost::system::error_code& error) {
                            if (error || life.expired()) {
                                return;
                            }
                            takeNotices();
                            waitForNotices();
                        });
}

void FileWatch::takeNotices() {
    alignas(inotify_event) char buffer[16 * 1024];
    for (;;) {
        const ssize_t count = ::read(inotify_.native_handle(), buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return;
        }
        const char* const end = buffer + count;
        for (const char* at = buffer; at < end;) {
            const auto* event = reinterpret_cast<const inotify_event*>(at);
            takeNotice(*event);
            at += sizeof(inotify_event) + event->len;
        }
    }
}

void FileWatch::takeNotice(const inotify_event& event) {
    if ((event.mask & kAnyName) != 0) {
        reportWithin(kUnfinishedTime);
        return;
    }
    const auto watch = namesOfWatch_.find(event.wd);
    if (watch == namesOfWatch_.end() || event.len == 0 || watch->second.count(event.name) == 0) {
        return;
    }
    reportWithin((event.mask & kFinished) != 0 ? kSettleTime : kUnfinishedTime);
}

/// A report that is due earlier stays; so an endless row of changes cannot put it off for ever.
void FileWatch::reportWithin(std::chrono::milliseconds delay) {
    const auto due = std::chrono::steady_clock::now() + delay;
    if (isReportDue_ && timer_.expiry() <= due) {
        return;
    }
    isReportDue_ = true;
    timer_.expires_at(due);
    timer_.async_wait([this, life = std::weak_ptr<void>(life_)](const boost::system::error_code& error) {
        if (!error && !life.expired()) {
            report();
        }
    });
}

void FileWatch::report() {
    isReportDue_ = false;
    const std::string problem = refreshWatches();
    if (!problem.empty() && problem != problem_) {
        log::warning(problem);
    }
    problem_ = problem;
    const auto changed = changed_;  // a copy, since it may end this watch
    changed();
}

/// Between making a plan and watching, a link may have been turned; so the plan is made again afterwards.
std::string FileWatch::refreshWatches() {
    std::string problem;
    WatchPlan plan = planWatches(path_);
    for (int tries = 0; tries < kMaxPlans; ++tries) {
        problem = apply(plan);
        WatchPlan next = planWatches(path_);
        if (next == plan) {
            break;
        }
        plan = std::move(next);
    }
    return problem;
}

std::string FileWatch::apply(const WatchPlan& plan) {
    std::string problem;
    std::map<int, std::set<std::string>> fresh;
    for (const auto& [folder, names] : plan) {
        const int watch = ::inotify_add_watch(inotify_.native_handle(), folder.c_str(), kNotices);
        if (watch < 0) {
            problem = fmt::format("{}: changes in {} cannot be noticed: {}", path_, folder, std::strerror(errno));
        } else {
            fresh[watch].insert(names.begin(), names.end());
        }
    }
    for (const auto& [watch, names] : namesOfWatch_) {
        if (fresh.count(watch) == 0) {
            ::inotify_rm_watch(inotify_.native_handle(), watch);
        }
    }
    namesOfWatch_ = std::move(fresh);
    return problem;
}

}  // namespace kx::agent::simulated
