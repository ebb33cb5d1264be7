// The sessions made through one access, by the agent they are connected to.
//
// Thread promise: any thread; the lock is held only to look through the list.
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

#include "client/src/session/Session.h"

namespace kx::client {

class SessionDirectory {
public:
    void add(const std::shared_ptr<Session>& session) {
        const std::lock_guard guard(mutex_);
        std::erase_if(sessions_, [](const auto& known) { return known.expired(); });
        sessions_.push_back(session);
    }

    /// @return the session whose agent has that identifier; null when there is none
    std::shared_ptr<Session> find(const KXLEID& agent) const {
        if (agent == KXLEID::EID_INVALID) {
            return nullptr;
        }
        const std::lock_guard guard(mutex_);
        for (const auto& known : sessions_) {
            auto session = known.lock();
            if (session && session->serverEid() == agent) {
                return session;
            }
        }
        return nullptr;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::weak_ptr<Session>> sessions_;
};

}  // namespace kx::client
