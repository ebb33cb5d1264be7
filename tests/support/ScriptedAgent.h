// A management agent under a test's control, on a real unix socket: each connection runs a script, which may send
// partial frames, nonsense, or nothing.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Eventually.h"
#include "tests/support/TemporaryFolder.h"
#include "wire/Framing.h"
#include "wire/Protocol.h"

namespace kx::test {

/// @brief One accepted connection, seen from the agent. Every read gives up after kPatience.
class PeerSocket {
public:
    explicit PeerSocket(int descriptor) : descriptor_(descriptor) {}
    ~PeerSocket() { ::close(descriptor_); }
    PeerSocket(const PeerSocket&) = delete;
    PeerSocket& operator=(const PeerSocket&) = delete;

    /// @brief Ends the connection from another thread: the script's reads and writes fail.
    void hangUp() { ::shutdown(descriptor_, SHUT_RDWR); }

    /// @return false when the peer has closed
    bool sendRaw(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }

    bool send(const wire::Frame& frame) { return sendRaw(wire::encodeFrame(frame).value()); }

    bool sendInSingleBytes(const wire::Frame& frame) {
        const std::string bytes = wire::encodeFrame(frame).value();
        for (const char& byte : bytes) {
            if (!sendRaw(std::string_view(&byte, 1))) {
                return false;
            }
        }
        return true;
    }

    /// @return false when the peer has closed, or sends nothing more
    bool read(wire::Frame& frame) {
        while (true) {
            const auto result = reader_.next();
            if (result.status == wire::FrameReader::Status::Frame) {
                return wire::decodeFrame(result.payload, frame);
            }
            if (!readMore()) {
                return false;
            }
        }
    }

    /// @brief Reads frames until the peer closes.
    /// @return the number of frames read, -1 when it did not close in time
    int readUntilClosed() {
        wire::Frame frame;
        int frames = 0;
        while (read(frame)) {
            ++frames;
        }
        return closed_ ? frames : -1;
    }

private:
    bool readMore() {
        pollfd waiting{descriptor_, POLLIN, 0};
        if (::poll(&waiting, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count())) <= 0) {
            return false;
        }
        char buffer[4096];
        const ssize_t size = ::read(descriptor_, buffer, sizeof buffer);
        if (size <= 0) {
            closed_ = true;
            return false;
        }
        reader_.append(std::string_view(buffer, static_cast<std::size_t>(size)));
        return true;
    }

    int descriptor_;
    bool closed_ = false;
    wire::FrameReader reader_;
};

/// @brief Listens on a socket in a folder of its own and runs `script` for each connection, on a thread each.
class ScriptedAgent {
public:
    using Script = std::function<void(PeerSocket&)>;

    explicit ScriptedAgent(Script script) : script_(std::move(script)), path_(folder_ / "agent.sock") { listen(); }
    /// @param path where to listen instead; replaced if it is there
    ScriptedAgent(std::string path, Script script) : script_(std::move(script)), path_(std::move(path)) { listen(); }

    ~ScriptedAgent() {
        ::shutdown(listener_, SHUT_RDWR);
        acceptor_.join();
        ::close(listener_);
        std::filesystem::remove(path_);
        for (const auto& peer : peers_) {
            peer->hangUp();
        }
        for (std::thread& thread : scripts_) {
            thread.join();
        }
    }
    ScriptedAgent(const ScriptedAgent&) = delete;
    ScriptedAgent& operator=(const ScriptedAgent&) = delete;

    const std::string& path() const { return path_; }
    int connections() const { return connections_; }

private:
    void listen() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path_.copy(address.sun_path, sizeof address.sun_path - 1);
        std::filesystem::remove(path_);
        listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 16) != 0) {
            throw std::runtime_error("cannot listen on " + path());
        }
        acceptor_ = std::thread([this] { acceptAll(); });
    }

    void acceptAll() {
        while (true) {
            const int descriptor = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (descriptor < 0) {
                return;
            }
            ++connections_;
            peers_.push_back(std::make_shared<PeerSocket>(descriptor));
            scripts_.emplace_back([this, peer = peers_.back()] {
                script_(*peer);
                peer->hangUp();
            });
        }
    }

    TemporaryFolder folder_;
    Script script_;
    std::string path_;
    int listener_ = -1;
    std::atomic<int> connections_{0};
    std::vector<std::shared_ptr<PeerSocket>> peers_;  ///< like scripts_, the acceptor's until it has been joined
    std::vector<std::thread> scripts_;
    std::thread acceptor_;
};

}  // namespace kx::test
