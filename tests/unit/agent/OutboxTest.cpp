#include "agent/server/Outbox.h"

#include <gtest/gtest.h>

#include <limits>

#include "tests/unit/agent/Bodies.h"

namespace kx::agent {
namespace {

FrameBody bodyOf(std::string_view text) {
    return encodeBody(wire::Frame(text.empty() ? wire::Frame() : [&] {
        wire::Frame frame;
        frame.mutable_error()->set_text(std::string(text));
        return frame;
    }()));
}

/// Takes at most `step` bytes out of at most `pieces` pieces at a time, as a socket would, until nothing is left.
std::string drain(Outbox& outbox, std::size_t step, std::size_t pieces) {
    std::string sent;
    while (!outbox.empty()) {
        std::vector<iovec> vectors(pieces);
        std::size_t room = step;
        const std::size_t filled = outbox.next(vectors.data(), vectors.size());
        for (std::size_t i = 0; i < filled && room > 0; ++i) {
            const std::size_t part = std::min(room, vectors[i].iov_len);
            sent.append(static_cast<const char*>(vectors[i].iov_base), part);
            room -= part;
        }
        outbox.drop(step - room);
    }
    return sent;
}

void fill(Outbox& outbox) {
    outbox.push(0, bodyOf("first"));
    outbox.push(7, bodyOf(""));
    outbox.push(std::numeric_limits<std::uint64_t>::max(), bodyOf(std::string(300, 'x')));
}

TEST(Outbox, GivesTheSameBytesHoweverTheyAreTaken) {
    Outbox whole;
    fill(whole);
    const std::string expected = drain(whole, 100000, 64);
    for (const std::size_t step : {1, 2, 3, 5, 64}) {
        for (const std::size_t pieces : {1, 2, 9}) {
            Outbox outbox;
            fill(outbox);
            EXPECT_EQ(drain(outbox, step, pieces), expected) << step << " bytes of " << pieces;
            EXPECT_EQ(outbox.load(), 0U);
        }
    }
}

TEST(Outbox, HeadAndBodyJoinedAreFrames) {
    Outbox outbox;
    fill(outbox);
    wire::FrameReader reader;
    reader.append(drain(outbox, 100000, 64));
    std::vector<wire::Frame> frames;
    for (auto next = reader.next(); next.status == wire::FrameReader::Status::Frame; next = reader.next()) {
        ASSERT_TRUE(wire::decodeFrame(next.payload, frames.emplace_back()));
    }
    ASSERT_EQ(frames.size(), 3U);
    EXPECT_EQ(reader.buffered(), 0U);
    EXPECT_EQ(frames[0].request_id(), 0U);
    EXPECT_EQ(frames[0].error().text(), "first");
    EXPECT_EQ(frames[1].request_id(), 7U);
    EXPECT_EQ(frames[1].body_case(), wire::Frame::BODY_NOT_SET);
    EXPECT_EQ(frames[2].request_id(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(frames[2].error().text(), std::string(300, 'x'));
}

TEST(Outbox, CountsWhatItHoldsAndALittleForEachPiece) {
    Outbox outbox;
    outbox.push(0, bodyOf("first"));
    EXPECT_EQ(outbox.load(), wire::kHeaderBytes + bodyOf("first")->size() + 2 * Outbox::kPieceBytes);
    outbox.drop(wire::kHeaderBytes);
    EXPECT_EQ(outbox.load(), bodyOf("first")->size() + Outbox::kPieceBytes);
    outbox.clear();
    EXPECT_EQ(outbox.load(), 0U);
    EXPECT_TRUE(outbox.empty());
}

TEST(Outbox, DoesNotCopyABody) {
    const FrameBody body = bodyOf("shared");
    Outbox one;
    Outbox other;
    one.push(1, body);
    other.push(2, body);
    EXPECT_EQ(body.use_count(), 3);
    drain(one, 1000, 8);
    EXPECT_EQ(body.use_count(), 2);
}

TEST(FrameBody, AFrameOverTheLimitIsNotMade) {
    wire::Frame frame;
    frame.mutable_error()->set_text(std::string(wire::kMaxFrameBytes, 'x'));
    EXPECT_FALSE(encodeBody(frame));
}

}  // namespace
}  // namespace kx::agent
