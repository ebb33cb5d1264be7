// Stands for the master agent at the other end of the session that traps are sent on: a real socket, which is read when
// a test wants it to be.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

#include "mib/LibraryLock.h"
#include "mib/NetSnmp.h"
#include "tests/support/TemporaryFolder.h"

// clang-format off
#include <net-snmp/agent/agent_callbacks.h>
#include <net-snmp/agent/agent_trap.h>
#include <net-snmp/library/snmpUnixDomain.h>
// clang-format on

namespace kx::test {

/// @brief While it lives there is a session, which takes traps as informs: like an AgentX notification they are to be
/// confirmed, and are sent again by the library.
class FakeMaster {
public:
    FakeMaster() {
        const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(::bind(listener, reinterpret_cast<const sockaddr*>(&address_), sizeof address_), 0);
        EXPECT_EQ(::listen(listener, 1), 0);
        open();
        socket_ = ::accept(listener, nullptr, nullptr);
        ::close(listener);
        notice(SNMPD_CALLBACK_INDEX_START);
    }
    ~FakeMaster() {
        end();
        ::close(socket_);
    }
    FakeMaster(const FakeMaster&) = delete;
    FakeMaster& operator=(const FakeMaster&) = delete;

    /// @brief The agent library closes the session.
    void end() {
        if (session_ != nullptr) {
            notice(SNMPD_CALLBACK_INDEX_STOP);
            const InLibrary library;
            remove_trap_session(session_);
            snmp_close(session_);
            session_ = nullptr;
        }
    }

    netsnmp_session& session() { return *session_; }

    /// @brief Sends bytes that nobody at our end reads.
    void write(std::size_t bytes) const {
        const std::string content(bytes, 'x');
        EXPECT_EQ(::send(socket_, content.data(), content.size(), MSG_DONTWAIT), static_cast<ssize_t>(bytes));
    }
    /// @brief Reads all that is there.
    /// @return how many bytes that was
    std::size_t readAll() const {
        std::array<char, 65536> buffer{};
        std::size_t total = 0;
        while (true) {
            const ssize_t size = ::recv(socket_, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (size <= 0) {
                return total;
            }
            total += static_cast<std::size_t>(size);
        }
    }
    /// @brief Goes away without a word.
    void hangUp() const { ::shutdown(socket_, SHUT_RDWR); }

private:
    void open() {
        const InLibrary library;
        netsnmp_session wanted;
        snmp_sess_init(&wanted);
        wanted.version = SNMP_VERSION_2c;
        wanted.flags |= SNMP_FLAGS_STREAM_SOCKET;
        wanted.community = reinterpret_cast<unsigned char*>(community_.data());
        wanted.community_len = community_.size();
        session_ = snmp_add(&wanted, netsnmp_unix_transport(&address_, 0), nullptr, nullptr);
        EXPECT_NE(session_, nullptr);
        add_trap_session(session_, SNMP_MSG_INFORM, 1, SNMP_VERSION_2c);
    }
    void notice(int minor) {
        const InLibrary library;
        snmp_call_callbacks(SNMP_CALLBACK_APPLICATION, minor, session_);
    }
    static sockaddr_un addressOf(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        return address;
    }

    const TemporaryFolder folder_;
    const sockaddr_un address_ = addressOf(folder_ / "master");
    std::string community_ = "public";
    netsnmp_session* session_ = nullptr;
    int socket_ = -1;
};

}  // namespace kx::test
