#include "client/src/events/MessageReader.h"

#include <gtest/gtest.h>

#include <limits>

#include <kxl/KXLDerivedParserFactory.h>

#include "wire/Protocol.h"

namespace kx::client {
namespace {

using EventFactory = KXLDerivedParserFactory<KXLEvent, KXLEvent>;

const std::string kEid(wire::kEidBytes, '\x11');

MessageReader readerOf(const std::string& bytes) {
    return MessageReader(std::make_shared<const std::string>(bytes));
}
MessageReader readerOf(const wire::EventMessage& message) {
    return readerOf(message.SerializeAsString());
}

wire::EventMessage messageOf(const wire::Event& event) {
    wire::EventMessage message;
    *message.add_events() = event;
    return message;
}

wire::Event alertEvent(std::int32_t code, const std::string& text, std::int64_t value) {
    wire::Event event;
    event.set_type("resource_alert");
    event.set_time_ms(1234567890123);
    event.mutable_resource_alert()->set_eid(kEid);
    event.mutable_resource_alert()->set_code(code);
    event.mutable_resource_alert()->set_text(text);
    event.mutable_resource_alert()->set_value(value);
    return event;
}

/// Parses the first element of a message as the table has it.
std::unique_ptr<KXLEvent> parseFirst(const wire::EventMessage& message) {
    MessageReader reader = readerOf(message);
    if (reader.enterField(KXLEvent::listField) != 0 || reader.firstElement(KXLEvent::eventTag) != 0) {
        return nullptr;
    }
    const auto& parsers = EventFactory::factoryInternalData().parsers;
    const auto parser = parsers.find(reader.getTypeName());
    KXLEvent* event = nullptr;
    if (parser != parsers.end()) {
        parser->second->parse(reader, event);
    }
    return std::unique_ptr<KXLEvent>(event);
}

// ---- the reader -------------------------------------------------------------------------------------------------

TEST(MessageReader, WalksTheElementsOfAListInTheirOrder) {
    wire::EventMessage message;
    for (const char* type : {"first", "second", "third"}) {
        message.add_events()->set_type(type);
    }
    MessageReader reader = readerOf(message);
    ASSERT_EQ(reader.enterField(1307), 0);
    EXPECT_EQ(reader.getTypeName(), "") << "before the first element there is none";
    EXPECT_NE(reader.nextElement(KXLEvent::eventTag), 0);
    ASSERT_EQ(reader.firstElement(KXLEvent::eventTag), 0);
    EXPECT_EQ(reader.getTypeName(), "first");
    ASSERT_EQ(reader.nextElement(KXLEvent::eventTag), 0);
    EXPECT_EQ(reader.getTypeName(), "second");
    ASSERT_EQ(reader.nextElement(KXLEvent::eventTag), 0);
    EXPECT_EQ(reader.getTypeName(), "third");
    EXPECT_NE(reader.nextElement(KXLEvent::eventTag), 0);
    EXPECT_EQ(reader.getTypeName(), "third");
    EXPECT_EQ(reader.firstElement(KXLEvent::eventTag), 0);
    EXPECT_EQ(reader.getTypeName(), "first");
}

TEST(MessageReader, KnowsElementsByTheirTagOnly) {
    MessageReader reader = readerOf(messageOf(wire::Event()));
    ASSERT_EQ(reader.enterField(1307), 0);
    EXPECT_NE(reader.firstElement("another"), 0);
    ASSERT_EQ(reader.firstElement(KXLEvent::eventTag), 0);
    EXPECT_NE(reader.nextElement("another"), 0);
}

TEST(MessageReader, CannotEnterAListThatIsNotThere) {
    MessageReader reader = readerOf(wire::EventMessage());
    EXPECT_NE(reader.enterField(1307), 0);
    EXPECT_NE(reader.firstElement(KXLEvent::eventTag), 0);
    EXPECT_NE(reader.leaveField(), 0);
    EXPECT_NE(readerOf(messageOf(wire::Event())).enterField(1306), 0);
}

TEST(MessageReader, ReadsFieldsOfTheElementAndOfItsParts) {
    MessageReader reader = readerOf(messageOf(alertEvent(-5, std::string("a\0b", 3), -1)));
    ASSERT_EQ(reader.enterField(1307), 0);
    ASSERT_EQ(reader.firstElement(KXLEvent::eventTag), 0);
    std::uint64_t timeMs = 0;
    EXPECT_EQ(reader.getUnsigned(2, timeMs), 0);
    EXPECT_EQ(timeMs, 1234567890123U);
    ASSERT_EQ(reader.enterField(3), 0);
    std::int64_t number = 0;
    EXPECT_EQ(reader.getInteger(2, number), 0);
    EXPECT_EQ(number, -5);
    std::string text;
    EXPECT_EQ(reader.getText(3, text), 0);
    EXPECT_EQ(text, std::string("a\0b", 3));
    KXLEID eid;
    EXPECT_EQ(reader.getEID(1, eid), 0);
    EXPECT_EQ(eid.toString(), "11111111-1111-1111-1111-111111111111");
    ASSERT_EQ(reader.leaveField(), 0);
    EXPECT_EQ(reader.getTypeName(), "resource_alert");
}

TEST(MessageReader, LeavesTheArgumentWhereTheFieldIsMissingOrOfAnotherKind) {
    MessageReader reader = readerOf(messageOf(alertEvent(1, "text", 2)));
    ASSERT_EQ(reader.enterField(1307), 0);
    ASSERT_EQ(reader.firstElement(KXLEvent::eventTag), 0);
    std::int64_t number = 7;
    std::uint64_t natural = 8;
    std::string text = "kept";
    KXLEID eid;
    EXPECT_NE(reader.getInteger(1, number), 0) << "the type name is a text";
    EXPECT_NE(reader.getUnsigned(99, natural), 0);
    EXPECT_NE(reader.getText(2, text), 0) << "the time is a number";
    EXPECT_NE(reader.getEID(1, eid), 0) << "the type name has not 16 bytes";
    EXPECT_NE(reader.enterField(2), 0) << "a number has no parts";
    EXPECT_EQ(number, 7);
    EXPECT_EQ(natural, 8U);
    EXPECT_EQ(text, "kept");
    EXPECT_TRUE(eid.isEmpty());
}

TEST(MessageReader, ReadsNothingBeyondWhereTheBytesMakeSense) {
    const std::string whole = messageOf(alertEvent(1, "text", 2)).SerializeAsString();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_NE(readerOf(whole.substr(0, length)).enterField(1307), 0) << length << " bytes";
    }
    for (const std::string& nonsense : {std::string("\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"),
                                        std::string("\0\0", 2), std::string("\xda\x51\xff\xff\xff\xff\x0f")}) {
        EXPECT_NE(readerOf(nonsense).enterField(1307), 0);
    }
}

// ---- the parsers --------------------------------------------------------------------------------------------------

TEST(EventParsers, MakeAResourceAlert) {
    const auto event = parseFirst(messageOf(alertEvent(2, "out of memory", 17)));
    ASSERT_TRUE(event);
    EXPECT_EQ(event->getCategory(), "resource_alert");
    EXPECT_EQ(event->getCategory(), KXLResourceAlertData::category);
    EXPECT_EQ(event->getTimeMs(), 1234567890123U);
    const auto alert = boost::dynamic_pointer_cast<KXLResourceAlertData>(event->getData());
    ASSERT_TRUE(alert);
    EXPECT_EQ(alert->eid.toString(), "11111111-1111-1111-1111-111111111111");
    EXPECT_EQ(alert->alertCode, 2);
    EXPECT_EQ(alert->alertText, "out of memory");
    EXPECT_EQ(alert->alertValue, 17);
}

TEST(EventParsers, KeepTheLargestAndTheSmallestNumbersOfAnAlert) {
    using Code = std::numeric_limits<std::int32_t>;
    using Value = std::numeric_limits<std::int64_t>;
    for (const auto& [code, value] : {std::pair(Code::max(), Value::max()), std::pair(Code::min(), Value::min()),
                                      std::pair(0, std::int64_t{0}), std::pair(-1, std::int64_t{-1})}) {
        const auto event = parseFirst(messageOf(alertEvent(code, "", value)));
        ASSERT_TRUE(event);
        const auto alert = boost::dynamic_pointer_cast<KXLResourceAlertData>(event->getData());
        EXPECT_EQ(alert->alertCode, code);
        EXPECT_EQ(alert->alertValue, value);
        EXPECT_EQ(alert->alertText, "");
    }
}

TEST(EventParsers, RefuseAnAlertWithoutAnIdentifierOrWithoutItsPart) {
    wire::Event event = alertEvent(1, "text", 2);
    event.mutable_resource_alert()->set_eid("short");
    EXPECT_FALSE(parseFirst(messageOf(event)));
    event.clear_resource_alert();
    EXPECT_FALSE(parseFirst(messageOf(event)));
}

TEST(EventParsers, MakeAnEnvironmentChange) {
    wire::Event event;
    event.set_type("environment_change");
    auto& change = *event.mutable_environment_change();
    change.set_eid(kEid);
    change.set_kind(wire::CHANGE_REMOVED);
    change.set_name("web");
    change.set_state(2);
    change.set_transition(-3);
    const auto parsed = parseFirst(messageOf(event));
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->getCategory(), KXLEnvironmentChangeData::category);
    const auto data = boost::dynamic_pointer_cast<KXLEnvironmentChangeData>(parsed->getData());
    ASSERT_TRUE(data);
    EXPECT_EQ(data->kind, KXLEnvironmentChangeData::Kind::Removed);
    EXPECT_EQ(data->name, "web");
    EXPECT_EQ(data->state, 2);
    EXPECT_EQ(data->transition, -3);
    change.set_eid("");
    EXPECT_FALSE(parseFirst(messageOf(event)));
}

