// What good inventory texts say, odd ones included.
#include "Parsed.h"

namespace kx::agent::simulated {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::string_view kEverything = R"(
[[environment]]
name = "web"
type = "lumetra"
veid = 101
eid = "0f8e5c1a-7a44-4c3b-9d1e-000000000101"
hostname = "web.example"
description = "front end"
os_template = { name = "debian", version = "12" }
base_sample = "0f8e5c1a-7a44-4c3b-9d1e-0000000000aa"
state = 2
transition = 4
addresses = [ { address = "10.0.0.1", mask = "255.255.255.0" }, { address = "::1", mask = "not a mask" } ]
inet6_addresses = [ { address = "2001:db8::1", prefix_length = 64 }, { address = "fd00::1" } ]
templates = [ { name = "nginx", version = "1.24" } ]
[environment.counters.counters_kx_net."1"]
bytes_in = 1000
bytes_out = "unknown"
packets_in = { value = 20, per_second = 5 }
[environment.counters.counters_kx_net."eth 0.1"]
[environment.counters.odd]
)";

TEST(InventoryParser, ReadsEveryKeyOfAnEnvironment) {
    Environment expected;
    expected.type = "lumetra";
    expected.state = 2;
    expected.transition = 4;
    expected.name = "web";
    expected.veid = 101;
    expected.hostname = "web.example";
    expected.description = "front end";
    expected.osTemplate = Template{"debian", "12"};
    expected.baseSample = Eid::parse("0f8e5c1a-7a44-4c3b-9d1e-0000000000aa");
    expected.addresses = std::vector{Address{"10.0.0.1", "255.255.255.0"}, Address{"::1", "not a mask"}};
    expected.inet6Addresses = std::vector{Inet6Address{"2001:db8::1", 64}, Inet6Address{"fd00::1", 128}};
    expected.templates = std::vector{Template{"nginx", "1.24"}};
    EXPECT_EQ(onlyEnvironment(kEverything), expected);
    EXPECT_EQ(parsed(kEverything).environments.at(0).eid, Eid::parse("0f8e5c1a-7a44-4c3b-9d1e-000000000101"));
}

TEST(InventoryParser, KeepsTheCountersByClassAndInstance) {
    const Counters expected{
        {"counters_kx_net",
         {{"1", {{"bytes_in", {1000, 0}}, {"bytes_out", {0, 0, false}}, {"packets_in", {20, 5}}}}, {"eth 0.1", {}}}},
        {"odd", {}}};
    EXPECT_EQ(parsed(kEverything).environments.at(0).counters, expected);
}

TEST(InventoryParser, LeavesAbsentWhatTheFileDoesNotSay) {
    Environment expected;
    expected.name = "bare";
    const auto file = parsed("[[environment]]\nname = 'bare'\n");
    ASSERT_EQ(file.environments.size(), 1U);
    EXPECT_EQ(file.environments[0].environment, expected);
    EXPECT_EQ(file.environments[0].eid, std::nullopt);
    EXPECT_THAT(file.environments[0].counters, IsEmpty());
    EXPECT_EQ(expected.type, "lumetra");
}

TEST(InventoryParser, TellsAnEmptyListFromAnAbsentOne) {
    const auto environment = onlyEnvironment("[[environment]]\nname = 'x'\naddresses = []\ntemplates = []\n");
    EXPECT_EQ(environment.addresses, std::vector<Address>{});
    EXPECT_EQ(environment.templates, std::vector<Template>{});
}

TEST(InventoryParser, AnEmptyFileDescribesAHostWithoutContainers) {
    const auto file = parsed("");
    EXPECT_THAT(file.environments, IsEmpty());
    EXPECT_THAT(file.categories, IsEmpty());
    EXPECT_EQ(file.productVersion, std::nullopt);
    EXPECT_EQ(file.generate, 0U);
}

TEST(InventoryParser, KeepsTheOrderOfTheFile) {
    const auto file = parsed("environment = [ { name = 'z' }, { name = 'a' }, { name = 'm' } ]");
    ASSERT_EQ(file.environments.size(), 3U);
    EXPECT_EQ(file.environments[0].environment.name, "z");
    EXPECT_EQ(file.environments[1].environment.name, "a");
    EXPECT_EQ(file.environments[2].environment.name, "m");
}

// ---- texts ----

struct OddText {
    std::string_view toml;
    std::string bytes;
};

class InventoryTexts : public testing::TestWithParam<OddText> {};

TEST_P(InventoryTexts, AreKeptByteForByteInEveryField) {
    const std::string text(GetParam().toml);
    const std::string& bytes = GetParam().bytes;
    const auto environment = onlyEnvironment(
        "[[environment]]\nname = " + text + "\ntype = " + text + "\nhostname = " + text + "\ndescription = " + text +
        "\nos_template = { name = " + text + ", version = " + text + " }\naddresses = [ { address = " + text +
        ", mask = " + text + " } ]\ntemplates = [ { name = " + text + ", version = " + text + " } ]\n");
    EXPECT_EQ(environment.name, bytes);
    EXPECT_EQ(environment.type, bytes);
    EXPECT_EQ(environment.hostname, bytes);
    EXPECT_EQ(environment.description, bytes);
    EXPECT_EQ(environment.osTemplate, (Template{bytes, bytes}));
    EXPECT_EQ(environment.addresses, (std::vector{Address{bytes, bytes}}));
    EXPECT_EQ(environment.templates, (std::vector{Template{bytes, bytes}}));
}

