// Requests for performance counters: monitors that report again and again, and one-shot queries.
//
// Thread promise: an agent object belongs to one thread. Starting a monitor never waits. A query waits for its answer,
// at most 500 ms, and must not be made on the event loop's thread.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <boost/shared_ptr.hpp>
#include <set>
#include <vector>

#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLMonitorData.h>
#include <kxl/KXLMonitorHandlerPrototype.h>

/// @brief A request: whom its answers go to, and whether its caller waits for them.
class KXLRequest {
public:
    class Context : public KXLRefCounter {
    public:
        /// @param handler null: none
        void setHandler(boost::intrusive_ptr<KXLRequestHandlerPrototype> handler) { handler_ = std::move(handler); }
        const boost::intrusive_ptr<KXLRequestHandlerPrototype>& getHandler() const { return handler_; }
        void setSynchronous(bool isSynchronous) { synchronous_ = isSynchronous; }
        bool isSynchronous() const { return synchronous_; }

    private:
        boost::intrusive_ptr<KXLRequestHandlerPrototype> handler_;
        bool synchronous_ = true;
    };

    KXLRequest() : context_(new Context) {}

    /// @return never null
    const boost::intrusive_ptr<Context>& getContext() const { return context_; }

private:
    boost::intrusive_ptr<Context> context_;
};

/// @brief Starts monitors on one agent.
class KXLMonitorAgent {
public:
    using Handler = KXLMonitorHandlerPrototypeT<std::vector<KXLMonitorData>>;

    /// @param node the agent's own identifier
    /// @param provider gives access to it; null: nothing can be started
    KXLMonitorAgent(const KXLEID& node, boost::intrusive_ptr<KXLAccessProviderPrototype> provider)
        : node_(node), provider_(std::move(provider)) {}

    KXLRequest& getRequest() { return request_; }

    /// @brief Starts a monitor. The request's handler gets its reports; it must be a Handler, and the request not
    /// synchronous. The monitor outlives this object: it goes on until the handler stops it or the connection is lost,
    /// which the handler is told, and is not started anew by itself.
    /// @param eids whose counters; empty: every container's
    /// @param classes not null
    /// @param periodSeconds between two reports, above 0
    /// @param output receives those containers that cannot be monitored: none, for what the agent does not know is
    /// simply not reported
    /// @param flags 0
    /// @return 0; otherwise a KXLRequestError: nothing was started, and the handler is not called
    int startMonitoring(const std::set<KXLEID>& eids, const boost::shared_ptr<KXLPerfMonClassList>& classes,
                        int periodSeconds, std::set<KXLEID>& output, int flags);

private:
    const KXLEID node_;
    const boost::intrusive_ptr<KXLAccessProviderPrototype> provider_;
    KXLRequest request_;
};

/// @brief Makes one-shot queries to one agent.
class KXLPerfMonAgent {
public:
    /// @param node the agent's own identifier
    /// @param provider gives access to it; null: every query fails
    KXLPerfMonAgent(const KXLEID& node, boost::intrusive_ptr<KXLAccessProviderPrototype> provider)
        : node_(node), provider_(std::move(provider)) {}

    KXLRequest& getRequest() { return request_; }

    /// @brief Asks for one report and waits for it. An answer that comes too late goes to the monitors of this
    /// connection that report the class, so that no increase is lost. A query soon after one that was not answered in
    /// time waits only 5 ms.
    /// @param output filled on success
    /// @param eids whose counters; empty: every container's
    /// @param classes not null
    /// @return 0, or a KXLRequestError
    int query(std::vector<KXLMonitorData>& output, const std::set<KXLEID>& eids,
              const boost::shared_ptr<KXLPerfMonClassList>& classes);

private:
    const KXLEID node_;
    const boost::intrusive_ptr<KXLAccessProviderPrototype> provider_;
    KXLRequest request_;
};
