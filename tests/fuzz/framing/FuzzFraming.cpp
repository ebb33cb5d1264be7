// Feeds a byte stream to the frame reader in pieces whose sizes come from the input itself. Whatever the
// pieces, the frames must be those of feeding it whole.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "wire/Framing.h"

namespace {

using kx::wire::FrameReader;

// Small enough that the fuzzer finds the limit, large enough for real messages.
constexpr std::size_t kLimit = 4096;

struct Outcome {
    std::vector<std::string> frames;
    bool tooLarge = false;
    bool operator==(const Outcome&) const = default;
};

void drain(FrameReader& reader, Outcome& outcome) {
    while (!outcome.tooLarge) {
        const FrameReader::Result result = reader.next();
        if (result.status == FrameReader::Status::NeedMore) {
            return;
        }
        if (result.status == FrameReader::Status::TooLarge) {
            outcome.tooLarge = true;
            return;
        }
        outcome.frames.emplace_back(result.payload);
    }
}

Outcome readInPieces(std::string_view stream, std::size_t pieceSeed) {
    FrameReader reader(kLimit);
    Outcome outcome;
    while (!stream.empty() && !outcome.tooLarge) {
        pieceSeed = pieceSeed * 1103515245U + 12345U;
        const std::size_t piece = 1 + (pieceSeed >> 16U) % 7;
        reader.append(stream.substr(0, piece));
        stream.remove_prefix(std::min(piece, stream.size()));
        drain(reader, outcome);
    }
    return outcome;
}

Outcome readWhole(std::string_view stream) {
    FrameReader reader(kLimit);
    Outcome outcome;
    reader.append(stream);
    drain(reader, outcome);
    return outcome;
}

// What parses must survive being written and read again.
void roundTrip(const std::string& payload) {
    kx::wire::Frame frame;
    if (!kx::wire::decodeFrame(payload, frame)) {
        return;
    }
    const auto bytes = kx::wire::encodeFrame(frame);
    FrameReader reader;
    reader.append(bytes.value());
    if (reader.next().status != FrameReader::Status::Frame) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view stream(reinterpret_cast<const char*>(data), size);
    const Outcome whole = readWhole(stream);
    if (readInPieces(stream, size) != whole) {
        std::abort();
    }
    for (const std::string& payload : whole.frames) {
        roundTrip(payload);
    }
    return 0;
}
