#include "agent/backends/lxc/ContainerNotes.h"

#include <gmock/gmock.h>

#include "agent/backends/lxc/ContainerRecord.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/unit/lxc/LogLines.h"

namespace kx::agent::lxc {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;

constexpr const char* kUuid = "0f8e5c1a-7a44-4c3b-9d1e-0000000000aa";

ContainerNotes good(std::string_view text) {
    auto parsed = parseContainerNotes(text);
    if (const auto* error = std::get_if<NotesError>(&parsed)) {
        ADD_FAILURE() << error->line << ":" << error->column << ": " << error->message;
    }
    return std::holds_alternative<ContainerNotes>(parsed) ? std::get<ContainerNotes>(parsed) : ContainerNotes{};
}

void expectError(std::string_view text, unsigned line, unsigned column, const std::string& message) {
    const auto parsed = parseContainerNotes(text);
    const auto* error = std::get_if<NotesError>(&parsed);
    ASSERT_NE(error, nullptr) << text;
    EXPECT_EQ(error->line, line) << text;
    EXPECT_EQ(error->column, column) << text;
    EXPECT_THAT(error->message, HasSubstr(message)) << text;
}

TEST(ContainerNotesTest, takesEveryKey) {
    const auto notes = good(
        "description = \"front end\"\nbase_sample = \"0f8e5c1a-7a44-4c3b-9d1e-0000000000aa\"\n"
        "templates = [ { name = \"nginx\", version = \"1.24\" }, { name = \"php\" } ]\n");
    EXPECT_EQ(notes.description, "front end");
    EXPECT_EQ(notes.baseSample, Eid::parse(kUuid));
    EXPECT_THAT(notes.templates, ::testing::Optional(ElementsAre(Template{"nginx", "1.24"}, Template{"php", ""})));
}

TEST(ContainerNotesTest, anAbsentListIsNotAnEmptyOne) {
    EXPECT_EQ(good("").templates, std::nullopt);
    EXPECT_THAT(good("templates = []").templates, ::testing::Optional(ElementsAre()));
    EXPECT_THAT(good("[[templates]]\nname = \"a\"").templates, ::testing::Optional(ElementsAre(Template{"a", ""})));
}

// The parser makes a table in a table for each part and takes them down recursively: unguarded, the stack overflows.
TEST(ContainerNotesTest, refusesAKeyOfAMillionParts) {
    std::string text = "a";
    for (int i = 0; i < 1'000'000; ++i) {
        text += ".a";
    }
    expectError(text + " = 1\n", 1, 32, "parts");
}

TEST(ContainerNotesTest, tellsWhereAnErrorIs) {
    expectError("description = 1", 1, 15, "description must be a string");
    expectError("\ndescripton = \"x\"", 2, 1, "unknown key \"descripton\"");
    expectError("base_sample = \"0f8e\"", 1, 15, "base_sample must be a UUID");
    expectError("templates = \"nginx\"", 1, 13, "templates must be an array of tables");
    expectError("templates = [\n  \"nginx\" ]", 2, 3, "a template must be a table");
    expectError("templates = [ { version = \"1\" } ]", 1, 15, "a template must have a name");
    expectError("templates = [ { name = \"a\", size = 1 } ]", 1, 29, "unknown key \"size\"");
    expectError("templates = [ { name = \"a\", version = 1 } ]", 1, 39, "version must be a string");
    expectError("description = \"a\ndescription", 1, 17, "");
    expectError("description = \"\xff\"", 1, 15, "");
}

class ReadNotesTest : public ::testing::Test {
protected:
    ReadNotesTest() {
        record_.name = "web";
        path_.write("web/config", "");
    }
    void read() {
        FolderQuery query{path_.path(), "web", false, true, nullptr, record_.notesStamp};
        takeNotes(record_, path_.path(), readContainerFolder(query).notes.value(), log_.sink());
    }

    test::TemporaryFolder path_;
    LogLines log_;
    ContainerRecord record_;
};

TEST_F(ReadNotesTest, keepsTheLastGoodNotesAndComplainsOnceAChange) {
    path_.write("web/kx.toml", "description = \"good\"");
    read();
    path_.write("web/kx.toml", "description = \"wrong");
    read();
    read();
    EXPECT_EQ(record_.notes.description, "good");
    ASSERT_EQ(log_.lines.size(), 1U);
    EXPECT_THAT(log_.lines[0].second, HasSubstr(path_ / "web/kx.toml:1:"));
    path_.write("web/kx.toml", "description = \"still wrong");
    read();
    EXPECT_EQ(log_.lines.size(), 2U);
    path_.write("web/kx.toml", "description = \"new\"");
    read();
    EXPECT_EQ(record_.notes.description, "new");
    EXPECT_EQ(log_.lines.size(), 2U);
}

TEST_F(ReadNotesTest, aMissingFileMeansNoNotes) {
    path_.write("web/kx.toml", "description = \"good\"");
    read();
    std::filesystem::remove(path_ / "web/kx.toml");
    read();
    EXPECT_EQ(record_.notes, ContainerNotes{});
    EXPECT_TRUE(log_.lines.empty());
}

TEST_F(ReadNotesTest, refusesAFileThatIsTooLongOrNone) {
    path_.write("web/kx.toml", std::string(kMaxNotesBytes + 1, '#'));
    read();
    EXPECT_THAT(log_.lines.at(0).second, HasSubstr("longer than"));
    std::filesystem::remove(path_ / "web/kx.toml");
    std::filesystem::create_directory(path_ / "web/kx.toml");
    read();
    EXPECT_THAT(log_.lines.at(1).second, HasSubstr("not a regular file"));
}

TEST(EnvironmentTest, aContainerWithoutAConfiguredHostNameHasItsOwnName) {
    ContainerRecord record;
    record.name = "web";
    EXPECT_EQ(environmentOf(record).hostname, "web");
    record.hostname = "web.example";
    EXPECT_EQ(environmentOf(record).hostname, "web.example");
    EXPECT_EQ(environmentOf(record).name, "web");
    EXPECT_EQ(environmentOf(record).type, "lumetra");
}

TEST(EnvironmentTest, addressesAreTheKernelsElseTheConfiguredOnesElseNotKnown) {
    using Addresses = std::optional<std::vector<Address>>;
    ContainerRecord record;
    EXPECT_EQ(environmentOf(record).addresses, std::nullopt);
    record.configured.emplace();
    EXPECT_EQ(environmentOf(record).addresses, Addresses(std::in_place)) << "known to have none";
    record.configured->push_back({"10.0.0.1", "255.255.255.0"});
    EXPECT_EQ(environmentOf(record).addresses, record.configured);
    record.life.addresses.emplace();
    EXPECT_EQ(environmentOf(record).addresses, Addresses(std::in_place));
    record.life = {};
    EXPECT_EQ(environmentOf(record).addresses, record.configured);
}

}  // namespace
}  // namespace kx::agent::lxc