INSTANTIATE_TEST_SUITE_P(Odd, InventoryTexts,
                         testing::Values(OddText{R"("")", ""},                                               //
                                         OddText{R"("\u0000")", std::string(1, '\0')},                       //
                                         OddText{R"("seen\u0000unseen")", std::string("seen\0unseen", 11)},  //
                                         OddText{R"("with \"double\" and 'single'")", "with \"double\" and 'single'"},
                                         OddText{R"('a \ and a "')", "a \\ and a \""},  //
                                         OddText{R"("b\u00fcro b\U0001f4e6x")", "b\xc3\xbcro b\xf0\x9f\x93\xa6x"},
                                         OddText{"\"b\xc3\xbcro\"", "b\xc3\xbcro"},                   //
                                         OddText{R"("a\nb\r\tc\u0001\u007f")", "a\nb\r\tc\x01\x7f"},  //
                                         OddText{R"("  blanks  ")", "  blanks  "},                    //
                                         OddText{R"("# = [ . { ")", "# = [ . { "},                    //
                                         OddText{R"("1.2.3.4.5.6.7.8.9.10.11.12.13.14.15.16.17.18")",
                                                 "1.2.3.4.5.6.7.8.9.10.11.12.13.14.15.16.17.18"}));

TEST(InventoryParser, KeepsATextOfFourThousandBytes) {
    const std::string text(4000, 'd');
    EXPECT_EQ(onlyEnvironment("[[environment]]\nname = 'x'\ndescription = '" + text + "'\n").description, text);
}

TEST(InventoryParser, KeepsATextOfSeveralLines) {
    const auto environment = onlyEnvironment(R"([[environment]]
name = """one "quoted" line
a.a.a.a.a.a.a.a.a.a.a.a.a.a.a.a.a.a.a.a"""""
description = '''it's # no comment''')");
    EXPECT_EQ(environment.name, "one \"quoted\" line\na.a.a.a.a.a.a.a.a.a.a.a.a.a.a.a.a.a.a.a\"\"");
    EXPECT_EQ(environment.description, "it's # no comment");
}

TEST(InventoryParser, JoinsLinesThatAreContinued) {
    const auto environment = onlyEnvironment("[[environment]]\nname = \"\"\"one \\\n   \xd0\x9b\"\"\"\n");
    EXPECT_EQ(environment.name, "one \xd0\x9b");
}

// ---- numbers ----

TEST(InventoryParser, TakesTheWholeRangeOf32BitNumbers) {
    const auto smallest = onlyEnvironment(
        "[[environment]]\nname = 'x'\nveid = -2147483648\nstate = -2147483648\ntransition = -2147483648\n");
    EXPECT_EQ(smallest.veid, -2147483648);
    EXPECT_EQ(smallest.state, -2147483648);
    EXPECT_EQ(smallest.transition, -2147483648);
    const auto largest = onlyEnvironment(
        "[[environment]]\nname = 'x'\nveid = 2147483647\nstate = 2147483647\ntransition = 2147483647\n");
    EXPECT_EQ(largest.veid, 2147483647);
    EXPECT_EQ(largest.state, 2147483647);
    EXPECT_EQ(largest.transition, 2147483647);
}

TEST(InventoryParser, TakesTheSameVeIdAndNameTwice) {
    const auto file = parsed("environment = [ { name = 'a', veid = -1 }, { name = 'a', veid = -1 } ]");
    ASSERT_EQ(file.environments.size(), 2U);
    EXPECT_EQ(file.environments[1].environment.veid, -1);
}

// ---- host and vocabulary ----

TEST(InventoryParser, ReadsTheHost) {
    const auto file = parsed("[host]\nproduct_version = ' 7.0.1-42\\'\ngenerate = 12\n");
    EXPECT_EQ(file.productVersion, " 7.0.1-42\\");
    EXPECT_EQ(file.generate, 12U);
}

TEST(InventoryParser, ReadsCategoriesWithOddParameters) {
    const auto file = parsed(
        "[vocabulary.some]\nparameters = [ { id = 'b', counter_type = -7 }, { id = 'a' }, { value = 'v' }, {} ]\n"
        "[vocabulary.none]\nparameters = []\n");
    const Category none{"none", {}};
    const Category some{"some",
                        {{"b", std::nullopt, {{"counter_type", -7}}},
                         {"a", std::nullopt, {}},
                         {std::nullopt, "v", {}},
                         {std::nullopt, std::nullopt, {}}}};
    EXPECT_THAT(file.categories, ElementsAre(none, some));
}

}  // namespace
}  // namespace kx::agent::simulated
