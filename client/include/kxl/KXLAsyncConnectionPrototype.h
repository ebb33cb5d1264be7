// A connection that delivers messages as they come.
//
// Thread promise: any thread; every call answers at once.
#pragma once

#include <boost/intrusive_ptr.hpp>
#include <cstdint>
#include <string>

#include <kxl/KXLRefCounter.h>
#include <kxl/KXLTaskHandlerPrototype.h>

/// @brief One connection to an agent, besides that of its access point: a socket of its own, so that a slow consumer of
/// events never holds up a query. Dropping the last reference closes it.
class KXLAsyncConnectionPrototype : public virtual KXLRefCounter {
public:
    /// @brief Adds a handler. What becomes of it is told to the handler on the event loop's thread: a connection that
    /// fails, or has failed or been closed already, by handleFailure.
    /// @param name what to subscribe to: KXLEvent::subscriptionName
    /// @param handler kept until it is unsubscribed or the connection fails; not null
    /// @return 0; -1 when there is nothing of that name, or the event loop does not run
    virtual int subscribe(const std::string& name, boost::intrusive_ptr<KXLTaskHandlerPrototype> handler) = 0;

    /// @brief Removes a handler; with the last one the connection is closed for good. Nothing new is delivered to it; a
    /// callback that is under way on another thread ends.
    /// @return 0; -1 when it was not subscribed
    virtual int unsubscribe(const std::string& name, const boost::intrusive_ptr<KXLTaskHandlerPrototype>& handler) = 0;

    /// @brief Closes the connection without telling its handlers.
    virtual void close() = 0;

    /// @brief Asks for events that have happened already, too: those that the agent still has come first, and earlier
    /// ones may be among them. Only on the event loop's thread, right after a connection other than a consumer's was
    /// opened.
    /// @param sinceMs milliseconds since 1970-01-01 UTC
    virtual void includeSince(std::uint64_t /*sinceMs*/) {}
};
