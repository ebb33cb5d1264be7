#include "agent/backends/lxc/NetlinkDump.h"

#include <fmt/format.h>
#include <libmnl/libmnl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace kx::agent::lxc {
namespace {

/// The largest datagram that the kernel makes of a list.
constexpr std::size_t kDatagramBytes = std::size_t{32} * 1024;

/// How often a list is read because it has changed meanwhile.
constexpr std::uint32_t kMaxReadings = 3;

void fail(DumpAnswer& answer, std::string problem) {
    answer.state = DumpState::Failed;
    answer.problem = std::move(problem);
}

void failUnread(DumpAnswer& answer) {
    fail(answer, "the kernel's answer cannot be understood");
}

/// @return the error that a message reports: 0, or an error number with its sign changed; that of an older kernel's end
/// of a list, which has none, is 0
int codeOf(const nlmsghdr& message) {
    int code = 0;
    if (mnl_nlmsg_get_payload_len(&message) >= sizeof code) {
        std::memcpy(&code, mnl_nlmsg_get_payload(&message), sizeof code);
    }
    return code;
}

void takeEnd(DumpAnswer& answer, const nlmsghdr& message, DumpState withoutError) {
    const int code = codeOf(message);
    if (code == 0) {
        answer.state = withoutError;
    } else {
        fail(answer, fmt::format("the kernel answers: {}", std::strerror(-code)));
    }
}

void takeMessage(DumpAnswer& answer, const nlmsghdr& message, DumpReader& reader) {
    if (message.nlmsg_seq != answer.number) {
        return;
    }
    answer.interrupted = answer.interrupted || (message.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    if (message.nlmsg_type == NLMSG_DONE) {
        takeEnd(answer, message, DumpState::Complete);
    } else if (message.nlmsg_type == NLMSG_ERROR) {
        takeEnd(answer, message, DumpState::Unfinished);  // without an error it is an acknowledgement
    } else if (message.nlmsg_type >= NLMSG_MIN_TYPE && !reader.isFull() && !reader.take(message)) {
        failUnread(answer);
    }
}

bool ask(int socket, const DumpRequest& request, std::uint32_t number) {
    alignas(nlmsghdr) std::array<char, 128> buffer{};
    nlmsghdr* const message = mnl_nlmsg_put_header(buffer.data());
    message->nlmsg_type = request.type;
    message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message->nlmsg_seq = number;
    mnl_nlmsg_put_extra_header(message, request.headBytes);
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    return ::sendto(socket, message, message->nlmsg_len, 0, reinterpret_cast<const sockaddr*>(&kernel),
                    sizeof kernel) == static_cast<ssize_t>(message->nlmsg_len);
}

void takeNext(int socket, DumpAnswer& answer, DumpReader& reader) {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): written before it is read
    alignas(nlmsghdr) std::array<char, kDatagramBytes> buffer;
    sockaddr_nl sender{};
    socklen_t senderBytes = sizeof sender;
    const ssize_t count = ::recvfrom(socket, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC,
                                     reinterpret_cast<sockaddr*>(&sender), &senderBytes);
    if (count < 0) {
        fail(answer, std::strerror(errno));
    } else if (sender.nl_pid != 0) {
        // Root of the namespace can send here too; the kernel's number is 0.
    } else if (static_cast<std::size_t>(count) > buffer.size()) {
        fail(answer, "the kernel's answer is too long");
    } else {
        takeDatagram(answer, buffer.data(), static_cast<std::size_t>(count), reader);
    }
}

DumpAnswer readOnce(int socket, const DumpRequest& request, std::uint32_t number, DumpReader& reader) {
    DumpAnswer answer;
    answer.number = number;
    if (!ask(socket, request, number)) {
        fail(answer, std::strerror(errno));
    }
    reader.begin();
    for (unsigned i = 0; i < request.maxDatagrams && answer.state == DumpState::Unfinished && !reader.isFull(); ++i) {
        takeNext(socket, answer, reader);
    }
    return answer;
}

}  // namespace

const nlattr* findAttribute(const nlmsghdr& message, std::size_t headBytes, std::uint16_t type) {
    const auto* end = static_cast<const char*>(mnl_nlmsg_get_payload_tail(&message));
    const auto* attribute = static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(&message, headBytes));
    const nlattr* found = nullptr;
    for (; mnl_attr_ok(attribute, static_cast<int>(end - reinterpret_cast<const char*>(attribute)));
         attribute = mnl_attr_next(attribute)) {
        if (mnl_attr_get_type(attribute) == type) {
            found = attribute;
        }
    }
    return found;
}

void takeDatagram(DumpAnswer& answer, const char* bytes, std::size_t count, DumpReader& reader) {
    const auto* message = reinterpret_cast<const nlmsghdr*>(bytes);
    for (int left = static_cast<int>(count); answer.state == DumpState::Unfinished && left > 0;
         message = mnl_nlmsg_next(message, &left)) {
        if (!mnl_nlmsg_ok(message, left)) {
            failUnread(answer);
            return;
        }
        takeMessage(answer, *message, reader);
    }
}

OwnedDescriptor openRouteSocket() {
    return OwnedDescriptor(::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE));
}

DumpResult readDump(int socket, const DumpRequest& request, DumpReader& reader) {
    DumpAnswer answer;
    for (std::uint32_t reading = 1; reading <= kMaxReadings; ++reading) {
        answer = readOnce(socket, request, reading, reader);
        if (!answer.interrupted || answer.state != DumpState::Complete) {
            break;
        }
    }
    return {answer.problem, answer.state == DumpState::Unfinished || reader.isFull()};
}

}  // namespace kx::agent::lxc
