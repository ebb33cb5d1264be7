// Callbacks of a monitor: a request that is answered again and again.
//
// Thread promise: all callbacks run on the event loop's thread.
#pragma once

#include <kxl/KXLRequestHandlerPrototype.h>

/// @brief A handler whose request goes on until it is stopped. The order of the virtual functions is part of the
/// contract.
class KXLMonitorHandlerPrototype : public KXLRequestHandlerAgentPrototype {
public:
    /// @brief Ends the monitor. At once, from any thread; handleCancel follows on the loop's thread.
    virtual void stop() { cancel(); }
};

/// @brief What monitors of every kind of data have in common.
class KXLMonitorBaseHandlerPrototype : public KXLMonitorHandlerPrototype {
public:
    void setContext(boost::intrusive_ptr<KXLRequestContext> context) override {
        KXLMonitorHandlerPrototype::setContext(std::move(context));
    }
    /// The agent has taken the monitor on.
    virtual void handleMonitorStart() {}
};

/// @brief A monitor of one kind of data.
/// @tparam Data what a report is, e.g. std::vector<KXLMonitorData>
template <typename Data>
class KXLMonitorHandlerPrototypeT : public KXLMonitorBaseHandlerPrototype {
public:
    /// @brief A report has come.
    virtual void handleData(const Data& data) = 0;
};
