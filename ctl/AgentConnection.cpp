#include "ctl/AgentConnection.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <utility>

#include <kxl/KXLNamedPipePrototype.h>
#include <kxl/KXLRequestHandlerPrototype.h>

#include "ctl/ExitCode.h"
#include "ctl/Printable.h"

namespace kx::ctl {
namespace {

/// How often a silent agent is tried: the library gives each try half a second.
constexpr int kTries = 4;

std::string whyNotConnected(const std::string& socket) {
    struct stat found {};
    const std::string path = printable(socket);
    const bool isThere = ::stat(socket.c_str(), &found) == 0;
    if (isThere && !S_ISSOCK(found.st_mode)) {
        return fmt::format("{} is not a socket", path);
    }
    if ((!isThere && errno == EACCES) || (isThere && ::access(socket.c_str(), W_OK) != 0)) {
        return fmt::format("{}: {}: only root and members of the group {} may connect", path, std::strerror(errno),
                           kAgentGroup);
    }
    return isThere ? fmt::format("nobody answers at {} (is kxagentd running?)", path)
                   : fmt::format("{}: {} (is kxagentd running?)", path, std::strerror(errno));
}

}  // namespace

std::string whyUnreachable(int code, const std::string& socket) {
    const std::string path = printable(socket);
    switch (code) {
        case KXL_ERROR_DISCONNECT:
            return whyNotConnected(socket);
        case KXL_ERROR_TIMEOUT:
            return fmt::format("the agent at {} does not answer", path);
        case KXL_ERROR_REFUSED:
            return fmt::format("the agent at {} refused the connection", path);
        case KXL_ERROR_BROKEN:
            return fmt::format("the agent at {} sent what cannot be understood", path);
        default:
            return fmt::format("the connection to {} failed (error {})", path, code);
    }
}

// ---- the link's callbacks ---------------------------------------------------------------------------------------

// Called on the main thread within the first initialisation and on the library's from then on, never on both at once.
class AgentConnection::Handler : public KXLRequestHandlerAgentPrototype {
public:
    explicit Handler(LinkListener* listener) : listener_(listener) {}

    void handleConnected() override {
        rememberPeer();
        const State before = std::exchange(state_, State::Up);
        if (before == State::Lost && listener_ != nullptr) {
            listener_->linkBack();
        }
    }

    void handleError(int) override {
        if (state_ != State::Up) {
            return;  // a first try that failed: its caller knows
        }
        state_ = State::Lost;
        if (listener_ != nullptr) {
            listener_->linkLost();
        }
    }

    /// @return the program name of the agent that was connected last; empty when it is not known. Any thread.
    std::string peerName() const {
        const std::lock_guard guard(lock_);
        return peerName_;
    }

private:
    enum class State { NeverUp, Up, Lost };

    /// Asked for now, since a connection that is lost has no peer any more.
    void rememberPeer() {
        const auto connection = getConnection();
        const std::lock_guard guard(lock_);
        peerName_ = connection ? connection->getPeerName() : std::string();
    }

    LinkListener* const listener_;
    State state_ = State::NeverUp;
    mutable std::mutex lock_;
    std::string peerName_;
};

// ---- connecting ---------------------------------------------------------------------------------------------------

AgentConnection::AgentConnection(const std::string& socket, LinkListener* listener) : loop_(new KXLEventLoopPrototype) {
    const boost::intrusive_ptr<KXLNamedPipePrototype> transport(new KXLNamedPipePrototype);
    loop_->start();
    const int code = connect(socket, listener);
    if (code != 0) {
        loop_->stop();
        throw Failure(ExitCode::Unreachable, whyUnreachable(code, socket));
    }
}

// Each try is made with a new access point: one that has timed out answers the next calls after a few milliseconds. And
// with a new handler: the library lets go of the old one in its own time.
int AgentConnection::connect(const std::string& socket, LinkListener* listener) {
    KXLConnectionInfo info;
    info.connectivity.setType(KXLNamedPipePrototype::typeName);
    info.connectivity.setAddress(socket);
    const auto access = KXLAccessAgentPrototype::createInstance(nullptr, loop_, nullptr);
    int code = KXL_ERROR_TIMEOUT;
    for (int tried = 0; tried < kTries && code == KXL_ERROR_TIMEOUT; ++tried) {
        handler_ = new Handler(listener);
        accessPoint_ = KXLAccessPointPrototype::createInstance(access, nullptr);
        code = accessPoint_->initializeSync(info, handler_, 0);
    }
    return code;
}

AgentConnection::~AgentConnection() {
    loop_->stop();
}

std::string AgentConnection::programName() const {
    return printable(handler_->peerName());
}

std::string AgentConnection::agentName() const {
    const std::string name = programName();
    const std::string eid = accessPoint_->getEID().toString();
    return name.empty() ? eid : fmt::format("{} ({})", name, eid);
}

}  // namespace kx::ctl
