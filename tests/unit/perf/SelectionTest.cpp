// With and without the row selector, random requests get the same answers, whatever the hosts are.
//
// Without it a GET of several variables is not comparable: of rows with one index the iterator then gives some requests
// the last and some none. So its variables are asked for one by one, where it gives the first.
#include <cstdlib>
#include <optional>
#include <random>

#include "mib/OidLayout.h"
#include "mib/RowSelector.h"
#include "tables/VeAppTableData.h"
#include "tables/VeIpTableData.h"
#include "tables/VeNetworkCountersTableData.h"
#include "tables/VeQuotaCountersTableData.h"
#include "tables/VeTable.h"
#include "tests/unit/perf/PublishedTables.h"

namespace kx::test {
namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kUsualRequests = 5'000;
#else
constexpr int kUsualRequests = 50'000;
#endif
constexpr int kRequestsAHost = 25;
constexpr int kEnvironments = 10;
constexpr int kFirstEnvironment = 20;
constexpr unsigned kSeed = 20'240'117;
constexpr oid kLargest = 4294967295;

/// @brief How many requests are made: KX_SELECTION_REQUESTS, otherwise as many as fit into an ordinary test run.
int requestsToMake() {
    const char* const wanted = std::getenv("KX_SELECTION_REQUESTS");
    return wanted == nullptr ? kUsualRequests : std::atoi(wanted);
}

/// @brief Random choices, the same in every run.
class Choices {
public:
    /// @return 0 to count - 1
    unsigned below(unsigned count) { return static_cast<unsigned>(generator_() % count); }
    bool oneIn(unsigned count) { return below(count) == 0; }
    template <typename T>
    const T& of(const std::vector<T>& from) {
        return from[below(static_cast<unsigned>(from.size()))];
    }

private:
    std::mt19937 generator_{kSeed};
};

struct Request {
    int command;
    std::vector<Oid> names;
    int nonRepeaters;
    int repetitions;
};

std::ostream& operator<<(std::ostream& out, const Request& request) {
    out << "command " << request.command << ", " << request.nonRepeaters << " non-repeaters, " << request.repetitions
        << " repetitions:";
    for (const Oid& name : request.names) {
        out << "\n   ";
        for (const oid part : name) {
            out << '.' << part;
        }
    }
    return out;
}

/// Turns the selector off while it exists.
class WithoutSelector {
public:
    WithoutSelector() { kx::mib::rowSelection = false; }
    ~WithoutSelector() { kx::mib::rowSelection = true; }
    WithoutSelector(const WithoutSelector&) = delete;
    WithoutSelector& operator=(const WithoutSelector&) = delete;
};

class RandomRequests : public PublishedTables {
protected:
    /// Other tests have the usual containers only.
    ~RandomRequests() override {
        for (wire::Environment& env : environments_) {
            env.set_type("host");
        }
        agent().change(environments_);
        EXPECT_TRUE(settle());
    }

    // ---- hosts --------------------------------------------------------------------------------------------------

    wire::Environment environment(int number) {
        static const std::vector<std::optional<int>> veids = {
            std::nullopt, 0, -7, 1, 2, 3, 4, 255, 256, 2147483647, std::numeric_limits<int>::min()};
        wire::Environment env = wireEnv(number, choices_.oneIn(8) ? "host" : "lumetra");
        auto& config = *env.mutable_configuration();
        config.set_hostname("host" + std::to_string(choices_.below(1000)));
        if (const auto veid = choices_.of(veids)) {
            config.set_veid(*veid);
        }
        addAddresses(config);
        addTemplates(config);
        return env;
    }

    void addAddresses(wire::Configuration& config) {
        static const std::vector<std::string> addresses = {"10.0.0.1", "10.0.0.2",        "9.255.0.1", "0.0.0.0",
                                                           "10.0.0.1", "255.255.255.255", "none",      "10.0.1.1"};
        for (unsigned left = choices_.below(5); left > 0; --left) {
            auto& address = *config.mutable_addresses()->add_addresses();
            address.set_address(choices_.of(addresses));
            address.set_mask(choices_.of(addresses));
        }
    }

