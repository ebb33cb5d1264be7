#include "agent/backends/lxc/Inotify.h"

#include <fmt/format.h>
#include <sys/inotify.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace kx::agent::lxc {

Inotify::Inotify() : file_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    if (!file_) {
        throw std::runtime_error(
            fmt::format("cannot watch folders: {} (see fs.inotify.max_user_instances)", std::strerror(errno)));
    }
}

int Inotify::add(Kind kind, const std::string& owner, const std::string& path, std::uint32_t mask) {
    const int watch = ::inotify_add_watch(file_.get(), path.c_str(), mask);
    if (watch > 0) {
        tags_[watch] = Tag{kind, owner};
    }
    return watch;
}

void Inotify::remove(int watch) {
    if (tags_.erase(watch) != 0) {
        ::inotify_rm_watch(file_.get(), watch);
    }
}

bool Inotify::take(const std::function<void(const Notice&)>& handle) {
    bool complete = true;
    alignas(inotify_event) std::array<char, std::size_t{16} * 1024> buffer{};
    ssize_t count = 0;
    while ((count = ::read(file_.get(), buffer.data(), buffer.size())) > 0) {
        for (const char* place = buffer.data(); place < buffer.data() + count;) {
            const auto* event = reinterpret_cast<const inotify_event*>(place);
            place += sizeof(inotify_event) + event->len;
            if ((event->mask & IN_Q_OVERFLOW) != 0) {
                complete = false;
            }
            const auto tag = tags_.find(event->wd);
            if (tag == tags_.end()) {
                continue;
            }
            const Notice notice{tag->second.kind, tag->second.owner, event->len > 0 ? event->name : "", event->mask};
            if ((event->mask & IN_IGNORED) != 0) {
                tags_.erase(tag);
            }
            handle(notice);
        }
    }
    return complete;
}

}  // namespace kx::agent::lxc
