// An access point, its loop, and a handler that writes down what it is called with and where.
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <kxl/KXLAccessPointPrototype.h>
#include <kxl/KXLLog.h>
#include <kxl/KXLNamedPipePrototype.h>

#include "client/src/loop/Loop.h"
#include "tests/support/AgentScripts.h"

namespace kx::test {

/// @brief Records callbacks. Any thread may ask what was recorded.
class RecordingHandler : public KXLRequestHandlerAgentPrototype {
public:
    void handleConnected() override { record("connected"); }
    void handleError(int code) override { record("error " + std::to_string(code)); }

    std::vector<std::string> calls() const {
        const std::lock_guard guard(lock_);
        return calls_;
    }
    std::thread::id threadOf(std::size_t call) const {
        const std::lock_guard guard(lock_);
        return threads_.at(call);
    }

private:
    void record(const std::string& call) {
        const std::lock_guard guard(lock_);
        calls_.push_back(call);
        threads_.push_back(std::this_thread::get_id());
    }

    mutable std::mutex lock_;
    std::vector<std::string> calls_;
    std::vector<std::thread::id> threads_;
};

/// @brief Collects the library's log lines for as long as it lives.
class LogCollector {
public:
    LogCollector() { setKXLLogHandler(&LogCollector::collect); }
    ~LogCollector() {
        setKXLLogHandler(nullptr);
        const std::lock_guard guard(mutex());
        all().clear();
    }
    LogCollector(const LogCollector&) = delete;
    LogCollector& operator=(const LogCollector&) = delete;

    static std::vector<std::string> lines() {
        const std::lock_guard guard(mutex());
        return all();
    }

private:
    static void collect(int, const char* line) {
        const std::lock_guard guard(mutex());
        all().emplace_back(line);
    }
    static std::mutex& mutex() {
        static std::mutex instance;
        return instance;
    }
    static std::vector<std::string>& all() {
        static std::vector<std::string> instance;
        return instance;
    }
};

class LinkFixture : public testing::Test {
protected:
    /// @param timeouts other deadlines than the library's own
    explicit LinkFixture(const client::Timeouts& timeouts = {}) {
        const boost::intrusive_ptr<KXLNamedPipePrototype> transport(new KXLNamedPipePrototype);
        loop->loop()->setTimeouts(timeouts);
        loop->start();
        accessPoint = KXLAccessPointPrototype::createInstance(
            KXLAccessAgentPrototype::createInstance(nullptr, loop, nullptr), nullptr);
    }

    int initialize(const std::string& path, const boost::intrusive_ptr<RecordingHandler>& with) {
        KXLConnectionInfo info;
        info.connectivity.setType("NamedPipe");
        info.connectivity.setAddress(path);
        const auto start = std::chrono::steady_clock::now();
        const int result = accessPoint->initializeSync(info, with, 0);
        took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
        return result;
    }
    int initialize(const std::string& path) { return initialize(path, handler); }

    std::size_t environments() const { return accessPoint->getEnvCache()->getEnvList().size(); }

    LogCollector log;
    boost::intrusive_ptr<KXLEventLoopPrototype> loop{new KXLEventLoopPrototype};
    boost::intrusive_ptr<KXLAccessPointPrototype> accessPoint;
    boost::intrusive_ptr<RecordingHandler> handler{new RecordingHandler};
    std::chrono::milliseconds took{};
};

}  // namespace kx::test