    void addTemplates(wire::Configuration& config) {
        static const std::vector<std::string> names = {"",
                                                       "a",
                                                       "b",
                                                       "aa",
                                                       "ab",
                                                       "nginx",
                                                       std::string(1, '\0'),
                                                       std::string("a\xff"),
                                                       std::string(114, 'x'),
                                                       std::string(115, 'x')};
        for (unsigned left = choices_.below(4); left > 0; --left) {
            auto& application = *config.mutable_templates()->add_templates();
            application.set_name(choices_.of(names));
            application.set_version(std::to_string(choices_.below(100)));
        }
    }

    wire::CounterGroup counters(const std::string& className, const std::vector<std::string>& names,
                                const std::vector<std::string>& instances) {
        std::vector<CounterRow> rows;
        for (const wire::Environment& env : environments_) {
            for (const std::string& instance : instances) {
                if (choices_.oneIn(3)) {
                    rows.push_back(rowOf(env, instance, std::vector<std::int64_t>(names.size(), choices_.below(1000))));
                }
            }
        }
        return groupOf(className, names, rows);
    }

    /// Changes some containers, or what is counted, or both.
    void changeHost() {
        std::vector<wire::Environment> changed;
        for (wire::Environment& env : environments_) {
            if (choices_.oneIn(3)) {
                env = environment(kFirstEnvironment + static_cast<int>(&env - environments_.data()));
                changed.push_back(env);
            }
        }
        agent().change(changed);
        agent().send(
            reportFrame(subscription_, {counters(kQuota, {"q1", "q2", "q3", "q4", "q5", "q6", "q7", "q8"}, {"", "a"}),
                                        counters(kNet, {"bytes_in", "packets_in", "bytes_out", "packets_out"},
                                                 {"1", "2", "10", "eth0", "eth1", "4294967295"})}));
        ASSERT_TRUE(settle());
    }

    // ---- requests -----------------------------------------------------------------------------------------------

    Request request() {
        static const std::vector<int> commands = {SNMP_MSG_GET, SNMP_MSG_GETNEXT, SNMP_MSG_GETBULK};
        Request made{
            choices_.of(commands), {}, static_cast<int>(choices_.below(3)), static_cast<int>(choices_.below(5))};
        for (unsigned left = 1 + choices_.below(6); left > 0; --left) {
            made.names.push_back(name());
        }
        return made;
    }

    /// A name that an answer had, or a part of it, or one near it; or one of the subtree at all.
    Oid name() {
        if (seen_.empty() || choices_.oneIn(10)) {
            return anyName();
        }
        Oid near = choices_.of(seen_);
        switch (choices_.below(6)) {
            case 0:
                near.resize(std::max<std::size_t>(2, near.size() - choices_.below(5)));
                break;
            case 1:
                near.insert(near.end(), 1 + choices_.below(4), oneSubId());
                break;
            case 2: {
                oid& part = near[mibRoot.size() + choices_.below(static_cast<unsigned>(near.size() - mibRoot.size()))];
                part = choices_.oneIn(4) ? oneSubId() : (part + (choices_.oneIn(2) ? 1 : kLargest)) & kLargest;
                break;
            }
            case 3:
                if (choices_.oneIn(10)) {
                    near.resize(MAX_OID_LEN, oneSubId());
                }
                break;
            default:
                break;
        }
        return near;
    }

    Oid anyName() {
        Oid any(mibRoot.begin(), mibRoot.end());
        any.push_back(3 + choices_.below(7));
        for (unsigned left = choices_.below(7); left > 0; --left) {
            any.push_back(choices_.oneIn(2) ? 1 : oneSubId());
        }
        return any;
    }

    oid oneSubId() {
        static const std::vector<oid> some = {0, 1, 2, 3, 4, 5, 9, 10, 101, 255, 2147483647, 2147483648, kLargest};
        return choices_.of(some);
    }

    static std::vector<Answer> ask(const Request& request) {
        switch (request.command) {
            case SNMP_MSG_GET:
                return snmp().get(request.names);
            case SNMP_MSG_GETNEXT:
                return snmp().getNext(request.names);
            default:
                return snmp().getBulk(request.names, request.nonRepeaters, request.repetitions);
        }
    }

