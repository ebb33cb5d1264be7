// Reads a message in its encoded form (protobuf's wire format), field by field.
//
// Nothing of a message's schema is known here: a type of event that this library has never heard of can be read by the
// parser that a program has registered for it. What was received is never trusted: a length that leads out of the
// message makes the field unreadable.
//
// Thread promise: one thread at a time; the bytes are shared and immutable.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <kxl/KXLTaskHandlerPrototype.h>

namespace kx::client {

/// @brief The reader of an event message. A list is entered by the number of its field and has elements of one tag; an
/// element, and what is entered from there, is a message again.
class MessageReader : public KXLMessageReaderPrototype {
public:
    /// The field of an element that is its type name.
    static constexpr int typeField = 1;

    /// @param message the encoded message
    explicit MessageReader(std::shared_ptr<const std::string> message);

    int enterField(int number) override;
    int leaveField() override;
    int firstElement(const std::string& tag) override;
    int nextElement(const std::string& tag) override;
    std::string getTypeName() const override;
    int getInteger(int number, std::int64_t& value) const override;
    int getUnsigned(int number, std::uint64_t& value) const override;
    int getText(int number, std::string& value) const override;
    int getEID(int number, KXLEID& value) const override;

private:
    /// Where the reader is: in a message, in which a field was entered whose values are the elements.
    struct Level {
        std::vector<std::string_view> elements;  ///< at least one
        std::size_t position = 0;
        bool onElement = false;  ///< fields are read of the element; before it was moved to, of its first
    };

    std::string_view here() const;

    const std::shared_ptr<const std::string> message_;
    std::vector<Level> levels_;
};

}  // namespace kx::client
