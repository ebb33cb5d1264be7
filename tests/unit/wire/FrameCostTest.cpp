#include "wire/FrameCost.h"

#include <gtest/gtest.h>

#include <string>

#include "wire/Protocol.h"

namespace kx::wire {
namespace {

/// The texts and messages of a frame.
std::size_t partsOf(const Frame& frame) {
    const std::string payload = frame.SerializeAsString();
    return (decodedBytes(payload) - payload.size()) / kPartBytes;
}

TEST(FrameCost, OfANumberIsItsBytes) {
    Frame frame;
    frame.set_request_id(300);
    EXPECT_EQ(decodedBytes(frame.SerializeAsString()), 3U);
    EXPECT_EQ(decodedBytes(""), 0U);
}

TEST(FrameCost, CountsEachEmptyEnvironmentOfASnapshotAndOfADelta) {
    Frame frame;
    for (int i = 0; i < 1000; ++i) {
        frame.mutable_snapshot_chunk()->add_environments();
    }
    EXPECT_EQ(partsOf(frame), 1001U);
    frame.mutable_delta()->add_changed();
    frame.mutable_delta()->add_removed_eids("");
    EXPECT_EQ(partsOf(frame), 3U);
}

TEST(FrameCost, CountsEveryTextAndListOfAnEnvironment) {
    Frame frame;
    Environment& environment = *frame.mutable_snapshot_chunk()->add_environments();
    environment.set_eid("e");
    environment.mutable_configuration()->set_name("n");
    environment.mutable_configuration()->mutable_os_template()->set_name("n");
    environment.mutable_configuration()->mutable_addresses()->add_addresses()->set_mask("m");
    environment.mutable_configuration()->mutable_templates()->add_templates()->set_version("v");
    environment.mutable_configuration()->mutable_inet6_addresses()->add_addresses()->set_address("a");
    EXPECT_EQ(partsOf(frame), 2U + 1 + 2 + 2 + 3 + 3 + 3);
}

TEST(FrameCost, CountsEventsVocabulariesAndRowsOfCounters) {
    Frame events;
    events.mutable_event_message()->add_events()->mutable_resource_alert()->set_text("t");
    events.mutable_event_message()->add_events()->mutable_environment_change()->set_name("n");
    EXPECT_EQ(partsOf(events), 1U + 3 + 3);
    Frame vocabularies;
    Vocabulary& vocabulary = *vocabularies.mutable_vocabulary_set()->add_vocabularies();
    vocabulary.add_parameters()->set_id("i");
    (*vocabulary.add_categories()->add_parameters()->mutable_attributes())["a"] = 1;
    EXPECT_EQ(partsOf(vocabularies), 2U + 2 + 3);
    Frame counters;
    CounterGroup& group = *counters.mutable_counter_sample()->add_groups();
    group.add_instances("1");
    group.add_counters("in");
    group.add_values(1);
    EXPECT_EQ(partsOf(counters), 2U + 3);
}

TEST(FrameCost, DoesNotTakeATextForAMessage) {
    Frame frame;
    frame.mutable_refusal()->set_text(std::string(1000, '\n'));
    EXPECT_EQ(partsOf(frame), 2U);
}

TEST(FrameCost, EndsWhereTheBytesMakeNoSense) {
    EXPECT_EQ(decodedBytes("\xff\xff"), 2U);
    EXPECT_EQ(decodedBytes(std::string("\x2a\x7f", 2)), 2U) << "a length that leads out of the frame";
    EXPECT_EQ(decodedBytes(std::string("\x31\0\0", 3)), 3U);
}

}  // namespace
}  // namespace kx::wire
