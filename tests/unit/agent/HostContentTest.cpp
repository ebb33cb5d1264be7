#include "agent/inventory/HostContent.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/unit/agent/Bodies.h"

namespace kx::agent {
namespace {

using test::container;
using test::decode;
using test::hostOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

Vocabulary counters() {
    return {kBasicFunctionality,
            {Parameter{"kxversion", "7", {}}},
            {Category{"counters", {Parameter{"b", {}, {{"counter_type", 2}}}, Parameter{{}, {}, {}}}}}};
}

TEST(HostContent, HasAnEmptySetOfVocabulariesToBeginWith) {
    const HostContent content(hostOf());
    EXPECT_TRUE(content.vocabularySet());
    EXPECT_EQ(decode(content.vocabularySet()).vocabulary_set().vocabularies_size(), 0);
}

TEST(HostContent, TellsOnlyWhatIsNew) {
    HostContent content(hostOf());
    HostUpdate update = content.apply({{container("a")}, {counters()}});
    EXPECT_THAT(update.deltas, SizeIs(1));
    EXPECT_EQ(update.vocabularySet, content.vocabularySet());
    update = content.apply({{container("a")}, {counters()}});
    EXPECT_THAT(update.deltas, IsEmpty());
    EXPECT_FALSE(update.vocabularySet);
    update = content.apply({{container("a")}, {}});
    EXPECT_THAT(update.deltas, IsEmpty());
    EXPECT_TRUE(update.vocabularySet);
}

TEST(HostContent, TheFirstImageIsTheBeginningAndNoChange) {
    HostContent content(hostOf());
    EXPECT_THAT(content.apply({{container("a")}, {}}).changes, IsEmpty());
    const HostUpdate update = content.apply({{container("a"), container("b")}, {}});
    ASSERT_THAT(update.changes, SizeIs(1));
    EXPECT_EQ(update.changes[0].name, "b");
}

TEST(HostContent, AFirstImageOfNothingIsTheBeginningToo) {
    HostContent content(hostOf());
    content.apply({});
    EXPECT_THAT(content.apply({{container("a")}, {}}).changes, SizeIs(1));
}

TEST(HostContent, VocabulariesArriveInOrderAndWhole) {
    HostContent content(hostOf());
    content.apply({{}, {counters(), Vocabulary{"", {}, {}}}});
    const wire::Frame frame = decode(content.vocabularySet());
    const wire::VocabularySet& set = frame.vocabulary_set();
    ASSERT_EQ(set.vocabularies_size(), 2);
    EXPECT_EQ(set.vocabularies(0).name(), kBasicFunctionality);
    EXPECT_EQ(set.vocabularies(0).parameters(0).value(), "7");
    const wire::Category& category = set.vocabularies(0).categories(0);
    EXPECT_EQ(category.name(), "counters");
    EXPECT_EQ(category.parameters(0).attributes().at("counter_type"), 2);
    EXPECT_FALSE(category.parameters(0).has_value());
    EXPECT_FALSE(category.parameters(1).has_id());
}

TEST(HostContent, VocabulariesTooLargeForAFrameLeaveTheOldOnes) {
    HostContent content(hostOf());
    content.apply({{}, {counters()}});
    const FrameBody before = content.vocabularySet();
    Vocabulary huge = counters();
    huge.parameters[0].value = std::string(17U * 1024 * 1024, 'x');
    testing::internal::CaptureStderr();
    EXPECT_FALSE(content.apply({{}, {huge}}).vocabularySet);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("too large"));
    EXPECT_EQ(content.vocabularySet(), before);
}

}  // namespace
}  // namespace kx::agent
