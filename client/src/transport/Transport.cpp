#include "client/src/transport/Transport.h"

#include <map>
#include <mutex>

namespace kx::client {

namespace {

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<const Transport>> transports;
};

Registry& registry() {
    // Never destroyed: a loop thread may outlive static destruction when a program exits without stopping it.
    static Registry* const instance = std::make_unique<Registry>().release();
    return *instance;
}

}  // namespace

void registerTransport(const std::string& typeName, std::shared_ptr<const Transport> transport) {
    Registry& all = registry();
    const std::lock_guard guard(all.mutex);
    all.transports[typeName] = std::move(transport);
}

std::shared_ptr<const Transport> findTransport(const std::string& typeName) {
    Registry& all = registry();
    const std::lock_guard guard(all.mutex);
    const auto found = all.transports.find(typeName);
    return found == all.transports.end() ? nullptr : found->second;
}

}  // namespace kx::client
