#include "agent/backends/lxc/AddressSocket.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "agent/backends/lxc/NetlinkAddresses.h"

namespace kx::agent::lxc {
namespace {

/// The largest datagram that the kernel makes of a list.
constexpr std::size_t kDatagramBytes = std::size_t{32} * 1024;

/// Datagrams looked through at most, some 12,000 addresses: most may be of a kind that is not published.
constexpr unsigned kMaxDatagrams = 32;

/// The queue of notices holds fewer; a flood of new ones must not keep the reader.
constexpr unsigned kMaxNotices = 64;

/// How often a list is read again because it has changed meanwhile.
constexpr std::uint32_t kMaxReadings = 3;

OwnedDescriptor openSocket() {
    return OwnedDescriptor(::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE));
}

bool ask(int socket, std::uint32_t number) {
    const std::string question = addressQuestion(number);
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return ::sendto(socket, question.data(), question.size(), 0, reinterpret_cast<const sockaddr*>(&kernel),
                    sizeof kernel) == static_cast<ssize_t>(question.size());
}

void failWith(AddressDump& dump, const char* problem) {
    dump.state = DumpState::Failed;
    dump.problem = problem;
}

void takeNext(int socket, AddressDump& dump) {
    std::array<char, kDatagramBytes> buffer{};
    sockaddr_nl sender{};
    socklen_t senderBytes = sizeof sender;
    const ssize_t count = ::recvfrom(socket, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC,
                                     reinterpret_cast<sockaddr*>(&sender), &senderBytes);
    if (count < 0) {
        failWith(dump, std::strerror(errno));
    } else if (sender.nl_pid != 0) {
        // Root of the namespace can send here too; the kernel's number is 0.
    } else if (static_cast<std::size_t>(count) > buffer.size()) {
        failWith(dump, "the kernel's answer is too long");
    } else {
        takeDatagram(dump, {buffer.data(), static_cast<std::size_t>(count)});
    }
}

bool isFull(const AddressDump& dump) {
    return dump.addresses.size() > kMaxAddresses;
}

AddressDump readOnce(int socket, std::uint32_t number) {
    AddressDump dump;
    dump.number = number;
    if (!ask(socket, number)) {
        failWith(dump, std::strerror(errno));
    }
    for (unsigned i = 0; i < kMaxDatagrams && dump.state == DumpState::Unfinished && !isFull(dump); ++i) {
        takeNext(socket, dump);
    }
    return dump;
}

}  // namespace

OwnedDescriptor openNoticeSocket() {
    OwnedDescriptor socket = openSocket();
    // The kernel makes this the smallest size it has. What does not fit is dropped, which costs the host nothing.
    const int smallest = 1;
    sockaddr_nl groups{};
    groups.nl_family = AF_NETLINK;
    groups.nl_groups = RTMGRP_IPV4_IFADDR;
    if (socket && (::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest) != 0 ||
                   ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&groups), sizeof groups) != 0)) {
        const int why = errno;
        socket.reset();
        errno = why;
    }
    return socket;
}

void dropNotices(int socket) {
    char byte = 0;
    for (unsigned i = 0; i < kMaxNotices; ++i) {
        // An error here is that of a queue that has overflown: what is still in it follows.
        if (::recv(socket, &byte, sizeof byte, MSG_DONTWAIT) < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return;
        }
    }
}

OwnedDescriptor openQuestionSocket() {
    return openSocket();
}

AddressList readAddresses(int socket) {
    AddressDump dump;
    for (std::uint32_t reading = 1; reading <= kMaxReadings; ++reading) {
        dump = readOnce(socket, reading);
        if (!dump.interrupted || dump.state != DumpState::Complete) {
            break;
        }
    }
    AddressList list;
    list.problem = dump.problem;
    if (dump.state != DumpState::Failed) {
        list.cut = dump.state == DumpState::Unfinished || isFull(dump);
        list.addresses = publishable(std::move(dump.addresses), kMaxAddresses);
    }
    return list;
}

}  // namespace kx::agent::lxc
