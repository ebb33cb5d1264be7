// A real server on a real socket in a folder of the test's own, and peers of it that can break the rules.
//
// The server's loop has a thread of its own, as it has a process of its own in earnest. The test talks to it through
// sockets and, for the calls that a backend's images lead to, through onLoop().
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <future>
#include <thread>

#include "agent/base/OwnedDescriptor.h"
#include "agent/server/Server.h"
#include "tests/support/Eventually.h"
#include "tests/support/TemporaryFolder.h"
#include "wire/Protocol.h"

namespace kx::test {

/// A client's end of a connection. What it reads, it waits for with a deadline.
class Peer {
public:
    explicit Peer(const std::string& path) : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        if (::connect(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error("cannot connect to " + path);
        }
    }

    void sendBytes(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return;  // the server has closed, which is what the test then finds
            }
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
    }

    void send(const wire::Frame& frame) { sendBytes(wire::encodeFrame(frame).value()); }

    void sendHello(std::uint32_t major = wire::kProtocolMajor, std::string_view program = "tester") {
        wire::Frame frame;
        *frame.mutable_hello() = wire::makeHello(program);
        frame.mutable_hello()->set_protocol_major(major);
        send(frame);
    }

    void askForSnapshot(std::uint64_t requestId = 0) {
        wire::Frame frame;
        frame.set_request_id(requestId);
        frame.mutable_snapshot_request();
        send(frame);
    }

    void ping(std::uint64_t requestId) {
        wire::Frame frame;
        frame.set_request_id(requestId);
        frame.mutable_ping();
        send(frame);
    }

    /// @return the next frame; nothing when the server has closed, cleanly or not
    std::optional<wire::Frame> receive() {
        while (true) {
            const auto result = reader_.next();
            if (result.status == wire::FrameReader::Status::Frame) {
                wire::Frame frame;
                EXPECT_TRUE(wire::decodeFrame(result.payload, frame));
                return frame;
            }
            if (!readMore()) {
                return std::nullopt;
            }
        }
    }

    /// @brief Introduces itself and takes the server's Hello.
    void shakeHands() {
        sendHello();
        const auto answer = receive();
        ASSERT_TRUE(answer);
        ASSERT_TRUE(answer->has_hello()) << answer->error().text();
    }

    /// @return whether a ping is answered; frames that come before the answer are skipped
    bool isServed() {
        constexpr std::uint64_t number = 4711;
        ping(number);
        while (const auto frame = receive()) {
            if (frame->has_pong() && frame->request_id() == number) {
                return true;
            }
        }
        return false;
    }

    /// @return whether the server ended the connection in order: no reset, which would have thrown away its last frame
    bool endedInOrder() const { return ended_ && lastError_ == 0; }

    /// @return whether there is something to read at this moment
    bool hasInput() const {
        pollfd readable{socket_.get(), POLLIN, 0};
        return ::poll(&readable, 1, 0) == 1;
    }

    int descriptor() const { return socket_.get(); }

private:
    bool readMore() {
        pollfd readable{socket_.get(), POLLIN, 0};
        const int ready = ::poll(&readable, 1, static_cast<int>(std::chrono::milliseconds(kPatience).count()));
        EXPECT_EQ(ready, 1) << "the server says nothing";
        std::string bytes(64 * 1024, '\0');
        const ssize_t size = ready == 1 ? ::recv(socket_.get(), bytes.data(), bytes.size(), 0) : 0;
        if (size <= 0) {
            ended_ = true;
            lastError_ = size < 0 ? errno : 0;
            return false;
        }
        reader_.append(std::string_view(bytes).substr(0, static_cast<std::size_t>(size)));
        return true;
    }

    agent::OwnedDescriptor socket_;
    wire::FrameReader reader_;
    bool ended_ = false;
    int lastError_ = 0;
};

/// One server a test, with a log that the test can ask for.
class ServerFixture : public testing::Test {
protected:
    ServerFixture() : content_(host()) {
        settings_.socketPath = folder_ / "agent.sock";
        settings_.program = "kxagentd 1.2.3";
        settings_.serverEid = host().eid;
        settings_.access.ownUid = ::geteuid();
        testing::internal::CaptureStderr();
    }

    ~ServerFixture() override {
        stop();
        work_.reset();
        thread_.join();
        if (capturing_) {
            testing::internal::GetCapturedStderr();
        }
    }

    /// @brief Makes the server with settings_: clients can connect, and wait.
    void listen() {
        onLoop([this] { server_ = std::make_unique<agent::Server>(io_, settings_, content_); });
    }

    /// @brief Begins to serve with settings_.
    void serve() {
        listen();
        onLoop([this] { server_->accept(); });
    }

    /// @brief Ends the server, as the agent does when it stops.
    void stop() {
        onLoop([this] { server_.reset(); });
    }

    /// @brief Runs something on the server's thread and waits for its end.
    void onLoop(std::function<void()> what) {
        std::promise<void> done;
        boost::asio::post(io_, [&] {
            try {
                what();
                done.set_value();
            } catch (...) {
                done.set_exception(std::current_exception());
            }
        });
        done.get_future().get();
    }

    /// @brief Publishes vocabularies_, and containers of these names, each with a description of that many bytes.
    void publish(const std::vector<std::string>& names, std::size_t descriptionBytes = 0) {
        agent::HostImage image;
        for (const std::string& name : names) {
            agent::Environment made;
            made.eid = agent::Eid::fromName("machine", name);
            made.name = name;
            made.description = std::string(descriptionBytes, 'd');
            image.environments.push_back(std::move(made));
        }
        image.vocabularies = vocabularies_;
        onLoop([this, &image] {
            const agent::HostUpdate update = content_.apply(std::move(image));
            if (server_) {
                server_->publish(update);
            }
        });
    }

    /// What is served; to be touched on the server's thread.
    agent::HostContent& content() { return content_; }

    Peer connect() const { return Peer(settings_.socketPath); }

    /// @return what has been logged so far; asked once a test
    std::string logged() {
        capturing_ = false;
        return testing::internal::GetCapturedStderr();
    }

    /// @brief Checks that exactly one line was logged, and that all the words are in it.
    void expectOneLine(std::initializer_list<std::string> words) {
        const std::string log = logged();
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
        for (const std::string& word : words) {
            EXPECT_THAT(log, testing::HasSubstr(word));
        }
    }

    /// @brief Checks that the peer gets an Error of this kind, in words, and then an orderly end.
    static void expectRefusal(Peer& peer, wire::ErrorCode code) {
        const auto frame = peer.receive();
        ASSERT_TRUE(frame) << "no Error before the end";
        ASSERT_TRUE(frame->has_error());
        EXPECT_EQ(frame->error().code(), code) << frame->error().text();
        EXPECT_FALSE(frame->error().text().empty());
        EXPECT_FALSE(peer.receive());
        EXPECT_TRUE(peer.endedInOrder());
    }

    static agent::Environment host() {
        agent::Environment made;
        made.eid = agent::Eid::fromName("machine", "host");
        made.type = agent::kHostType;
        made.name = "host";
        return made;
    }

    TemporaryFolder folder_;
    agent::ServerSettings settings_;
    std::vector<agent::Vocabulary> vocabularies_;

    boost::asio::io_context io_;
    std::unique_ptr<agent::Server> server_;

private:
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{io_.get_executor()};
    agent::HostContent content_;
    bool capturing_ = true;
    std::thread thread_{[this] { io_.run(); }};
};

}  // namespace kx::test
