#include "agent/inventory/FrameBody.h"

namespace kx::agent {
namespace {

/// Tag and value of the longest request_id.
constexpr std::size_t kMaxRequestIdBytes = 11;

}  // namespace

FrameBody encodeBody(const wire::Frame& frame) {
    if (frame.ByteSizeLong() > wire::kMaxFrameBytes - kMaxRequestIdBytes) {
        return nullptr;
    }
    return std::make_shared<const std::string>(frame.SerializeAsString());
}

std::string encodeHead(std::uint64_t requestId, std::size_t bodyBytes) {
    // The fields of a message may come in any order and in pieces: two encoded messages joined are one with the
    // fields of both.
    wire::Frame idOnly;
    idOnly.set_request_id(requestId);
    const std::string id = idOnly.SerializeAsString();
    const std::size_t length = id.size() + bodyBytes;
    std::string head;
    for (std::size_t shift = 8 * wire::kHeaderBytes; shift > 0; shift -= 8) {
        head += static_cast<char>((length >> (shift - 8)) & 0xffU);
    }
    return head + id;
}

}  // namespace kx::agent
