#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLEvent.h>

#include <cerrno>

#include "client/src/loop/LoopTimers.h"
#include "client/src/session/SessionDirectory.h"

namespace {

using kx::client::EventLink;

/// An event connection as its users hold it.
class EventConnection : public KXLAsyncConnectionPrototype {
public:
    explicit EventConnection(std::shared_ptr<EventLink> link) : link_(std::move(link)) {}
    ~EventConnection() override { link_->close(); }

    int subscribe(const std::string& name, boost::intrusive_ptr<KXLTaskHandlerPrototype> handler) override {
        return name == KXLEvent::subscriptionName && handler && link_->subscribe(handler) ? 0 : -1;
    }

    int unsubscribe(const std::string& name, const boost::intrusive_ptr<KXLTaskHandlerPrototype>& handler) override {
        return name == KXLEvent::subscriptionName && link_->unsubscribe(handler) ? 0 : -1;
    }

    void close() override { link_->close(); }

    void includeSince(std::uint64_t sinceMs) override { link_->includeSince(sinceMs); }

private:
    const std::shared_ptr<EventLink> link_;
};

boost::intrusive_ptr<KXLAsyncConnectionPrototype> open(const kx::client::SessionDirectory& directory,
                                                       const KXLEID& agent, const KXLConnectivityInfo* info,
                                                       const std::string& consumer) {
    const auto session = directory.find(agent);
    auto link = session ? session->openEventLink(info, consumer) : nullptr;
    return link ? new EventConnection(std::move(link)) : nullptr;
}

}  // namespace

KXLAccessAgentPrototype::KXLAccessAgentPrototype(boost::intrusive_ptr<KXLEnvCache> cache,
                                                 boost::intrusive_ptr<KXLEventLoopPrototype> eventLoop)
    : cache_(std::move(cache)),
      eventLoop_(std::move(eventLoop)),
      directory_(std::make_shared<kx::client::SessionDirectory>()),
      timers_(kx::client::LoopTimers::create(eventLoop_->loop())) {}

boost::intrusive_ptr<KXLAccessAgentPrototype> KXLAccessAgentPrototype::createInstance(
    boost::intrusive_ptr<KXLEnvCache> cache, boost::intrusive_ptr<KXLEventLoopPrototype> eventLoop, void*) {
    return new KXLAccessAgentPrototype(std::move(cache), std::move(eventLoop));
}

boost::intrusive_ptr<KXLAsyncConnectionPrototype> KXLAccessAgentPrototype::openEventConnection(
    const KXLEID& eid, const std::string& name) {
    return open(*directory_, eid, nullptr, name.empty() ? program_invocation_short_name : "");
}

boost::intrusive_ptr<KXLAsyncConnectionPrototype> KXLAccessAgentPrototype::openDedicatedConnection(
    const KXLEID& eid, const KXLEID&, const KXLConnectivityInfo* info) {
    return open(*directory_, eid, info, "");
}

int KXLAccessAgentPrototype::registerTimeout(boost::intrusive_ptr<KXLTimeoutHandlerPrototype> handler) {
    return timers_->add(std::move(handler));
}
