#include "client/src/events/MessageReader.h"

#include <algorithm>
#include <optional>

#include <kxl/KXLEvent.h>

#include "client/src/events/MessageFields.h"

namespace kx::client {

namespace {

/// The last one counts, as protobuf has it.
std::optional<Field> findField(std::string_view message, int number) {
    std::optional<Field> found;
    Fields fields(message);
    while (const auto field = fields.next()) {
        if (field->number == number) {
            found = field;
        }
    }
    return found;
}

std::vector<std::string_view> findParts(std::string_view message, int number) {
    std::vector<std::string_view> found;
    Fields fields(message);
    while (const auto field = fields.next()) {
        if (field->number == number && field->bytes) {
            found.push_back(*field->bytes);
        }
    }
    return found;
}

}  // namespace

MessageReader::MessageReader(std::shared_ptr<const std::string> message) : message_(std::move(message)) {}

std::string_view MessageReader::here() const {
    if (levels_.empty()) {
        return *message_;
    }
    return levels_.back().elements[levels_.back().position];
}

int MessageReader::enterField(int number) {
    auto elements = findParts(here(), number);
    if (elements.empty()) {
        return -1;
    }
    levels_.push_back({std::move(elements)});
    return 0;
}

int MessageReader::leaveField() {
    if (levels_.empty()) {
        return -1;
    }
    levels_.pop_back();
    return 0;
}

int MessageReader::firstElement(const std::string& tag) {
    if (levels_.empty() || tag != KXLEvent::eventTag) {
        return -1;
    }
    levels_.back().position = 0;
    levels_.back().onElement = true;
    return 0;
}

int MessageReader::nextElement(const std::string& tag) {
    if (levels_.empty() || tag != KXLEvent::eventTag) {
        return -1;
    }
    Level& list = levels_.back();
    if (!list.onElement || list.position + 1 == list.elements.size()) {
        return -1;
    }
    ++list.position;
    return 0;
}

std::string MessageReader::getTypeName() const {
    std::string name;
    if (!levels_.empty() && levels_.back().onElement) {
        getText(typeField, name);
    }
    return name;
}

int MessageReader::getInteger(int number, std::int64_t& value) const {
    const auto field = findField(here(), number);
    if (!field || !field->varint) {
        return -1;
    }
    value = google::protobuf::internal::WireFormatLite::ZigZagDecode64(*field->varint);
    return 0;
}

int MessageReader::getUnsigned(int number, std::uint64_t& value) const {
    const auto field = findField(here(), number);
    if (!field || !field->varint) {
        return -1;
    }
    value = *field->varint;
    return 0;
}

int MessageReader::getText(int number, std::string& value) const {
    const auto field = findField(here(), number);
    if (!field || !field->bytes) {
        return -1;
    }
    value = *field->bytes;
    return 0;
}

int MessageReader::getEID(int number, KXLEID& value) const {
    std::string bytes;
    if (getText(number, bytes) != 0 || bytes.size() != KXLGUIDBase::size) {
        return -1;
    }
    KXLGUIDBase::Bytes eid{};
    std::copy(bytes.begin(), bytes.end(), eid.begin());
    value = KXLEID(eid);
    return 0;
}

}  // namespace kx::client
