#include "mib/Keys.h"

#include <gmock/gmock.h>

#include "mib/Varbind.h"

namespace {

using OneKey = Typelist<PrimaryKey<ASN_UNSIGNED, 1>, NullType>;
using TwoKeys = Typelist<ForeignKey<ASN_UNSIGNED, 1>, Typelist<PrimaryKey<ASN_OCTET_STR, 2>, NullType>>;

struct Index {
    unsigned type;
    int tag;
    bool operator==(const Index& other) const { return type == other.type && tag == other.tag; }
};

template <typename Keys, unsigned maxColumn>
std::vector<Index> indexesOf() {
    netsnmp_table_registration_info info{};
    EXPECT_EQ((KeyIndexes<Keys, maxColumn>::add_indexes(&info)), 0);
    const VarbindPtr owner(info.indexes);
    std::vector<Index> found;
    for (const netsnmp_variable_list* index = info.indexes; index != nullptr; index = index->next_variable) {
        EXPECT_EQ(index->val_len, 0U);
        found.push_back({index->type, index->index});
    }
    return found;
}

TEST(Keys, APrimaryKeysTagIsItsColumn) {
    EXPECT_EQ((PrimaryKey<ASN_UNSIGNED, 1>::tag(9)), 1U);
    EXPECT_EQ((PrimaryKey<ASN_OCTET_STR, 2>::tag(9)), 2U);
}

TEST(Keys, AForeignKeysTagLiesBeyondTheLastColumn) {
    EXPECT_EQ((ForeignKey<ASN_UNSIGNED, 1>::tag(2)), 3U);
    EXPECT_EQ((ForeignKey<ASN_UNSIGNED, 1>::tag(8)), 9U);
    EXPECT_EQ((ForeignKey<ASN_UNSIGNED, 2>::tag(8)), 10U);
}

TEST(Keys, OneKeyBecomesOneIndex) {
    EXPECT_THAT((indexesOf<OneKey, 9>()), testing::ElementsAre(Index{ASN_UNSIGNED, 1}));
}

TEST(Keys, IndexesStandInTheOrderOfTheList) {
    EXPECT_THAT((indexesOf<TwoKeys, 5>()), testing::ElementsAre(Index{ASN_UNSIGNED, 6}, Index{ASN_OCTET_STR, 2}));
}

TEST(Keys, TheEndOfTheListAddsNothingAndSucceeds) {
    EXPECT_TRUE((indexesOf<NullType, 5>().empty()));
}

}  // namespace
