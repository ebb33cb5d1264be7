#include "agent/backends/lxc/VeIdStore.h"

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "tests/support/TemporaryFolder.h"
#include "tests/unit/lxc/LogLines.h"

namespace kx::agent::lxc {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

class VeIdStoreTest : public ::testing::Test {
protected:
    VeIdStore open() { return VeIdStore(state_.path(), log_.sink()); }

    test::TemporaryFolder state_;
    LogLines log_;
};

TEST(VeIdInNameTest, takesDecimalNumbersOfTheWholeRange) {
    EXPECT_EQ(veIdInName("1"), 1);
    EXPECT_EQ(veIdInName("101"), 101);
    EXPECT_EQ(veIdInName("2147483647"), 2147483647);
}

TEST(VeIdInNameTest, takesNothingElseForANumber) {
    for (const char* name :
         {"", "0", "01", "-1", "+1", " 1", "1 ", "1a", "a1", "0x10", "2147483648", "99999999999999"}) {
        EXPECT_EQ(veIdInName(name), std::nullopt) << name;
    }
}

TEST_F(VeIdStoreTest, givesOtherNamesTheNextFreeIdFromAMillionUp) {
    auto store = open();
    EXPECT_THAT(store.assign({"web", "101", "db"}),
                UnorderedElementsAre(Pair("web", 1000000), Pair("101", 101), Pair("db", 1000001)));
    EXPECT_THAT(log_.lines, ::testing::IsEmpty());
}

TEST_F(VeIdStoreTest, keepsAnIdWhileItsContainerDoesNotExist) {
    auto store = open();
    store.assign({"web"});
    EXPECT_THAT(store.assign({"db"}), ElementsAre(Pair("db", 1000001)));
    EXPECT_THAT(store.assign({"web"}), ElementsAre(Pair("web", 1000000)));
}

TEST_F(VeIdStoreTest, remembersIdsAcrossARestart) {
    open().assign({"web", "db"});
    open().assign({"db", "new"});
    EXPECT_THAT(open().assign({"new", "db", "web"}),
                UnorderedElementsAre(Pair("db", 1000001), Pair("web", 1000000), Pair("new", 1000002)));
}

TEST_F(VeIdStoreTest, remembersNamesOfAnyBytes) {
    const std::vector<std::string> names = {"a b", "q\"q", "100%", "%41", "\xc3\xa4", "\xff\n", "x=y.z"};
    const auto first = open().assign(names);
    EXPECT_EQ(first.size(), names.size());
    EXPECT_EQ(open().assign(names), first);
    EXPECT_THAT(log_.lines, ::testing::IsEmpty());
}

TEST_F(VeIdStoreTest, givesNoIdThatAContainersNameClaims) {
    auto store = open();
    EXPECT_THAT(store.assign({"web", "1000000"}), UnorderedElementsAre(Pair("1000000", 1000000), Pair("web", 1000001)));
    EXPECT_THAT(log_.lines, ::testing::IsEmpty());
}

TEST_F(VeIdStoreTest, takesAClaimedIdFromTheContainerItWasGivenToWithOneWarning) {
    open().assign({"web", "db"});
    auto store = open();
    const auto expected = UnorderedElementsAre(Pair("1000000", 1000000), Pair("web", 1000002), Pair("db", 1000001));
    EXPECT_THAT(store.assign({"web", "db", "1000000"}), expected);
    EXPECT_THAT(store.assign({"web", "db", "1000000"}), expected);
    ASSERT_EQ(log_.lines.size(), 1U);
    EXPECT_EQ(log_.lines[0].first, Severity::Warning);
    EXPECT_THAT(log_.lines[0].second, HasSubstr("id 1000000 had been given to container web"));
    EXPECT_THAT(open().assign({"web", "db", "1000000"}), expected);
    EXPECT_EQ(log_.lines.size(), 1U);
}

TEST_F(VeIdStoreTest, takesAClaimedIdFromAContainerThatDoesNotExistNow) {
    open().assign({"web"});
    open().assign({"1000000"});
    EXPECT_THAT(open().assign({"web", "1000000"}),
                UnorderedElementsAre(Pair("1000000", 1000000), Pair("web", 1000001)));
    EXPECT_EQ(log_.count(Severity::Warning), 1U);
}

TEST_F(VeIdStoreTest, writesReadableFileAndLeavesNoOther) {
    open().assign({"web"});
    struct stat status {};
    ASSERT_EQ(::stat((state_ / "veids.toml").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
    EXPECT_FALSE(std::filesystem::exists(state_ / "veids.toml.new"));
}

TEST_F(VeIdStoreTest, makesTheStateDirectoryWhenTheFirstIdIsRemembered) {
    const std::string folder = state_ / "a/b";
    VeIdStore store(folder, log_.sink());
    EXPECT_FALSE(std::filesystem::exists(folder));
    store.assign({"web"});
    EXPECT_TRUE(std::filesystem::exists(store.file()));
}

TEST_F(VeIdStoreTest, writesNothingWhenAllNamesAreNumbers) {
    open().assign({"101", "102"});
    EXPECT_FALSE(std::filesystem::exists(state_ / "veids.toml"));
}

class DamagedFileTest : public VeIdStoreTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(DamagedFileTest, isSetAsideWithAnErrorAndNeverWrittenOver) {
    state_.write("veids.toml", GetParam());
    auto store = open();
    EXPECT_EQ(log_.count(Severity::Error), 1U);
    EXPECT_THAT(log_.lines.at(0).second, HasSubstr("veids.toml.damaged"));
    EXPECT_EQ(state_.read("veids.toml.damaged"), GetParam());
    EXPECT_THAT(store.assign({"web"}), ElementsAre(Pair("web", 1000000)));
    EXPECT_EQ(state_.read("veids.toml.damaged"), GetParam());
    EXPECT_THAT(open().assign({"web"}), ElementsAre(Pair("web", 1000000)));
    EXPECT_EQ(log_.lines.size(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Damages, DamagedFileTest,
                         ::testing::Values("", "format = 1\n[ids]\n\"web\" = 10000", "format = 2\n[ids]\n",
                                           "format = 1\n", "format = 1\n[ids]\nweb = 1000000\ndb = 1000000\n",
                                           "format = 1\n[ids]\nweb = \"1000000\"\n", "\x01\x02\xff garbage",
                                           "format = 1\n[ids]\nweb = 2147483648\n",
                                           "format = 1\n[ids]\n\"%4\" = 1000000\n",
                                           "format = 1\n[ids]\nweb = 1000000\nweb = 1000001\n"));

TEST_F(VeIdStoreTest, setsEveryDamagedFileAsideUnderAnotherName) {
    for (const char* text : {"first", "second", "third"}) {
        state_.write("veids.toml", text);
        open();
    }
    EXPECT_EQ(state_.read("veids.toml.damaged"), "first");
    EXPECT_EQ(state_.read("veids.toml.damaged.1"), "second");
    EXPECT_EQ(state_.read("veids.toml.damaged.2"), "third");
}

TEST_F(VeIdStoreTest, leavesAloneWhatItCannotRead) {
    std::filesystem::create_directory(state_ / "veids.toml");
    auto store = open();
    EXPECT_THAT(store.assign({"web"}), ElementsAre(Pair("web", 1000000)));
    EXPECT_TRUE(std::filesystem::is_directory(state_ / "veids.toml"));
    EXPECT_EQ(log_.lines.size(), 1U);
    EXPECT_EQ(log_.count(Severity::Error), 1U);
}

// Root may write anywhere, so what stands in the way is a file where the folder should be.
TEST_F(VeIdStoreTest, givesIdsWithOneErrorWhileTheyCannotBeWrittenAndWritesThemLater) {
    state_.write("state", "a file");
    VeIdStore store(state_ / "state", log_.sink());
    EXPECT_THAT(store.assign({"web"}), ElementsAre(Pair("web", 1000000)));
    EXPECT_TRUE(store.hasUnsaved());
    EXPECT_THAT(store.assign({"web", "db"}), UnorderedElementsAre(Pair("web", 1000000), Pair("db", 1000001)));
    ASSERT_EQ(log_.lines.size(), 1U);
    EXPECT_EQ(log_.lines[0].first, Severity::Error);
    EXPECT_THAT(log_.lines[0].second, HasSubstr(state_ / "state"));
    std::filesystem::remove(state_ / "state");
    store.assign({"web"});
    EXPECT_FALSE(store.hasUnsaved());
    EXPECT_THAT(VeIdStore(state_ / "state", log_.sink()).assign({"db", "other"}),
                UnorderedElementsAre(Pair("db", 1000001), Pair("other", 1000002)));
}

TEST_F(VeIdStoreTest, goesBackForFreeIdsWhenTheHighestIsGiven) {
    state_.write("veids.toml", "format = 1\n[ids]\nlast = 2147483647\n");
    auto store = open();
    EXPECT_THAT(store.assign({"web", "1000000"}), UnorderedElementsAre(Pair("1000000", 1000000), Pair("web", 1000001)));
}

}  // namespace
}  // namespace kx::agent::lxc
