// Categories of vocabularies, read as the counter side reads them.
#include "daemon/link/VocabularyAccess.h"

#include <gmock/gmock.h>

#include "client/src/cache/VocabularyStore.h"
#include "daemon/link/SNMPNodeLocalImpl.h"
#include "tests/support/AgentScripts.h"
#include "tests/support/LogCapture.h"

namespace kx::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

const LogCapture::Line kUnreadable(3, "init: _vocabulary->readCategory failed\n");

/// A vocabulary with one category.
class VocabularyAccess : public testing::Test {
protected:
    VocabularyAccess() { category_->set_name("counters"); }

    void add(const std::string& id) { category_->add_parameters()->set_id(id); }
    void add(const std::string& id, int counterType) {
        add(id);
        auto& attributes = *category_->mutable_parameters(category_->parameters_size() - 1)->mutable_attributes();
        attributes["counter_type"] = counterType;
    }
    void addWithoutId() { (*category_->add_parameters()->mutable_attributes())["counter_type"] = 9; }

    boost::shared_ptr<KXLVocMap> vocabulary() {
        client::VocabularyStore store;
        store.replace(set_);
        return store.find("");
    }
    int read(const std::string& category = "counters") { return readVocabularyCategory(info_, category, vocabulary()); }

    LogCapture log_;
    CategoryInfo info_;
    wire::VocabularySet set_;
    wire::Category* category_ = set_.add_vocabularies()->add_categories();
};

TEST_F(VocabularyAccess, GivesIdsInTheVocabularysOrderAndTheirTypes) {
    add("packets", 2);
    add("bytes", 1);
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(info_.parameterIds, ElementsAre("packets", "bytes"));
    EXPECT_THAT(info_.counterTypes, ElementsAre(Pair("bytes", 1), Pair("packets", 2)));
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(VocabularyAccess, TakesAParameterWithoutATypeForType0) {
    add("plain");
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(info_.counterTypes, ElementsAre(Pair("plain", 0)));
}

TEST_F(VocabularyAccess, PassesOverAParameterWhoseIdCannotBeRead) {
    add("first", 1);
    addWithoutId();
    add("last", 2);
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(info_.parameterIds, ElementsAre("first", "last"));
    EXPECT_THAT(info_.counterTypes, ElementsAre(Pair("first", 1), Pair("last", 2)));
}

TEST_F(VocabularyAccess, OfIdsThatCannotBeReadOnlyGivesASuccessWithNothingInIt) {
    addWithoutId();
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(info_.parameterIds, IsEmpty());
}

TEST_F(VocabularyAccess, ListsARepeatedIdAgainAndTakesItsLastType) {
    add("again", 1);
    add("other", 2);
    add("again", 7);
    add("again");
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(info_.parameterIds, ElementsAre("again", "other", "again", "again"));
    EXPECT_THAT(info_.counterTypes, ElementsAre(Pair("again", 7), Pair("other", 2)));
}

TEST_F(VocabularyAccess, AddsToWhatIsThereAndKeepsATypeThatIsNotToldAgain) {
    info_.counterTypes["known"] = 5;
    info_.parameterIds = {"known"};
    add("known");
    EXPECT_EQ(read(), 0);
    EXPECT_THAT(info_.parameterIds, ElementsAre("known", "known"));
    EXPECT_THAT(info_.counterTypes, ElementsAre(Pair("known", 5)));
}

TEST_F(VocabularyAccess, FailsSilentlyForAnEmptyCategory) {
    EXPECT_EQ(read(), 1);
    EXPECT_THAT(info_.parameterIds, IsEmpty());
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(VocabularyAccess, LogsAnUnknownCategoryOnceEachTime) {
    add("bytes");
    EXPECT_EQ(read("other"), 1);
    EXPECT_THAT(log_.lines(), ElementsAre(kUnreadable));
    EXPECT_EQ(read("other"), 1);
    EXPECT_THAT(log_.lines(), ElementsAre(kUnreadable, kUnreadable));
    EXPECT_THAT(info_.parameterIds, IsEmpty());
}

TEST_F(VocabularyAccess, FailsSilentlyWithoutAVocabulary) {
    EXPECT_EQ(readVocabularyCategory(info_, "counters", nullptr), 1);
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(VocabularyAccess, WithoutAnAccessPointThereAreSilentlyNoIds) {
    EXPECT_THAT(getCategoryParameterIds("counters", nullptr), IsEmpty());
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(VocabularyAccess, BeforeTheFirstConnectionThereAreSilentlyNoIds) {
    SNMPNodeLocalImpl link;
    EXPECT_THAT(getCategoryParameterIds("counters", link.getAccessPoint()), IsEmpty());
    EXPECT_THAT(log_.lines(), IsEmpty());
    link.stop();
}

TEST_F(VocabularyAccess, ReadsTheVocabularyOfTheCountersFromTheServer) {
    const ScriptedAgent agent("/var/opt/orma/agent/agent.sock", [](PeerSocket& peer) {
        if (serveUntilUp(peer, {})) {
            peer.readUntilClosed();
        }
    });
    SNMPNodeLocalImpl link;
    EXPECT_THAT(getCategoryParameterIds("counters_kx_net", link.getAccessPoint()), ElementsAre("bytes_in"));
    EXPECT_THAT(log_.lines(), IsEmpty());
    EXPECT_THAT(getCategoryParameterIds("counters_kx_none", link.getAccessPoint()), IsEmpty());
    EXPECT_THAT(log_.lines(), ElementsAre(kUnreadable));
    link.stop();
}

}  // namespace
}  // namespace kx::test
