#include "wire/FrameCost.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "kxwire.pb.h"

namespace kx::wire {

namespace {

enum class Kind {
    Text,
    Flat,
    Frame,
    Chunk,
    Delta,
    Env,
    Config,
    List,
    Set,
    Vocabulary,
    Category,
    Events,
    Event,
    Sample
};

/// The messages that have parts which are messages. What is not here is a text, or of numbers only.
struct Part {
    Kind parent;
    int field;
    Kind child;
};
constexpr Part kParts[] = {
    {Kind::Frame, Frame::kHelloFieldNumber, Kind::Flat},
    {Kind::Frame, Frame::kErrorFieldNumber, Kind::Flat},
    {Kind::Frame, Frame::kSnapshotChunkFieldNumber, Kind::Chunk},
    {Kind::Frame, Frame::kDeltaFieldNumber, Kind::Delta},
    {Kind::Frame, Frame::kVocabularySetFieldNumber, Kind::Set},
    {Kind::Frame, Frame::kEventSubscribeFieldNumber, Kind::Flat},
    {Kind::Frame, Frame::kEventMessageFieldNumber, Kind::Events},
    {Kind::Frame, Frame::kAlertRaiseFieldNumber, Kind::Flat},
    {Kind::Frame, Frame::kRefusalFieldNumber, Kind::Flat},
    {Kind::Frame, Frame::kMonitorStartFieldNumber, Kind::Flat},
    {Kind::Frame, Frame::kCounterQueryFieldNumber, Kind::Flat},
    {Kind::Frame, Frame::kCounterSampleFieldNumber, Kind::Sample},
    {Kind::Chunk, SnapshotChunk::kEnvironmentsFieldNumber, Kind::Env},
    {Kind::Delta, Delta::kChangedFieldNumber, Kind::Env},
    {Kind::Env, Environment::kConfigurationFieldNumber, Kind::Config},
    {Kind::Config, Configuration::kOsTemplateFieldNumber, Kind::Flat},
    {Kind::Config, Configuration::kAddressesFieldNumber, Kind::List},
    {Kind::Config, Configuration::kTemplatesFieldNumber, Kind::List},
    {Kind::Config, Configuration::kInet6AddressesFieldNumber, Kind::List},
    {Kind::List, AddressList::kAddressesFieldNumber, Kind::Flat},  // the other lists have the same number
    {Kind::Set, VocabularySet::kVocabulariesFieldNumber, Kind::Vocabulary},
    {Kind::Vocabulary, Vocabulary::kCategoriesFieldNumber, Kind::Category},
    {Kind::Vocabulary, Vocabulary::kParametersFieldNumber, Kind::Flat},
    {Kind::Category, Category::kParametersFieldNumber, Kind::Flat},
    {Kind::Events, EventMessage::kEventsFieldNumber, Kind::Event},
    {Kind::Event, Event::kResourceAlertFieldNumber, Kind::Flat},
    {Kind::Event, Event::kEnvironmentChangeFieldNumber, Kind::Flat},
    {Kind::Sample, CounterSample::kGroupsFieldNumber, Kind::Flat},
};

Kind kindOf(Kind parent, std::uint64_t field) {
    const auto* const found = std::find_if(std::begin(kParts), std::end(kParts), [&](const Part& part) {
        return part.parent == parent && static_cast<std::uint64_t>(part.field) == field;
    });
    return found == std::end(kParts) ? Kind::Text : found->child;
}

/// @return false at the end, or where it is no number
bool takeVarint(std::string_view& bytes, std::uint64_t& value) {
    value = 0;
    for (unsigned shift = 0; !bytes.empty() && shift < 64; shift += 7) {
        const auto byte = static_cast<std::uint8_t>(bytes.front());
        bytes.remove_prefix(1);
        value |= std::uint64_t{byte & 0x7fU} << shift;
        if ((byte & 0x80U) == 0) {
            return true;
        }
    }
    return false;
}

bool skip(std::string_view& bytes, std::uint64_t count) {
    if (count > bytes.size()) {
        return false;
    }
    bytes.remove_prefix(count);
    return true;
}

std::size_t partsOf(std::string_view message, Kind kind);

/// Steps over one field.
/// @param parts grows by the texts and messages in it
bool takeField(std::string_view& message, Kind kind, std::size_t& parts) {
    std::uint64_t tag = 0;
    std::uint64_t number = 0;
    if (!takeVarint(message, tag)) {
        return false;
    }
    switch (tag & 7U) {
        case 0:
            return takeVarint(message, number);
        case 1:
            return skip(message, 8);
        case 2: {
            if (!takeVarint(message, number) || number > message.size()) {
                return false;
            }
            const Kind child = kindOf(kind, tag >> 3U);
            parts += 1 + (child == Kind::Text ? 0 : partsOf(message.substr(0, number), child));
            return skip(message, number);
        }
        case 5:
            return skip(message, 4);
        default:  // the ends of groups, whose fields are counted as if they were here
            return true;
    }
}

std::size_t partsOf(std::string_view message, Kind kind) {
    std::size_t parts = 0;
    while (!message.empty() && takeField(message, kind, parts)) {
    }
    return parts;
}

}  // namespace

std::size_t decodedBytes(std::string_view payload) {
    return payload.size() + kPartBytes * partsOf(payload, Kind::Frame);
}

}  // namespace kx::wire
