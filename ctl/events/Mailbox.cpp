#include "ctl/events/Mailbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "ctl/ExitCode.h"

namespace kx::ctl {
namespace {

/// What an event takes in memory, about.
std::size_t bytesOf(const KXLEvent& event) {
    constexpr std::size_t kFixed = sizeof(KXLEvent) + sizeof(KXLResourceAlertData) + 64;
    std::size_t bytes = kFixed + event.getCategory().size();
    if (const auto* alert = dynamic_cast<const KXLResourceAlertData*>(event.getData().get())) {
        bytes += alert->alertText.size();
    } else if (const auto* change = dynamic_cast<const KXLEnvironmentChangeData*>(event.getData().get())) {
        bytes += change->name.size();
    }
    return bytes;
}

std::size_t bytesOf(const Notice& notice) {
    std::size_t bytes = 0;
    for (const KXLEvent& event : notice.events) {
        bytes += bytesOf(event);
    }
    return bytes;
}

}  // namespace

Mailbox::Mailbox(std::size_t room) : room_(room), descriptor_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (descriptor_ < 0) {
        throw Failure(ExitCode::Refused, std::string("cannot make an event descriptor: ") + std::strerror(errno));
    }
}

Mailbox::~Mailbox() {
    ::close(descriptor_);
}

void Mailbox::put(Notice notice) {
    const std::lock_guard guard(mutex_);
    if (hasRoomFor(notice)) {
        bytes_ += bytesOf(notice);
        notices_.push_back(std::move(notice));
    } else {
        addOverflow(notice.events.size());
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t ignored = ::write(descriptor_, &one, sizeof one);  // never full before 2^64 - 1
}

/// Whatever comes into an empty mailbox has room: it is in memory already.
bool Mailbox::hasRoomFor(const Notice& notice) const {
    return notice.events.empty() || bytes_ == 0 || bytes_ + bytesOf(notice) <= room_;
}

void Mailbox::addOverflow(std::uint64_t missing) {
    if (notices_.empty() || notices_.back().kind != Notice::Kind::Overflow) {
        notices_.push_back({Notice::Kind::Overflow, 0, {}, 0});
    }
    notices_.back().missing += missing;
}

std::deque<Notice> Mailbox::takeAll() {
    std::uint64_t count = 0;
    const std::lock_guard guard(mutex_);
    [[maybe_unused]] const ssize_t ignored = ::read(descriptor_, &count, sizeof count);
    bytes_ = 0;
    return std::exchange(notices_, {});
}

}  // namespace kx::ctl
