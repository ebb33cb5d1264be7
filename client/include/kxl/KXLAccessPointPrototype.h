// The way to a management agent: access objects and the access point.
//
// Thread promise: any thread, unless a function says otherwise. Only functions named ...Sync wait.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include <kxl/KXLAsyncConnectionPrototype.h>
#include <kxl/KXLConnectionInfo.h>
#include <kxl/KXLEnvCache.h>
#include <kxl/KXLEvent.h>
#include <kxl/KXLEventLoopPrototype.h>
#include <kxl/KXLGUID.h>
#include <kxl/KXLRefCounter.h>
#include <kxl/KXLRequestHandlerPrototype.h>
#include <kxl/KXLTimeoutHandlerPrototype.h>
#include <kxl/KXLVocMap.h>

namespace kx::client {
class LoopTimers;
class Session;
class SessionDirectory;
}  // namespace kx::client

/// How up to date an agent is. A value.
struct KXLFreshness {
    std::int64_t ageMs = -1;  ///< since it last compared what it publishes with its host; -1: it does not say
    std::uint32_t silentContainers = 0;  ///< of which older values are published, because they do not answer
};

/// @brief Access to agents: what an access point is made from.
class KXLAccessPrototype : public virtual KXLRefCounter {
public:
    /// @return the loop on which this access delivers its callbacks
    virtual boost::intrusive_ptr<KXLEventLoopPrototype> getEventLoop() const = 0;
    /// @return the cache that access points made from this fill; null: each makes its own
    virtual boost::intrusive_ptr<KXLEnvCache> getCache() const = 0;

    /// @brief Opens an event connection to an agent. Answers at once, from any thread: a failure to connect is told to
    /// those who subscribe on it, by handleFailure. Several handlers may subscribe on one connection; events
    /// that come before the first does wait for it.
    /// @param eid the agent's own identifier
    /// @param name empty: for the program as a consumer, under its short name. The agent, if it can, keeps the alerts
    /// whose messages have not been finished, also those that come while the program is away, and delivers them with
    /// its next subscription. Any other name, e.g. "live": only what happens while the connection is there.
    /// @return null when no access point of this access is connected to that agent, or the event loop does not run
    virtual boost::intrusive_ptr<KXLAsyncConnectionPrototype> openEventConnection(const KXLEID& eid,
                                                                                  const std::string& name) = 0;

    /// @brief The same, for the caller's own use: its owner closes it.
    /// @param eid the agent's own identifier
    /// @param peer KXLEID::EID_INVALID: the agent itself
    /// @param info where to connect; null: where the access point is connected
    virtual boost::intrusive_ptr<KXLAsyncConnectionPrototype> openDedicatedConnection(
        const KXLEID& eid, const KXLEID& peer, const KXLConnectivityInfo* info) = 0;

    /// @brief Has a timeout fire once, on the event loop's thread. Answers at once, from any thread.
    /// @param handler kept until it has fired or the loop has stopped
    /// @return 0; -1 when the event loop does not run
    virtual int registerTimeout(boost::intrusive_ptr<KXLTimeoutHandlerPrototype> handler) = 0;

    /// @return the library's own list of access points; null where there is none
    virtual std::shared_ptr<kx::client::SessionDirectory> directory() const { return nullptr; }
};

/// @brief Access to agents over registered transports.
class KXLAccessAgentPrototype : public KXLAccessPrototype {
public:
    /// @param cache the cache to fill; null: each access point makes its own
    /// @param eventLoop delivers all callbacks; not null
    /// @param reserved null
    static boost::intrusive_ptr<KXLAccessAgentPrototype> createInstance(
        boost::intrusive_ptr<KXLEnvCache> cache, boost::intrusive_ptr<KXLEventLoopPrototype> eventLoop, void* reserved);

    boost::intrusive_ptr<KXLEventLoopPrototype> getEventLoop() const override { return eventLoop_; }
    boost::intrusive_ptr<KXLEnvCache> getCache() const override { return cache_; }
    boost::intrusive_ptr<KXLAsyncConnectionPrototype> openEventConnection(const KXLEID& eid,
                                                                          const std::string& name) override;
    boost::intrusive_ptr<KXLAsyncConnectionPrototype> openDedicatedConnection(const KXLEID& eid, const KXLEID& peer,
                                                                              const KXLConnectivityInfo* info) override;
    int registerTimeout(boost::intrusive_ptr<KXLTimeoutHandlerPrototype> handler) override;
    std::shared_ptr<kx::client::SessionDirectory> directory() const override { return directory_; }

private:
    KXLAccessAgentPrototype(boost::intrusive_ptr<KXLEnvCache> cache,
                            boost::intrusive_ptr<KXLEventLoopPrototype> eventLoop);

