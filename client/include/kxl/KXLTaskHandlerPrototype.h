// What an event connection calls: messages, and the end of the connection.
//
// Thread promise: all callbacks run on the event loop's thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <kxl/KXLGUID.h>
#include <kxl/KXLRefCounter.h>

/// @brief Reads a message field by field. A field is known by its number. Calls return 0, or -1 and leave reader and
/// arguments as they are. One thread at a time.
class KXLMessageReaderPrototype {
public:
    virtual ~KXLMessageReaderPrototype() = default;

    /// @brief Steps into a list or a part of the message, or of the element at hand.
    /// @param number of the field
    virtual int enterField(int number) = 0;
    /// @brief Steps back out to where the field was entered.
    virtual int leaveField() = 0;

    /// @brief Moves to the first element of the list that was entered.
    /// @param tag what the list's elements are called, e.g. KXLEvent::eventTag
    virtual int firstElement(const std::string& tag) = 0;
    /// @brief Moves to the next element. At the end it stays on the last.
    virtual int nextElement(const std::string& tag) = 0;
    /// @return the type name of the element at hand; empty when there is none
    virtual std::string getTypeName() const = 0;

    /// @brief Reads a signed number.
    virtual int getInteger(int number, std::int64_t& value) const = 0;
    /// @brief Reads a number that is never negative.
    virtual int getUnsigned(int number, std::uint64_t& value) const = 0;
    /// @brief Reads a text, byte for byte.
    virtual int getText(int number, std::string& value) const = 0;
    /// @brief Reads an identifier; fails when it has not 16 bytes.
    virtual int getEID(int number, KXLEID& value) const = 0;
};

/// @brief One message to be handled. A message of many events is handed over as several, one after the other.
class KXLMessageTaskPrototype {
public:
    virtual ~KXLMessageTaskPrototype() = default;

    /// @return a reader at the message's beginning, the caller's own; it may outlive the task
    virtual std::unique_ptr<KXLMessageReaderPrototype> makeReader() const = 0;
    /// @brief The message has been handled. The agent keeps the alerts of a message that one of its handlers has not
    /// finished when handleMessage returns, and sends them again: see KXLAccessPrototype::openEventConnection.
    virtual void finish() = 0;
};

/// @brief Interface of a connection's callbacks. The order of the virtual functions is part of the contract.
class KXLTaskHandlerPrototype : public virtual KXLRefCounter {
public:
    /// @brief A message has arrived, or a part of a large one.
    /// @param task valid during the call
    virtual void handleMessage(KXLMessageTaskPrototype& task) = 0;
    /// @brief The connection failed, or never came about. Called once; the handler is not subscribed any more.
    virtual void handleFailure() = 0;
    /// @brief The subscription has reached the agent: every event from now on is delivered.
    virtual void writeFinished() {}
    /// @brief For connections that hand on unframed bytes; event connections never call it.
    virtual int readFinished(char*, int, int*) { return 1; }
};
