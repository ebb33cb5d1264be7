// The connection of a command to the management agent.
//
// Thread promise: made, used and destroyed on the main thread. The listener is called on the client library's thread.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <string>

#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLEventLoopPrototype.h>

namespace kx::ctl {

/// Where the agent listens unless --socket says otherwise.
inline constexpr const char* kDefaultSocket = "/var/opt/orma/agent/agent.sock";

/// Its members, and root, may connect.
inline constexpr const char* kAgentGroup = "kxagent";

/// Longest path of a socket, in bytes (unix(7): sun_path without its end).
inline constexpr std::size_t kMaxSocketPathBytes = 107;

/// @brief Is told when the connection is lost and when it is back. The first time it comes about is not told.
class LinkListener {
public:
    virtual ~LinkListener() = default;
    virtual void linkLost() = 0;
    virtual void linkBack() = 0;
};

/// @brief A connection that is up, with the environments of the host. The library restores it when it is lost.
class AgentConnection {
public:
    /// @brief Connects. An agent that is there but silent gets some seconds: it may be busy.
    /// @param socket the path of the agent's socket
    /// @param listener must outlive the connection; null: nobody wants to know
    /// @throws Failure when the agent cannot be reached, with the likely reason in words
    explicit AgentConnection(const std::string& socket, LinkListener* listener = nullptr);
    /// Nothing is delivered afterwards.
    ~AgentConnection();
    AgentConnection(const AgentConnection&) = delete;
    AgentConnection& operator=(const AgentConnection&) = delete;

    KXLAccessPointPrototype& accessPoint() const { return *accessPoint_; }

    /// @return the program name that the agent gave, fit for a terminal; empty when it gave none
    std::string programName() const;

    /// @return the agent's program name and identifier, fit for a terminal
    std::string agentName() const;

private:
    class Handler;

    int connect(const std::string& socket, LinkListener* listener);

    boost::intrusive_ptr<KXLEventLoopPrototype> loop_;
    boost::intrusive_ptr<Handler> handler_;
    boost::intrusive_ptr<KXLAccessPointPrototype> accessPoint_;
};

/// @brief Why a request failed, in words for the operator.
/// @param code a KXLRequestError
/// @param socket the path of the agent's socket, which is looked at
std::string whyUnreachable(int code, const std::string& socket);

}  // namespace kx::ctl
