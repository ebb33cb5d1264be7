// The events that this library knows how to parse.
#include <kxl/KXLDerivedParserFactory.h>

#include <boost/make_shared.hpp>
#include <memory>

#include "wire/Protocol.h"

const std::string KXLEvent::subscriptionName(kx::wire::kEventsName);
const std::string KXLEvent::eventTag("event");
const std::string KXLResourceAlertData::category(kx::wire::kEventTypeResourceAlert);
const std::string KXLEnvironmentChangeData::category(kx::wire::kEventTypeEnvironmentChange);

namespace {

using EventFactory = KXLDerivedParserFactory<KXLEvent, KXLEvent>;
using kx::wire::EnvironmentChange;
using kx::wire::Event;
using kx::wire::ResourceAlert;

/// Steps back out of a field, whatever became of what was read in it.
class InField {
public:
    InField(KXLMessageReaderPrototype& reader, int number)
        : reader_(reader), entered_(reader.enterField(number) == 0) {}
    ~InField() {
        if (entered_) {
            reader_.leaveField();
        }
    }
    InField(const InField&) = delete;
    InField& operator=(const InField&) = delete;
    explicit operator bool() const { return entered_; }

private:
    KXLMessageReaderPrototype& reader_;
    const bool entered_;
};

/// A number that is 0 is not sent.
std::int32_t smallInteger(const KXLMessageReaderPrototype& reader, int number) {
    std::int64_t value = 0;
    reader.getInteger(number, value);
    return static_cast<std::int32_t>(value);
}

std::unique_ptr<KXLEvent> makeEvent(KXLMessageReaderPrototype& reader) {
    auto event = std::make_unique<KXLEvent>(reader.getTypeName(), nullptr);
    std::uint64_t timeMs = 0;
    reader.getUnsigned(Event::kTimeMsFieldNumber, timeMs);
    event->setTimeMs(timeMs);
    return event;
}

class ResourceAlertParser : public KXLParserPrototype<KXLEvent> {
public:
    int parse(KXLMessageReaderPrototype& reader, KXLEvent*& out) const override {
        auto event = makeEvent(reader);
        const InField alert(reader, Event::kResourceAlertFieldNumber);
        const auto data = boost::make_shared<KXLResourceAlertData>();
        if (!alert || reader.getEID(ResourceAlert::kEidFieldNumber, data->eid) != 0) {
            return -1;
        }
        data->alertCode = smallInteger(reader, ResourceAlert::kCodeFieldNumber);
        reader.getText(ResourceAlert::kTextFieldNumber, data->alertText);
        reader.getInteger(ResourceAlert::kValueFieldNumber, data->alertValue);
        event->setData(data);
        out = event.release();
        return 0;
    }
};

class EnvironmentChangeParser : public KXLParserPrototype<KXLEvent> {
public:
    int parse(KXLMessageReaderPrototype& reader, KXLEvent*& out) const override {
        auto event = makeEvent(reader);
        const InField change(reader, Event::kEnvironmentChangeFieldNumber);
        const auto data = boost::make_shared<KXLEnvironmentChangeData>();
        if (!change || reader.getEID(EnvironmentChange::kEidFieldNumber, data->eid) != 0) {
            return -1;
        }
        std::uint64_t kind = 0;
        reader.getUnsigned(EnvironmentChange::kKindFieldNumber, kind);
        data->kind = kind <= static_cast<std::uint64_t>(KXLEnvironmentChangeData::Kind::Removed)
                         ? static_cast<KXLEnvironmentChangeData::Kind>(kind)
                         : KXLEnvironmentChangeData::Kind::Unknown;
        reader.getText(EnvironmentChange::kNameFieldNumber, data->name);
        data->state = smallInteger(reader, EnvironmentChange::kStateFieldNumber);
        data->transition = smallInteger(reader, EnvironmentChange::kTransitionFieldNumber);
        event->setData(data);
        out = event.release();
        return 0;
    }
};

/// Takes any element for an event that carries nothing.
class AnyEventParser : public KXLParserPrototype<KXLEvent> {
public:
    int parse(KXLMessageReaderPrototype& reader, KXLEvent*& out) const override {
        out = makeEvent(reader).release();
        return 0;
    }
};

EventFactory::InternalData ownParsers() {
    EventFactory::InternalData data;
    data.parsers[std::string(kx::wire::kEventTypeResourceAlert)] = boost::make_shared<const ResourceAlertParser>();
    data.parsers[std::string(kx::wire::kEventTypeEnvironmentChange)] =
        boost::make_shared<const EnvironmentChangeParser>();
    data.defaultParser = boost::make_shared<const AnyEventParser>();
    return data;
}

}  // namespace

template <>
EventFactory::InternalData& EventFactory::factoryInternalData() {
    // Never destroyed: a loop thread may outlive static destruction when a program exits without stopping it.
    static auto* const data = std::make_unique<InternalData>(ownParsers()).release();
    return *data;
}
