#include "client/src/transport/Handshake.h"

#include <cerrno>

namespace kx::client {

wire::Frame helloFrame() {
    wire::Frame frame;
    *frame.mutable_hello() = wire::makeHello(program_invocation_short_name);
    frame.mutable_hello()->add_capabilities(std::string(wire::kCapabilityDeparted));
    return frame;
}

std::string helloProblem(const wire::Frame& answer) {
    if (answer.body_case() != wire::Frame::kHello) {
        return "the handshake was answered by something else";
    }
    const std::uint32_t major = answer.hello().protocol_major();
    if (major != wire::kProtocolMajor) {
        return "it speaks protocol version " + std::to_string(major) + ", not " + std::to_string(wire::kProtocolMajor);
    }
    return {};
}

}  // namespace kx::client
