#include "wire/Protocol.h"

#include <algorithm>

namespace kx::wire {

std::string printable(std::string_view text) {
    std::string result(text.substr(0, kMaxNameBytes));
    std::replace_if(
        result.begin(), result.end(), [](unsigned char byte) { return byte < 0x20 || byte == 0x7f; }, '?');
    return result;
}

bool hasCapability(const Hello& hello, std::string_view capability) {
    return std::find(hello.capabilities().begin(), hello.capabilities().end(), capability) !=
           hello.capabilities().end();
}

Hello makeHello(std::string_view program) {
    Hello hello;
    hello.set_protocol_major(kProtocolMajor);
    hello.set_protocol_minor(kProtocolMinor);
    hello.set_program(std::string(program.substr(0, kMaxNameBytes)));
    for (const auto capability :
         {kCapabilitySnapshot, kCapabilityVocabulary, kCapabilityEvents, kCapabilityRaise, kCapabilityCounters}) {
        hello.add_capabilities(std::string(capability));
    }
    return hello;
}

Frame makeErrorFrame(ErrorCode code, std::string_view text) {
    Frame frame;
    frame.mutable_error()->set_code(code);
    frame.mutable_error()->set_text(std::string(text.substr(0, kMaxNameBytes)));
    return frame;
}

}  // namespace kx::wire