    boost::intrusive_ptr<KXLEnvCache> cache_;
    boost::intrusive_ptr<KXLEventLoopPrototype> eventLoop_;
    std::shared_ptr<kx::client::SessionDirectory> directory_;
    std::shared_ptr<kx::client::LoopTimers> timers_;
};

/// @brief Something that gives access to one agent. The order of the virtual functions is part of the contract.
class KXLAccessProviderPrototype : public virtual KXLRefCounter {
public:
    /// @return the access object; null when it is not available
    virtual boost::intrusive_ptr<KXLAccessPrototype> getAccess() const = 0;
    /// @return the agent's own identifier; KXLEID::EID_INVALID before the first connection
    virtual KXLEID getEID() const = 0;
};

/// @brief One agent: its connection, environment cache and vocabularies.
class KXLAccessPointPrototype : public KXLAccessProviderPrototype {
public:
    /// @param access from KXLAccessAgentPrototype::createInstance; not null
    /// @param cache the cache to fill; null: the access object's, else one of its own
    static boost::intrusive_ptr<KXLAccessPointPrototype> createInstance(boost::intrusive_ptr<KXLAccessPrototype> access,
                                                                        boost::intrusive_ptr<KXLEnvCache> cache);
    ~KXLAccessPointPrototype() override;

    boost::intrusive_ptr<KXLAccessPrototype> getAccess() const override;
    KXLEID getEID() const override;

    /// @brief Connects, shakes hands and fills the environment cache and the vocabularies.
    ///
    /// Waits for the loop thread at most 500 ms in all. After a call that ran into that limit the ones that follow fail
    /// at once until the agent has sent something or 5 s have passed, so that the many calls that one SNMP request
    /// leads to stay within its second together. What the agent sends after the limit is not lost: a call within the
    /// next 10 s takes it over.
    ///
    /// On success the handler has got handleConnected before this returns, on this thread; from then on the
    /// library keeps the link up by itself, and calls handleDisconnect, handleBroken or handleTimeout on loss
    /// and handleConnected on return, on the loop thread, never before this has returned. On failure the
    /// handler has got one handleError and is dropped, and nothing is tried in the background.
    ///
    /// Must not be called on the loop thread, where it could only wait for itself: that fails at once.
    ///
    /// @param info where and how to connect
    /// @param handler kept until the access point is destroyed or the request cancelled; not null
    /// @param flags reserved; the environment cache and the vocabularies are filled whatever they are
    /// @return 0, or a KXLRequestError
    int initializeSync(const KXLConnectionInfo& info, boost::intrusive_ptr<KXLRequestHandlerPrototype> handler,
                       int flags);

    /// @brief Has a described host report an alert, as if it had happened there; real hosts refuse. Waits for the
    /// answer, at most 500 ms, and not at all while the agent is silent (see initializeSync).
    ///
    /// Must not be called on the loop thread, nor by what answers requests of others meanwhile.
    /// @param alert what to report; its `eid` counts where `veid` is null
    /// @param veid the number of a container; null: none
    /// @param refusal receives the agent's words when it refuses
    /// @return 0, or a KXLRequestError, KXL_ERROR_REFUSED among them
    int raiseAlertSync(const KXLResourceAlertData& alert, const std::int32_t* veid, std::string& refusal);

    /// @brief Asks the agent for a sign of life, which it gives at once whatever it does besides. Waits for it, at most
    /// 500 ms, and not at all while the agent is silent.
    ///
    /// Must not be called on the loop thread, nor by what answers requests of others meanwhile.
    /// @return 0, or a KXLRequestError
    int pingSync();

    /// @brief Likewise.
    /// @param freshness receives what the agent says of what it publishes
    int pingSync(KXLFreshness& freshness);

    /// @return the cache, never null; empty before the first connection, and what was last received after a loss
    boost::intrusive_ptr<KXLEnvCache> getEnvCache() const;

    /// @brief The default vocabulary of the node with that identifier, of which it is known that it holds now. Answers
    /// at once from memory.
    /// @return null when the node is not this agent or has no such vocabulary, or while the link is down
    boost::shared_ptr<KXLVocMap> getVocabulary(const KXLEID& eid) const;
    /// @brief A named vocabulary of the node with that identifier, as last received. Answers at once from memory.
    /// @param name empty: the default vocabulary
    /// @return null when the node is not this agent or had no such vocabulary
    boost::shared_ptr<KXLVocMap> getVocabulary(const KXLEID& eid, const std::string& name) const;

private:
    KXLAccessPointPrototype(boost::intrusive_ptr<KXLAccessPrototype> access, boost::intrusive_ptr<KXLEnvCache> cache);

    boost::intrusive_ptr<KXLAccessPrototype> access_;
    boost::intrusive_ptr<KXLEnvCache> cache_;
    std::shared_ptr<kx::client::Session> session_;
};
