#include "wire/Framing.h"

#include <cstdint>

namespace kx::wire {

namespace {

std::size_t readLength(std::string_view header) {
    std::uint32_t length = 0;
    for (const char byte : header) {
        length = (length << 8U) | static_cast<std::uint8_t>(byte);
    }
    return length;
}

void writeLength(std::size_t length, char* header) {
    for (std::size_t i = 0; i < kHeaderBytes; ++i) {
        header[i] = static_cast<char>((length >> (8 * (kHeaderBytes - 1 - i))) & 0xffU);
    }
}

}  // namespace

void FrameReader::append(std::string_view bytes) {
    dropConsumed();
    buffer_.append(bytes);
}

FrameReader::Result FrameReader::next() {
    const std::string_view rest = std::string_view(buffer_).substr(consumed_);
    if (rest.size() < kHeaderBytes) {
        return {Status::NeedMore, kHeaderBytes - rest.size(), {}};
    }
    const std::size_t length = readLength(rest.substr(0, kHeaderBytes));
    if (length > maxFrameBytes_) {
        return {Status::TooLarge, length, {}};
    }
    if (rest.size() < kHeaderBytes + length) {
        return {Status::NeedMore, kHeaderBytes + length - rest.size(), {}};
    }
    consumed_ += kHeaderBytes + length;
    return {Status::Frame, 0, rest.substr(kHeaderBytes, length)};
}

void FrameReader::dropConsumed() {
    if (consumed_ == buffer_.size()) {
        // A snapshot leaves a buffer of megabytes behind; an idle connection should not keep it.
        std::string().swap(buffer_);
    } else if (consumed_ != 0) {
        buffer_.erase(0, consumed_);
    }
    consumed_ = 0;
}

std::optional<std::string> encodeFrame(const Frame& frame) {
    const std::size_t length = frame.ByteSizeLong();
    if (length > kMaxFrameBytes) {
        return std::nullopt;
    }
    std::string bytes(kHeaderBytes + length, '\0');
    writeLength(length, bytes.data());
    if (!frame.SerializeToArray(bytes.data() + kHeaderBytes, static_cast<int>(length))) {
        return std::nullopt;
    }
    return bytes;
}

bool decodeFrame(std::string_view payload, Frame& frame) {
    return frame.ParseFromArray(payload.data(), static_cast<int>(payload.size()));
}

}  // namespace kx::wire
