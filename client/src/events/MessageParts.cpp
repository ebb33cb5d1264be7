#include "client/src/events/MessageParts.h"

#include <kxl/KXLEvent.h>

#include "client/src/events/MessageFields.h"
#include "wire/Protocol.h"

namespace kx::client {

std::optional<std::string_view> MessageParts::inFrame(std::string_view payload) {
    std::optional<std::string_view> message;
    Fields fields(payload);
    while (const auto field = fields.next()) {
        if (field->number == wire::Frame::kEventMessageFieldNumber) {
            message = field->bytes;
        }
    }
    return fields.isBroken() ? std::nullopt : message;
}

MessageParts::MessageParts(std::string_view message) : message_(message) {
    Fields fields(message_);
    while (const auto field = fields.next()) {
        if (field->number == wire::EventMessage::kSequenceFieldNumber) {
            sequence_ = field->varint.value_or(0);
        }
    }
    isWellFormed_ = !fields.isBroken();
}

std::shared_ptr<const std::string> MessageParts::next() {
    const std::string_view rest = std::string_view(message_).substr(position_);
    Fields fields(rest);
    std::size_t events = 0;
    while (events < eventsInPart) {
        const auto field = fields.next();
        if (!field) {
            break;
        }
        events += field->number == KXLEvent::listField ? 1 : 0;
    }
    hasBegun_ = true;
    position_ += fields.position();
    return std::make_shared<const std::string>(rest.substr(0, fields.position()));
}

}  // namespace kx::client
