// Callbacks of a request, and what they are called with.
//
// Thread promise: callbacks run on the event loop's thread, save those delivered inside a synchronous call, which
// run on its caller's thread. One handler is never called on two threads at once.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <cstdint>
#include <functional>
#include <string>

#include <kxl/KXLLock.h>
#include <kxl/KXLRefCounter.h>

/// Why a request failed. Programs compare with these numbers, so none is ever given another meaning.
enum KXLRequestError : int {
    KXL_ERROR_TIMEOUT = -2,       ///< the peer was silent for too long
    KXL_ERROR_CANCEL = -3,        ///< the request was cancelled
    KXL_ERROR_DISCONNECT = -4,    ///< the peer closed the connection, or is not there
    KXL_ERROR_BROKEN = -5,        ///< the connection failed, or the peer sent what cannot be understood
    KXL_ERROR_NO_TRANSPORT = -6,  ///< no transport has the name the connectivity information asks for
    KXL_ERROR_REFUSED = -7,       ///< the agent refused the handshake
    KXL_ERROR_STOPPED = -8,       ///< the event loop does not run, or the call would wait for itself
};

/// @brief How far a long request has come.
struct KXLRequestProgressData {
    std::uint32_t done = 0;
    std::uint32_t total = 0;  ///< 0: not known
};

class KXLRequestHandlerPrototype;

/// @brief What a handler may know of the peer of its request. Plain values.
class KXLConnectionPrototype : public KXLRefCounter {
public:
    explicit KXLConnectionPrototype(std::string peerName) : peerName_(std::move(peerName)) {}
    /// @return the program name that the agent gave in the handshake
    const std::string& getPeerName() const { return peerName_; }

private:
    std::string peerName_;
};

/// @brief Ties a handler to the request it serves. Thread-safe.
class KXLRequestContext : public KXLRefCounter {
public:
    using Canceller = std::function<void()>;

    explicit KXLRequestContext(Canceller canceller) : canceller_(std::move(canceller)) {}

    /// @brief Asks the library to give the request up. At once, from any thread; handleCancel follows on the
    /// event loop's thread. A second call does nothing.
    void cancel();

    /// @return the peer of the request's connection; null while there is none
    boost::intrusive_ptr<KXLConnectionPrototype> getConnection() const;
    void setConnection(boost::intrusive_ptr<KXLConnectionPrototype> connection);

private:
    mutable KXLLock lock_;
    Canceller canceller_;
    boost::intrusive_ptr<KXLConnectionPrototype> connection_;
};

/// @brief Interface of a request's callbacks. The order of the virtual functions is part of the contract.
class KXLRequestHandlerPrototype : public virtual KXLRefCounter {
public:
    virtual void cancel() = 0;
    virtual void handleStart() {}
    virtual void handleFinish() {}
    /// The connection is up and what the request asked for is there.
    virtual void handleConnected() = 0;
    /// The request failed, or its connection was lost.
    virtual void handleError(int code) = 0;
    virtual void handleProgress(const KXLRequestProgressData&) {}
    virtual void handleTimeout() { defaultHandleError(KXL_ERROR_TIMEOUT); }
    virtual void handleCancel() { defaultHandleError(KXL_ERROR_CANCEL); }
    virtual void handleBroken() { defaultHandleError(KXL_ERROR_BROKEN); }
    virtual void handleDisconnect() { defaultHandleError(KXL_ERROR_DISCONNECT); }
    /// Cancels the request that `handler` serves.
    virtual void doCancel(boost::intrusive_ptr<KXLRequestHandlerPrototype> handler);
    /// Called by the library when it takes the handler on, and with null when it lets go of it.
    virtual void setContext(boost::intrusive_ptr<KXLRequestContext> context);
    ~KXLRequestHandlerPrototype() override;
    /// What the four callbacks above call unless they are overridden: calls handleError.
    virtual void defaultHandleError(int code);
    /// @return the context of the request being served; null when there is none
    virtual boost::intrusive_ptr<KXLRequestContext> getContext();
    virtual boost::intrusive_ptr<KXLConnectionPrototype> getConnection() = 0;

private:
    KXLLock contextLock_;
    boost::intrusive_ptr<KXLRequestContext> context_;
};

/// @brief A handler whose request is served by an agent.
class KXLRequestHandlerAgentPrototype : public KXLRequestHandlerPrototype {
public:
    /// Cancels this handler's own request.
    void cancel() override;
    boost::intrusive_ptr<KXLConnectionPrototype> getConnection() override;
};