TEST(EventParsers, TakeAKindOfChangeTheyDoNotKnowForUnknown) {
    wire::Event event;
    event.set_type("environment_change");
    event.mutable_environment_change()->set_eid(kEid);
    event.mutable_environment_change()->set_kind(static_cast<wire::EnvironmentChangeKind>(77));
    const auto parsed = parseFirst(messageOf(event));
    ASSERT_TRUE(parsed);
    EXPECT_EQ(boost::dynamic_pointer_cast<KXLEnvironmentChangeData>(parsed->getData())->kind,
              KXLEnvironmentChangeData::Kind::Unknown);
}

TEST(EventParsers, HaveADefaultThatTakesAnyElement) {
    wire::Event event;
    event.set_type("of tomorrow");
    event.set_time_ms(5);
    MessageReader reader = readerOf(messageOf(event));
    ASSERT_EQ(reader.enterField(1307), 0);
    ASSERT_EQ(reader.firstElement(KXLEvent::eventTag), 0);
    KXLEvent* raw = nullptr;
    ASSERT_EQ(EventFactory::factoryInternalData().defaultParser->parse(reader, raw), 0);
    const std::unique_ptr<KXLEvent> parsed(raw);
    EXPECT_EQ(parsed->getCategory(), "of tomorrow");
    EXPECT_EQ(parsed->getTimeMs(), 5U);
    EXPECT_FALSE(parsed->getData());
}

}  // namespace
}  // namespace kx::client