    static std::vector<Answer> askWithoutSelector(const Request& request) {
        const WithoutSelector off;
        if (request.command != SNMP_MSG_GET) {
            return ask(request);
        }
        std::vector<Answer> answers;
        for (const Oid& name : request.names) {
            answers.push_back(snmp().get({name}).at(0));
        }
        return answers;
    }

    /// Answers give the names of later requests.
    void remember(const std::vector<Answer>& answers) {
        static constexpr std::size_t maxSeen = 200;
        for (const Answer& answer : answers) {
            if (answer.type == SNMP_ENDOFMIBVIEW || answer.name.size() <= mibRoot.size() ||
                !std::equal(mibRoot.begin(), mibRoot.end(), answer.name.begin())) {
                continue;
            }
            if (seen_.size() < maxSeen) {
                seen_.push_back(answer.name);
            } else {
                seen_[choices_.below(maxSeen)] = answer.name;
            }
            values_ += answer.type < SNMP_NOSUCHOBJECT ? 1 : 0;
        }
    }

    Choices choices_;
    std::vector<wire::Environment> environments_{kEnvironments};
    std::vector<Oid> seen_;
    int values_ = 0;
};

TEST_F(RandomRequests, GetTheSameAnswersWithAndWithoutTheSelector) {
    const int requests = requestsToMake();
    for (int i = 0; i < kEnvironments; ++i) {
        environments_[static_cast<std::size_t>(i)] = environment(kFirstEnvironment + i);
    }
    for (int i = 0; i < requests; ++i) {
        if (i % kRequestsAHost == 0) {
            changeHost();
        }
        const Request made = request();
        const std::vector<Answer> expected = askWithoutSelector(made);
        ASSERT_EQ(ask(made), expected) << "request " << i << " of seed " << kSeed << ": " << made;
        remember(expected);
    }
    EXPECT_GT(values_, requests) << "most requests must find something";
}

// ---- what the iterator is presented with ----------------------------------------------------------------------------

constexpr std::size_t kAllRows = 1000;

/// How many rows were selected for the last request to table T, seen by a handler between selector and iterator.
template <typename T>
class Presented {
public:
    static std::size_t rows;

    static void watch(oid table) {
        Oid name(mibRoot.begin(), mibRoot.end());
        name.push_back(table);
        netsnmp_mib_handler* const handler = netsnmp_create_handler("KxPresented", &note);
        handler->flags |= MIB_HANDLER_AUTO_NEXT;
        netsnmp_inject_handler_before(netsnmp_subtree_find(name.data(), name.size(), nullptr, "")->reginfo, handler,
                                      TABLE_ITERATOR_NAME);
    }

private:
    static int note(netsnmp_mib_handler*, netsnmp_handler_registration*, netsnmp_agent_request_info*,
                    netsnmp_request_info*) {
        const auto& selection = TableHelperHelper<T>::selection;
        rows = selection ? selection->rows.size() : kAllRows;
        return SNMP_ERR_NOERROR;
    }
};
template <typename T>
std::size_t Presented<T>::rows = 0;

class SelectedRows : public PublishedTables {
protected:
    static void SetUpTestSuite() {
        PublishedTables::SetUpTestSuite();
        Presented<VeTable>::watch(4);
        Presented<VeIpAddrTable>::watch(5);
        Presented<VeAppTable>::watch(6);
        Presented<VeQuotaTable>::watch(7);
        Presented<VeNetstatTable>::watch(8);
    }

    /// Three containers with everything.
    SelectedRows() {
        std::vector<wire::CounterGroup> groups = {groupOf(kQuota, {"q1"}, {}), groupOf(kNet, {"bytes_in"}, {})};
        std::vector<CounterRow> quota;
        std::vector<CounterRow> network;
        std::vector<wire::Environment> containers;
        for (int number = 1; number <= 3; ++number) {
            wire::Environment env = renumbered(wireEnv(number), 100 + number);
            env.mutable_configuration()->mutable_addresses()->add_addresses()->set_address("10.0.0.1");
            env.mutable_configuration()->mutable_templates()->add_templates()->set_name("a");
            quota.push_back(rowOf(env, "", {number}));
            network.push_back(rowOf(env, "1", {number}));
            containers.push_back(env);
        }
        agent().change(containers);
        publish({groupOf(kQuota, {"q1"}, quota), groupOf(kNet, {"bytes_in"}, network)});
    }
    ~SelectedRows() override {
        agent().change({kWeb, kStore, kNoNumber});
        EXPECT_TRUE(settle());
    }

