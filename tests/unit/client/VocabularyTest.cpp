#include <gtest/gtest.h>

#include "client/src/cache/VocabularyStore.h"

namespace kx::client {
namespace {

wire::VocabularySet describedSet() {
    wire::VocabularySet set;
    auto* byDefault = set.add_vocabularies();
    auto* version = byDefault->add_parameters();
    version->set_id("kxversion");
    version->set_value(" 7.0.1-42\n");
    byDefault->add_parameters()->set_id("valueless");
    auto* named = set.add_vocabularies();
    named->set_name("KXABasicFunctionality");
    auto* category = named->add_categories();
    category->set_name("counters_kx_net");
    auto* first = category->add_parameters();
    first->set_id("bytes_in");
    (*first->mutable_attributes())["counter_type"] = 2;
    category->add_parameters();
    category->add_parameters()->set_id("packets_in");
    named->add_categories()->set_name("empty");
    return set;
}

class DescribedVocabulary : public testing::Test {
protected:
    DescribedVocabulary() { store.replace(describedSet()); }
    VocabularyStore store;
};

TEST(VocabularyStore, HasNothingBeforeTheFirstSet) {
    EXPECT_FALSE(VocabularyStore().find(""));
}

TEST_F(DescribedVocabulary, IsFoundByName) {
    EXPECT_TRUE(store.find(""));
    EXPECT_TRUE(store.find("KXABasicFunctionality"));
    EXPECT_FALSE(store.find("kxabasicfunctionality"));
}

TEST_F(DescribedVocabulary, GivesAParametersTextExactly) {
    const auto parameter = store.find("")->readParameter("kxversion");
    ASSERT_TRUE(parameter);
    std::string text;
    EXPECT_EQ(parameter->getValue(text, KXL_FIELD_VALUE), 0);
    EXPECT_EQ(text, " 7.0.1-42\n");
}

TEST_F(DescribedVocabulary, LeavesTheTextWhereThereIsNone) {
    std::string text = "kept";
    EXPECT_NE(store.find("")->readParameter("kxversion")->getValue(text, 1), 0);
    EXPECT_NE(store.find("")->readParameter("valueless")->getValue(text, KXL_FIELD_VALUE), 0);
    EXPECT_EQ(text, "kept");
    EXPECT_FALSE(store.find("")->readParameter("unknown"));
}

TEST_F(DescribedVocabulary, WalksACategoryInItsOrder) {
    const auto it = store.find("KXABasicFunctionality")->readCategory("counters_kx_net");
    ASSERT_TRUE(it);
    std::string id;
    int type = 0;
    ASSERT_EQ(it->firstParameter(), 0);
    EXPECT_EQ(it->getID(id), 0);
    EXPECT_EQ(id, "bytes_in");
    EXPECT_EQ(it->getAttribute("counter_type", type), 0);
    EXPECT_EQ(type, 2);
    ASSERT_EQ(it->nextParameter(), 0);
    EXPECT_NE(it->getID(id), 0) << "a parameter whose id cannot be read";
    ASSERT_EQ(it->nextParameter(), 0);
    EXPECT_EQ(it->getID(id), 0);
    EXPECT_EQ(id, "packets_in");
    type = 5;
    EXPECT_NE(it->getAttribute("counter_type", type), 0);
    EXPECT_EQ(type, 5);
    EXPECT_NE(it->nextParameter(), 0);
    EXPECT_NE(it->nextParameter(), 0);
    EXPECT_EQ(it->firstParameter(), 0);
}

TEST_F(DescribedVocabulary, AnEmptyCategoryHasNoFirstParameterAndAnUnknownNoIterator) {
    const auto vocabulary = store.find("KXABasicFunctionality");
    EXPECT_NE(vocabulary->readCategory("empty")->firstParameter(), 0);
    EXPECT_FALSE(vocabulary->readCategory("unknown"));
}

TEST_F(DescribedVocabulary, IteratorsOutliveTheSetTheyRead) {
    const auto it = store.find("KXABasicFunctionality")->readCategory("counters_kx_net");
    store.replace(wire::VocabularySet());
    std::string id;
    EXPECT_EQ(it->firstParameter(), 0);
    EXPECT_EQ(it->getID(id), 0);
    EXPECT_FALSE(store.find("KXABasicFunctionality"));
}

}  // namespace
}  // namespace kx::client
