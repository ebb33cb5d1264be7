// The session with the master agent, as the senders of traps need to know it: whether there is one, whether the master
// keeps up with reading it, and which traps it has confirmed.
//
// An AgentX session is one stream socket, blocking on both sides. Two peers that both write and do not read wait for
// each other for good; so who sends without being asked first finds out whether there is room.
//
// Thread promise: room() and cutOff() from any thread, without waiting; cutOff() also in a signal handler. Everything
// else by whoever is in the agent library (LibraryLock.h).
#pragma once

#include <atomic>
#include <mutex>

struct snmp_session;

/// @brief The one session. Learns of its beginning and end from the agent library.
class MasterSession {
public:
    enum class Room {
        Ample,      ///< both sides keep up with reading
        Scarce,     ///< one of them does not; sending a trap does not block
        None,       ///< sending might block
        NoSession,  ///< there is no session
    };

    static MasterSession& instance();

    /// @brief Has the agent library report sessions from now on. Main thread, once, before init_snmp.
    static void watch();

    Room room() const;

    /// @brief Ends the session's socket for both directions, so that nothing on the main thread waits for the master
    /// any more. For a process that is to exit.
    void cutOff();

    /// @brief Surrounds the sending of one trap. Its confirmation is awaited for as long as the session exists: the
    /// library would else send the trap again every second until the master answers, and each would arrive.
    class Sending {
    public:
        explicit Sending(const MasterSession& master);
        ~Sending();
        Sending(const Sending&) = delete;
        Sending& operator=(const Sending&) = delete;

        /// @return whether the trap was handed to the master's socket
        bool hasSucceeded() const;

    private:
        snmp_session* const session_;
        const unsigned long sentBefore_;
        const long timeout_;
    };

    // Called by the agent library's notices.
    void opened(snmp_session* session);
    void closed(const snmp_session* session);

private:
    void setSocket(int socket);

    mutable std::mutex mutex_;  ///< the last lock of all; held for two system calls
    int socket_ = -1;           ///< a duplicate, so that it stays the session's whatever the library closes
    std::atomic<int> cutOffSocket_{-1};
    snmp_session* session_ = nullptr;
};