    /// The number of rows presented in each table, for requests of these names below the table.
    static std::vector<std::size_t> presented(const std::vector<Oid>& below, bool next) {
        for (oid table = 4; table <= 8; ++table) {
            std::vector<Oid> names;
            for (const Oid& rest : below) {
                Oid& name = names.emplace_back(mibRoot.begin(), mibRoot.end());
                name.push_back(table);
                name.insert(name.end(), rest.begin(), rest.end());
            }
            next ? snmp().getNext(names) : snmp().get(names);
        }
        return {Presented<VeTable>::rows, Presented<VeIpAddrTable>::rows, Presented<VeAppTable>::rows,
                Presented<VeQuotaTable>::rows, Presented<VeNetstatTable>::rows};
    }
};

TEST_F(SelectedRows, AreAtMostOneForEachVariable) {
    EXPECT_THAT(presented({{1, 1}}, true), testing::Each(1U));
    EXPECT_THAT(presented({{1, 1, 101}, {1, 1}, {1, 2, 101}}, true),
                testing::Each(testing::AllOf(testing::Ge(1U), testing::Le(2U))));
    EXPECT_THAT(presented({{1, 1, 101, 10, 0, 0, 2}}, true), testing::Each(1U));
}

TEST_F(SelectedRows, AreNoneForAnInstanceThatDoesNotExist) {
    EXPECT_EQ(presented({{1, 1, 104}}, false)[0], 0U);
    EXPECT_EQ(presented({{1, 1, 104}}, false)[3], 0U);
}

TEST_F(SelectedRows, AreTheSameWhenNewValuesArePushed) {
    const CounterRowsPtr before = SNMPNodeLocal::instance()->getCounterRows(kQuota);
    std::vector<CounterRow> quota;
    for (int number = 1; number <= 3; ++number) {
        quota.push_back(rowOf(wireEnv(number), "", {10 * number}));
    }
    agent().send(reportFrame(subscription_, {groupOf(kQuota, {"q1"}, quota)}));
    ASSERT_TRUE(settle());
    EXPECT_EQ(SNMPNodeLocal::instance()->getCounterRows(kQuota), before);
    quota.pop_back();
    agent().send(reportFrame(subscription_, {groupOf(kQuota, {"q1"}, quota)}));
    ASSERT_TRUE(settle());
    const CounterRowsPtr after = SNMPNodeLocal::instance()->getCounterRows(kQuota);
    ASSERT_TRUE(after);
    EXPECT_THAT(*after, testing::SizeIs(2));
    std::vector<CounterMap> copied;
    EXPECT_FALSE(SNMPNodeLocal::instance()->copyCounters(kQuota, before, {0}, copied)) << "of rows that were";
    EXPECT_TRUE(SNMPNodeLocal::instance()->copyCounters(kQuota, after, {1}, copied));
    EXPECT_EQ(copied.at(0).at("q1").value1.integer, 20);
}

TEST_F(SelectedRows, OfAClassWithoutDataAreQueriedOnceARequest) {
    publish({});
    agent().reset();
    EXPECT_EQ(presented({{1, 1}}, true)[3], 0U);
    EXPECT_THAT(queriesOf(kQuota), testing::SizeIs(1)) << "though the request went on through all columns";
    agent().answerQueriesWith({groupOf(kQuota, {"q1"}, {rowOf(kWeb, "", {5})})});
    EXPECT_EQ(presented({{1, 1}}, true)[3], 1U);
    EXPECT_THAT(queriesOf(kQuota), testing::SizeIs(2));
    EXPECT_EQ(presented({{1, 1}}, true)[3], 1U);
    EXPECT_THAT(queriesOf(kQuota), testing::SizeIs(2));
}

}  // namespace
}  // namespace kx::test
