// Netlink messages as the kernel writes them, and a reader's way through them.
#pragma once

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "agent/backends/lxc/NetlinkDump.h"

namespace kx::agent::lxc {

inline constexpr std::uint32_t kDumpNumber = 7;

template <typename Plain>
std::string bytesOf(const Plain& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

inline std::string padded(std::string text) {
    text.resize((text.size() + 3) / 4 * 4);
    return text;
}

inline std::string message(std::uint16_t type, const std::string& payload, std::uint16_t flags = NLM_F_MULTI,
                           std::uint32_t number = kDumpNumber) {
    nlmsghdr head{};
    head.nlmsg_len = static_cast<std::uint32_t>(sizeof head + payload.size());
    head.nlmsg_type = type;
    head.nlmsg_flags = flags;
    head.nlmsg_seq = number;
    return padded(bytesOf(head) + payload);
}

inline std::string attribute(std::uint16_t type, const std::string& value) {
    rtattr head{};
    head.rta_len = static_cast<std::uint16_t>(sizeof head + value.size());
    head.rta_type = type;
    return padded(bytesOf(head) + value);
}

inline std::string done(int code = 0) {
    return message(NLMSG_DONE, bytesOf(code));
}

/// Takes a datagram, at the alignment that a receiver's buffer has.
inline void take(DumpAnswer& answer, const std::string& datagram, DumpReader& reader) {
    std::vector<std::uint64_t> buffer(datagram.size() / sizeof(std::uint64_t) + 1);
    std::memcpy(buffer.data(), datagram.data(), datagram.size());
    takeDatagram(answer, reinterpret_cast<const char*>(buffer.data()), datagram.size(), reader);
}

/// @return how far some datagrams have brought an answer
inline DumpAnswer answerOf(const std::vector<std::string>& datagrams, DumpReader& reader) {
    DumpAnswer answer;
    answer.number = kDumpNumber;
    for (const std::string& datagram : datagrams) {
        take(answer, datagram, reader);
    }
    return answer;
}

}  // namespace kx::agent::lxc
