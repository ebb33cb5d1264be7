#include "traps/MasterSession.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <limits>

#include "mib/NetSnmp.h"

// clang-format off
#include <net-snmp/agent/agent_callbacks.h>
#include <net-snmp/library/snmp_transport.h>
// clang-format on

namespace {

/// What the kernel holds of a small packet is close to 1 KiB, and both socket buffers of Linux' default take about 280.
constexpr int ampleUnreadByMaster = 48 * 1024;
/// Traps that are on their way when the main thread cannot read: their confirmations still fit into the master's
/// buffer.
constexpr int mostUnreadByMaster = 128 * 1024;
/// About 70 confirmations.
constexpr int ampleUnreadByUs = 2 * 1024;

/// Asked for as the send buffer; the kernel cuts it to its limit, and doubles that.
constexpr int sendBuffer = 512 * 1024;
/// An answer that the master does not take within this is dropped: it asks again, and may be waiting for us to read.
constexpr timeval longestSend{0, 500000};

/// Pings and registrations: as the library's default is, which is set to 0 for the opening of a session.
constexpr int sessionRetries = 5;

constexpr long neverMicroseconds = std::numeric_limits<long>::max() / 2;

extern "C" int master_session_opened(int, int, void* session, void*) {
    MasterSession::instance().opened(static_cast<netsnmp_session*>(session));
    return 0;
}

extern "C" int master_session_closed(int, int, void* session, void*) {
    MasterSession::instance().closed(static_cast<netsnmp_session*>(session));
    return 0;
}

unsigned long sentTraps(const netsnmp_session* session) {
    return session != nullptr && session->trap_stats != nullptr ? session->trap_stats->sent_count : 0;
}

unsigned long unconfirmedTraps(const netsnmp_session& session) {
    return session.trap_stats != nullptr ? session.trap_stats->sent_count - session.trap_stats->ack_count : 0;
}

void prepare(int socket) {
    // Neither can fail on a socket; without them the session works as it would without us.
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &longestSend, sizeof longestSend);
}

int pending(int socket, unsigned long request) {
    int bytes = 0;
    return ioctl(socket, request, &bytes) == 0 ? bytes : std::numeric_limits<int>::max();
}

}  // namespace

MasterSession& MasterSession::instance() {
    static MasterSession theOne;
    return theOne;
}

void MasterSession::watch() {
    instance();
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_START, master_session_opened, nullptr);
    snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_INDEX_STOP, master_session_closed, nullptr);
}

MasterSession::Room MasterSession::room() const {
    const std::lock_guard guard(mutex_);
    if (socket_ < 0) {
        return Room::NoSession;
    }
    const int unreadByMaster = pending(socket_, SIOCOUTQ);
    if (unreadByMaster >= mostUnreadByMaster) {
        return Room::None;
    }
    const bool isAmple = unreadByMaster < ampleUnreadByMaster && pending(socket_, FIONREAD) < ampleUnreadByUs;
    return isAmple ? Room::Ample : Room::Scarce;
}

void MasterSession::cutOff() {
    const int socket = cutOffSocket_;
    if (socket >= 0) {
        shutdown(socket, SHUT_RDWR);
    }
}

void MasterSession::opened(netsnmp_session* session) {
    const netsnmp_transport* const transport = snmp_sess_transport(snmp_sess_pointer(session));
    session->retries = sessionRetries;
    session_ = session;
    prepare(transport->sock);
    setSocket(fcntl(transport->sock, F_DUPFD_CLOEXEC, 0));
}

void MasterSession::closed(const netsnmp_session* session) {
    if (session != session_) {
        return;
    }
    setSocket(-1);
    session_ = nullptr;
    if (const unsigned long unconfirmed = unconfirmedTraps(*session)) {
        snmp_log(LOG_WARNING, "session with the master agent ended: %lu traps sent and not confirmed, may be lost\n",
                 unconfirmed);
    }
}

void MasterSession::setSocket(int socket) {
    cutOffSocket_ = -1;  // the signal handler runs on this thread
    const std::lock_guard guard(mutex_);
    if (socket_ >= 0) {
        close(socket_);
    }
    socket_ = socket;
    cutOffSocket_ = socket;
}

MasterSession::Sending::Sending(const MasterSession& master)
    : session_(master.session_),
      sentBefore_(sentTraps(session_)),
      timeout_(session_ != nullptr ? session_->timeout : 0) {
    if (session_ != nullptr) {
        session_->timeout = neverMicroseconds;
    }
}

MasterSession::Sending::~Sending() {
    if (session_ != nullptr) {
        session_->timeout = timeout_;
    }
}

bool MasterSession::Sending::hasSucceeded() const {
    return sentTraps(session_) > sentBefore_;
}
