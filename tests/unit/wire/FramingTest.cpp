#include "wire/Framing.h"

#include <gtest/gtest.h>

namespace kx::wire {
namespace {

using Status = FrameReader::Status;

Frame helloFrame() {
    Frame frame;
    frame.set_request_id(7);
    frame.mutable_hello()->set_program("kxsnmp");
    return frame;
}

TEST(FrameReader, NeedsTheHeaderFirst) {
    FrameReader reader;
    EXPECT_EQ(reader.next().status, Status::NeedMore);
    EXPECT_EQ(reader.next().bytes, kHeaderBytes);
    reader.append(std::string_view("\0\0\0", 3));
    EXPECT_EQ(reader.next().bytes, 1U);
}

TEST(FrameReader, SaysHowManyBytesOfAFrameAreMissing) {
    FrameReader reader;
    reader.append(std::string_view("\0\0\0\5ab", 6));
    const auto result = reader.next();
    EXPECT_EQ(result.status, Status::NeedMore);
    EXPECT_EQ(result.bytes, 3U);
}

TEST(FrameReader, TakesAFrameThatArrivesByteByByte) {
    const std::string bytes = encodeFrame(helloFrame()).value();
    FrameReader reader;
    for (std::size_t i = 0; i + 1 < bytes.size(); ++i) {
        reader.append(bytes.substr(i, 1));
        ASSERT_EQ(reader.next().status, Status::NeedMore) << i;
    }
    reader.append(bytes.substr(bytes.size() - 1));
    const auto result = reader.next();
    ASSERT_EQ(result.status, Status::Frame);
    Frame frame;
    ASSERT_TRUE(decodeFrame(result.payload, frame));
    EXPECT_EQ(frame.request_id(), 7U);
    EXPECT_EQ(frame.hello().program(), "kxsnmp");
    EXPECT_EQ(reader.buffered(), 0U);
}

TEST(FrameReader, TakesSeveralFramesOfOneReadInOrder) {
    FrameReader reader;
    reader.append(std::string_view("\0\0\0\1a\0\0\0\0\0\0\0\2bc\0", 16));
    EXPECT_EQ(reader.next().payload, "a");
    const auto empty = reader.next();
    EXPECT_EQ(empty.status, Status::Frame);
    EXPECT_EQ(empty.payload, "");
    EXPECT_EQ(reader.next().payload, "bc");
    EXPECT_EQ(reader.next().status, Status::NeedMore);
    EXPECT_EQ(reader.buffered(), 1U);
}

TEST(FrameReader, AcceptsAFrameOfExactlyTheLimitAndRefusesOneMore) {
    FrameReader atLimit(3);
    atLimit.append(std::string_view("\0\0\0\3abc", 7));
    EXPECT_EQ(atLimit.next().payload, "abc");

    FrameReader overLimit(3);
    overLimit.append(std::string_view("\0\0\0\4", 4));
    const auto result = overLimit.next();
    EXPECT_EQ(result.status, Status::TooLarge);
    EXPECT_EQ(result.bytes, 4U);
}

TEST(FrameReader, RefusesAnOversizeLengthWithoutWaitingForItsBytes) {
    FrameReader reader;
    reader.append("\xff\xff\xff\xff");
    EXPECT_EQ(reader.next().status, Status::TooLarge);
    EXPECT_EQ(reader.next().bytes, 0xffffffffU);
}

TEST(EncodeFrame, RefusesAMessageOverTheLimit) {
    Frame frame;
    frame.mutable_error()->set_text(std::string(kMaxFrameBytes, 'x'));
    EXPECT_FALSE(encodeFrame(frame).has_value());
    frame.mutable_error()->set_text(std::string(kMaxFrameBytes - 16, 'x'));
    EXPECT_TRUE(encodeFrame(frame).has_value());
}

TEST(DecodeFrame, RefusesWhatIsNotAMessage) {
    Frame frame;
    EXPECT_FALSE(decodeFrame("\xff\xff\xff", frame));
}

TEST(DecodeFrame, SkipsABodyOfANewerVersion) {
    Frame frame;
    ASSERT_TRUE(decodeFrame(std::string_view("\xa2\x06\x03"
                                             "abc",
                                             6),
                            frame));
    EXPECT_EQ(frame.body_case(), Frame::BODY_NOT_SET);
}

}  // namespace
}  // namespace kx::wire
