// Walks the fields of a message in its encoded form (protobuf's wire format).
//
// Thread promise: plain values over bytes of the caller's, which must stay.
#pragma once

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace kx::client {

/// One field as it is encoded.
struct Field {
    int number = 0;
    std::optional<std::uint64_t> varint;
    std::optional<std::string_view> bytes;
};

/// Walks the fields of one encoded message.
class Fields {
public:
    explicit Fields(std::string_view message)
        : message_(message),
          stream_(reinterpret_cast<const std::uint8_t*>(message.data()), static_cast<int>(message.size())) {}

    /// @return nothing at the end, and where the rest makes no sense
    std::optional<Field> next() {
        const std::uint32_t tag = stream_.ReadTag();
        if (tag == 0) {
            isBroken_ = isBroken_ || !stream_.ConsumedEntireMessage();
            return std::nullopt;
        }
        Field field;
        field.number = WireFormatLite::GetTagFieldNumber(tag);
        isBroken_ = isBroken_ || !readInto(field, tag);
        return isBroken_ ? std::nullopt : std::optional(field);
    }

    /// @return whether next() returned nothing because the rest makes no sense
    bool isBroken() const { return isBroken_; }
    /// @return bytes up to the end of the last field
    std::size_t position() const { return static_cast<std::size_t>(stream_.CurrentPosition()); }

private:
    bool readInto(Field& field, std::uint32_t tag) {
        std::uint64_t number = 0;
        switch (WireFormatLite::GetTagWireType(tag)) {
            case WireFormatLite::WIRETYPE_VARINT:
                if (!stream_.ReadVarint64(&number)) {
                    return false;
                }
                field.varint = number;
                return true;
            case WireFormatLite::WIRETYPE_LENGTH_DELIMITED:
                return readBytes(field);
            default:
                return WireFormatLite::SkipField(&stream_, tag);
        }
    }

    bool readBytes(Field& field) {
        std::uint32_t length = 0;
        if (!stream_.ReadVarint32(&length)) {
            return false;
        }
        const auto start = static_cast<std::size_t>(stream_.CurrentPosition());
        if (length > message_.size() - start) {
            return false;
        }
        field.bytes = message_.substr(start, length);
        return stream_.Skip(static_cast<int>(length));
    }

    using WireFormatLite = google::protobuf::internal::WireFormatLite;

    const std::string_view message_;
    google::protobuf::io::CodedInputStream stream_;
    bool isBroken_ = false;
};

}  // namespace kx::client
