#include "agent/server/RequestFields.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>

#include <cstdint>

#include "kxwire.pb.h"

namespace kx::agent {
namespace {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedInputStream;

/// Requests are two levels deep: the frame and its body. What is no body that is known is not parsed either.
bool isBody(std::uint32_t tag) {
    return WireFormatLite::GetTagWireType(tag) == WireFormatLite::WIRETYPE_LENGTH_DELIMITED &&
           WireFormatLite::GetTagFieldNumber(tag) <= wire::Frame::kEventAckFieldNumber;
}

/// @return whether there may be more to count
bool countIn(CodedInputStream& input, bool isFrame, std::size_t most, std::size_t& fields) {
    while (const std::uint32_t tag = input.ReadTag()) {
        if (++fields > most) {
            return false;
        }
        std::uint32_t length = 0;
        if (isFrame && isBody(tag)) {
            if (!input.ReadVarint32(&length)) {
                return false;
            }
            const auto outer = input.PushLimit(static_cast<int>(length));
            if (!countIn(input, false, most, fields) || !input.Skip(input.BytesUntilLimit())) {
                return false;
            }
            input.PopLimit(outer);
        } else if (!WireFormatLite::SkipField(&input, tag)) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::size_t countFields(std::string_view payload, std::size_t most) {
    CodedInputStream input(reinterpret_cast<const std::uint8_t*>(payload.data()), static_cast<int>(payload.size()));
    std::size_t fields = 0;
    countIn(input, true, most, fields);
    return fields;
}

}  // namespace kx::agent
