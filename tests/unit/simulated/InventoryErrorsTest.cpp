// What is said of wrong inventory texts, and where it is pointed at.
#include <fmt/format.h>

#include "Parsed.h"

namespace kx::agent::simulated {
namespace {

struct Wrong {
    std::string text;
    std::string error;  ///< how it must begin
};

class WrongInventories : public testing::TestWithParam<Wrong> {};

TEST_P(WrongInventories, ArePointedAt) {
    EXPECT_THAT(errorOf(GetParam().text), testing::StartsWith(GetParam().error));
}

const std::string kHead = "[[environment]]\nname = 'x'\n";

INSTANTIATE_TEST_SUITE_P(
    Keys, WrongInventories,
    testing::Values(Wrong{"[host]\ngenrate = 5\n", "2:1: unknown key \"genrate\""},
                    Wrong{"\n\nhosts = 1\n", "3:1: unknown key \"hosts\""},
                    Wrong{kHead + "vied = 1\n", "3:1: unknown key \"vied\""},
                    Wrong{kHead + "zzz = 1\naaa = 2\n", "3:1: unknown key \"zzz\""},
                    Wrong{kHead + "os_template = { name = 'a', versoin = '1' }\n", "3:29: unknown key \"versoin\""},
                    Wrong{kHead + "addresses = [ { address = 'a', mask = 'b', x = 1 } ]\n", "3:44: unknown key \"x\""},
                    Wrong{kHead + "templates = [ { x = 1 } ]\n", "3:17: unknown key \"x\""},
                    Wrong{kHead + "[environment.counters.c.'1']\nn = { value = 1, rate = 2 }\n",
                          "4:18: unknown key \"rate\""},
                    Wrong{"[vocabulary.c]\nparameter = []\n", "2:1: unknown key \"parameter\""},
                    Wrong{"[vocabulary.c]\nparameters = [ { id = 'a', type = 1 } ]\n", "2:28: unknown key \"type\""},
                    Wrong{"\"two\\nlines\" = 1\n", "1:1: unknown key \"two?lines\""}));

INSTANTIATE_TEST_SUITE_P(
    Types, WrongInventories,
    testing::Values(
        Wrong{"host = 1\n", "1:8: host must be a table, not an integer"},
        Wrong{"[host]\nproduct_version = 7.0\n", "2:19: product_version must be a string, not a floating-point number"},
        Wrong{"[host]\ngenerate = '5'\n", "2:12: generate must be an integer, not a string"},
        Wrong{"[environment]\nname = 'x'\n", "1:1: environment must be an array of tables, not a table"},
        Wrong{"environment = [ 5 ]\n", "1:17: an element of environment must be a table, not an integer"},
        Wrong{"[[environment]]\nname = 101\n", "2:8: name must be a string, not an integer"},
        Wrong{kHead + "type = true\n", "3:8: type must be a string, not a boolean"},
        Wrong{kHead + "veid = '101'\n", "3:8: veid must be an integer, not a string"},
        Wrong{kHead + "state = 2.0\n", "3:9: state must be an integer, not a floating-point number"},
        Wrong{kHead + "transition = 2024-01-01\n", "3:14: transition must be an integer, not a date or time"},
        Wrong{kHead + "eid = 5\n", "3:7: eid must be a string, not an integer"},
        Wrong{kHead + "hostname = []\n", "3:12: hostname must be a string, not an array"},
        Wrong{kHead + "description = {}\n", "3:15: description must be a string, not a table"},
        Wrong{kHead + "os_template = 'debian'\n", "3:15: os_template must be a table, not a string"},
        Wrong{kHead + "addresses = '10.0.0.1'\n", "3:13: addresses must be an array of tables, not a string"},
        Wrong{kHead + "addresses = [ '10.0.0.1' ]\n", "3:15: an element of addresses must be a table, not a string"},
        Wrong{kHead + "counters = 1\n", "3:12: counters must be a table, not an integer"},
        Wrong{kHead + "counters.c = 1\n", "3:14: c must be a table, not an integer"},
        Wrong{kHead + "counters.c.i = 1\n", "3:16: i must be a table, not an integer"},
        Wrong{kHead + "counters.c.i.n = '1'\n", "3:18: n must be an integer or a table, not a string"},
        Wrong{kHead + "counters.c.i.n.value = '1'\n", "3:24: value must be an integer, not a string"},
        Wrong{"vocabulary.c = 1\n", "1:16: c must be a table, not an integer"},
        Wrong{"[vocabulary.c]\nparameters = [ { id = 1 } ]\n", "2:23: id must be a string, not an integer"}));

INSTANTIATE_TEST_SUITE_P(
    Values, WrongInventories,
    testing::Values(Wrong{"[[environment]]\nveid = 1\n", "1:1: name is missing"},
                    Wrong{kHead + "os_template = { name = 'a' }\n", "3:15: version is missing"},
                    Wrong{kHead + "addresses = [ { address = 'a' } ]\n", "3:15: mask is missing"},
                    Wrong{"[vocabulary.c]\n", "1:1: parameters is missing"},
                    Wrong{kHead + "veid = 2147483648\n", "3:8: veid must be -2147483648 to 2147483647"},
                    Wrong{kHead + "veid = -2147483649\n", "3:8: veid must be -2147483648 to 2147483647"},
                    Wrong{kHead + "state = 4294967295\n", "3:9: state must be -2147483648 to 2147483647"},
                    Wrong{"[host]\ngenerate = -1\n", "2:12: generate must be 0 to 1000000"},
                    Wrong{"[host]\ngenerate = 1000001\n", "2:12: generate must be 0 to 1000000"},
                    Wrong{kHead + "eid = ''\n", "3:7: eid must be a UUID"},
                    Wrong{kHead + "eid = '0f8e5c1a-7a44-4c3b-9d1e-00000000010'\n", "3:7: eid must be a UUID"},
                    Wrong{kHead + "eid = '0f8e5c1a-7a44-4c3b-9d1e-00000000010g'\n", "3:7: eid must be a UUID"},
                    Wrong{kHead + "eid = '{0f8e5c1a-7a44-4c3b-9d1e-000000000101}'\n", "3:7: eid must be a UUID"},
                    Wrong{kHead + "base_sample = 'none'\n", "3:15: base_sample must be a UUID"}));

INSTANTIATE_TEST_SUITE_P(
    Identifiers, WrongInventories,
    testing::Values(
        Wrong{"[[environment]]\nname = 'a'\neid = '0f8e5c1a-7a44-4c3b-9d1e-000000000101'\n[[environment]]\nname = "
              "'b'\neid = '0F8E5C1A-7A44-4C3B-9D1E-000000000101'\n",
              "6:7: eid 0f8e5c1a-7a44-4c3b-9d1e-000000000101 is that of the environment of line 3"},
        Wrong{"[[environment]]\nname = 'a'\n[[environment]]\nname = 'a#2'\n[[environment]]\nname = 'a'\n",
              "5:1: eid " + Eid::fromName(kMachineId, "simulated/a#2").toString() +
                  " is that of the environment of line 3"},
        Wrong{kHead + "eid = '" + Eid::fromName(kMachineId, "host").toString() + "'\n",
              "3:7: eid " + Eid::fromName(kMachineId, "host").toString() + " is that of this host"},
        Wrong{"[host]\ngenerate = 1\n" + kHead + "eid = '" +
                  Eid::fromName(kMachineId, "simulated/generated/2001").toString() + "'\n",
              "5:7: this is the eid of one of the generated containers"}));

INSTANTIATE_TEST_SUITE_P(Syntax, WrongInventories,
                         testing::Values(Wrong{"[[environment]\n", "1:"},                 //
                                         Wrong{kHead + "veid = \n", "3:"},                //
                                         Wrong{kHead + "name = 'y'\n", "3:"},             //
                                         Wrong{"# one\n\nx\n", "3:"},                     //
                                         Wrong{"[[environment]]\nname = '\xff'\n", "2:"}  //
                                         ));

TEST(InventoryErrors, NamesTheFile) {
    EXPECT_EQ(describe("/a/inventory.toml", {3, 8, "wrong"}), "/a/inventory.toml:3:8: wrong");
    EXPECT_EQ(describe("/a/inventory.toml", {0, 0, "cannot be read"}), "/a/inventory.toml: cannot be read");
}

TEST(InventoryErrors, RefusesAnEnvironmentThatFitsNoFrame) {
    const std::string half(kMaxTextBytes / 2, 'x');
    EXPECT_EQ(errorOf(kHead + "description = '" + half + "'\n"), "good");
    EXPECT_EQ(errorOf(kHead + "description = '" + half + "'\nhostname = '" + half + "'\n"),
              "1:1: the environment has more than 1048576 bytes of text");
}

TEST(InventoryErrors, RefusesAVocabularyThatFitsNoFrame) {
    const std::string half(kMaxTextBytes / 2, 'x');
    const std::string category = "parameters = [ { id = '" + half + "' } ]\n";
    EXPECT_EQ(errorOf("[vocabulary.a]\n" + category), "good");
    EXPECT_THAT(errorOf("[vocabulary.a]\n" + category + "[vocabulary.b]\n" + category),
                testing::HasSubstr("the vocabulary takes more than 1048576 bytes"));
}

std::string keyOfParts(int parts) {
    std::string key = "a";
    for (int i = 1; i < parts; ++i) {
        key += ".a";
    }
    return key;
}

// The TOML parser destroys a table for each part of a key recursively.
TEST(InventoryErrors, AKeyOfAMillionPartsIsAnError) {
    EXPECT_EQ(errorOf("[host]\n" + keyOfParts(1'000'000) + " = 1\n"), "2:32: a key has more than 16 parts");
    EXPECT_EQ(errorOf("[" + keyOfParts(1'000'000) + "]\n"), "1:33: a key has more than 16 parts");
    EXPECT_EQ(errorOf("x = { " + keyOfParts(1'000'000) + " = 1 }\n"), "1:38: a key has more than 16 parts");
}

TEST(InventoryErrors, AKeyOfSixteenPartsIsOnlyUnknown) {
    EXPECT_EQ(errorOf(keyOfParts(16) + " = 1\n"), "1:1: unknown key \"a\"");
}

TEST(InventoryErrors, ManyShortKeysAreNoLongOne) {
    std::string text = kHead;
    for (int i = 0; i < 20; ++i) {
        text += "counters.c.i.n" + std::to_string(i) + " = 1\n";
    }
    EXPECT_EQ(errorOf(text), "good");
}

TEST(InventoryErrors, DotsInTextsAndCommentsAreNoPartsOfKeys) {
    const std::string dots(100, '.');
    EXPECT_EQ(errorOf("# it's " + dots + "\n" + kHead + "hostname = \"" + dots + "\\\"" + dots + "\" # \" " + dots +
                      "\ndescription = '''\n'" + dots + "\n'''\n"),
              "good");
}

// The TOML parser's behaviour is undefined for some of these.
TEST(InventoryErrors, LettersBeyondAsciiOutsideQuotesArePointedAt) {
    const std::string message = "only letters, digits and signs of ASCII may stand outside quotes";
    EXPECT_EQ(errorOf("gr\xc3\xb6\xc3\x9f"
                      "e = 1\n"),
              "1:3: " + message);
    EXPECT_EQ(errorOf("# \xd0\x9b\n[host]\n\"\xd0\x9b\" \xd0\x9b = 1\n"), "3:5: " + message);
    EXPECT_EQ(errorOf("\xd0\x9b"), "1:1: " + message);
}

TEST(InventoryErrors, AByteOrderMarkIsNone) {
    EXPECT_EQ(errorOf("\xef\xbb\xbf" + kHead), "good");
}

TEST(InventoryErrors, LettersBeyondAsciiInQuotedKeysAreOnlyUnknown) {
    EXPECT_EQ(errorOf(kHead + "\"\xd0\x9b\" = 1\n"), "3:1: unknown key \"\xd0\x9b\"");
}

TEST(InventoryErrors, AHundredThousandBracketsAreAnError) {
    EXPECT_THAT(errorOf("x = " + std::string(100'000, '[')), testing::StartsWith("1:"));
    EXPECT_THAT(errorOf(std::string(100'000, '[')), testing::StartsWith("1:"));
}

}  // namespace
}  // namespace kx::agent::simulated
