#include <kxl/KXLRequestHandlerPrototype.h>

#include <mutex>
#include <utility>

void KXLRequestContext::cancel() {
    Canceller canceller;
    {
        const std::lock_guard guard(lock_);
        canceller = std::exchange(canceller_, nullptr);
    }
    if (canceller) {
        canceller();
    }
}

boost::intrusive_ptr<KXLConnectionPrototype> KXLRequestContext::getConnection() const {
    const std::lock_guard guard(lock_);
    return connection_;
}

void KXLRequestContext::setConnection(boost::intrusive_ptr<KXLConnectionPrototype> connection) {
    const std::lock_guard guard(lock_);
    connection_ = std::move(connection);
}

KXLRequestHandlerPrototype::~KXLRequestHandlerPrototype() = default;

// NOLINTNEXTLINE(performance-unnecessary-value-param): the interface says so
void KXLRequestHandlerPrototype::doCancel(boost::intrusive_ptr<KXLRequestHandlerPrototype> handler) {
    if (const auto context = handler ? handler->getContext() : nullptr) {
        context->cancel();
    }
}

void KXLRequestHandlerPrototype::setContext(boost::intrusive_ptr<KXLRequestContext> context) {
    const std::lock_guard guard(contextLock_);
    context_ = std::move(context);
}

void KXLRequestHandlerPrototype::defaultHandleError(int code) {
    handleError(code);
}

boost::intrusive_ptr<KXLRequestContext> KXLRequestHandlerPrototype::getContext() {
    const std::lock_guard guard(contextLock_);
    return context_;
}

void KXLRequestHandlerAgentPrototype::cancel() {
    doCancel(this);
}

boost::intrusive_ptr<KXLConnectionPrototype> KXLRequestHandlerAgentPrototype::getConnection() {
    const auto context = getContext();
    return context ? context->getConnection() : nullptr;
}
