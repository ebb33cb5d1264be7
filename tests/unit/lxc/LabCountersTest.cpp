// Counters of real containers, read by the thread that reads them.
#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>

#include "agent/backends/lxc/CounterThread.h"
#include "agent/backends/lxc/Descriptors.h"
#include "agent/backends/lxc/NetworkSpace.h"
#include "agent/vocabulary/Vocabulary.h"
#include "tests/unit/lxc/LabRig.h"

namespace kx::agent::lxc {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Values = std::vector<std::int64_t>;

constexpr std::chrono::seconds kReadWithin{10};

Eid eidOf(std::uint8_t number) {
    Eid eid;
    eid.bytes.back() = number;
    return eid;
}

/// The process may open no more files as long as this is there.
class FewDescriptors {
public:
    FewDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &before_);
        const rlimit none{1, before_.rlim_max};  // poll(2) wants as many as it is asked about
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    ~FewDescriptors() { ::setrlimit(RLIMIT_NOFILE, &before_); }
    FewDescriptors(const FewDescriptors&) = delete;
    FewDescriptors& operator=(const FewDescriptors&) = delete;

private:
    rlimit before_{};
};

class LabCountersTest : public LabTest {
protected:
    void SetUp() override {
        LabTest::SetUp();
        counters_ = std::make_unique<CounterThread>([this](Severity, const std::string& line) {
            const std::lock_guard lock(logMutex_);
            log_.push_back(line);
        });
    }

    void TearDown() override {
        counters_.reset();
        LabTest::TearDown();
    }

    void run(const std::vector<std::string>& words) { ASSERT_TRUE(host_.run(words)) << words[0] << " " << words[1]; }

    /// @param number becomes the last byte of its identifier
    static CounterTarget target(const std::string& name, std::uint8_t number) {
        const pid_t init = initOf(name);
        return {eidOf(number),
                name,
                number,
                init,
                std::make_shared<const OwnedDescriptor>(openPidfd(init)),
                "/var/lib/lxc/" + name + "/rootfs"};
    }

    CounterTarget started(const std::string& name, std::uint8_t number) {
        make(name);
        run(lab({"start", name}));
        return target(name, number);
    }

    /// An interface that counts nothing: it is down.
    void addExtra(pid_t init) {
        run(ipCommand(init, {"link", "add", "name", "extra", "index", "4242", "type", "bridge"}));
    }

    CounterImage read() {
        auto taken = std::make_shared<std::promise<CounterImage>>();
        auto image = taken->get_future();
        counters_->read([taken](CounterImage fresh) { taken->set_value(std::move(fresh)); });
        if (image.wait_for(kReadWithin) != std::future_status::ready) {
            throw std::runtime_error("no image came");
        }
        return image.get();
    }

    /// @return instance to values of one container
    /// @param unknown gets the names of the counters that are not known in any of its rows
    static std::map<std::string, Values> rowsOf(const CounterImage& image, const std::string& className,
                                                std::uint8_t number, std::vector<std::string>* unknown = nullptr) {
        std::map<std::string, Values> rows;
        for (const CounterTable& table : image.tables) {
            for (const CounterRow& row : table.rows) {
                if (table.className == className && row.eid == eidOf(number)) {
                    EXPECT_TRUE(rows.emplace(row.instance, row.values).second) << "twice: " << row.instance;
                    if (unknown != nullptr) {
                        unknown->insert(unknown->end(), table.unknown.begin(), table.unknown.end());
                    }
                }
            }
        }
        return rows;
    }

    std::map<std::string, Values> network(std::uint8_t number, std::vector<std::string>* unknown = nullptr) {
        return rowsOf(read(), kNetworkClass, number, unknown);
    }
    std::map<std::string, Values> quota(std::uint8_t number, std::vector<std::string>* unknown = nullptr) {
        return rowsOf(read(), kQuotaClass, number, unknown);
    }

    /// @return received bytes and packets, sent bytes and packets, from where the kernel counts them one by one
    static Values kernelsOf(pid_t init, const std::string& interface) {
        std::ifstream list(fmt::format("/proc/{}/net/dev", init));
        for (std::string word; list >> word;) {
            if (word == interface + ":") {
                Values all(10);
                for (std::int64_t& number : all) {
                    list >> number;
                }
                return {all[0], all[1], all[8], all[9]};
            }
        }
        return {};
    }

    /// Packets of the lab's own, neighbours being looked for, may come between two readings.
    void expectTheKernels(std::uint8_t number, const std::string& instance, pid_t init, const std::string& interface) {
        Values read;
        Values kernels;
        EXPECT_TRUE(host_.waitUntil([&] {
            read = network(number)[instance];
            kernels = kernelsOf(init, interface);
            return read == kernels && !kernels.empty();
        })) << ::testing::PrintToString(read)
            << " is read, the kernel has " << ::testing::PrintToString(kernels);
    }

    std::size_t logged(const std::string& part = {}) {
        const std::lock_guard lock(logMutex_);
        return static_cast<std::size_t>(std::count_if(
            log_.begin(), log_.end(), [&](const std::string& line) { return line.find(part) != std::string::npos; }));
    }

    std::mutex logMutex_;
    std::vector<std::string> log_;
    std::unique_ptr<CounterThread> counters_;
};

TEST_F(LabCountersTest, withoutContainersThereAreClassesWithoutRows) {
    const CounterImage image = read();
    ASSERT_THAT(image.tables, SizeIs(2));
    EXPECT_EQ(image.tables[0].className, "counters_kx_net");
    EXPECT_THAT(*image.tables[0].names, ElementsAre("bytes_in", "packets_in", "bytes_out", "packets_out"));
    EXPECT_EQ(image.tables[1].className, "counters_kx_quota");
    EXPECT_THAT(*image.tables[1].names,
                ElementsAre("diskspace_used", "diskspace_softlimit", "diskspace_hardlimit", "diskspace_grace",
                            "inodes_used", "inodes_softlimit", "inodes_hardlimit", "inodes_grace"));
    EXPECT_THAT(image.tables[0].rows, IsEmpty());
    EXPECT_THAT(image.tables[1].rows, IsEmpty());
}

TEST_F(LabCountersTest, anInterfaceIsNamedByItsIndexAndShowsWhatTheKernelCounts) {
    const CounterTarget web = started("web", 7);
    addExtra(web.initPid);
    run({"lxc-attach", "-n", "web", "--", "/bin/ping", "-q", "-c", "3", "-i", "0.05", "-s", "1000", "10.77.0.1"});
    counters_->setTargets({web});
    const auto rows = network(7);
    ASSERT_THAT(rows, SizeIs(2)) << "the loopback is none";
    ASSERT_EQ(rows.count("4242"), 1U);
    const std::string eth0 = rows.begin()->first == "4242" ? rows.rbegin()->first : rows.begin()->first;
    run(ipCommand(web.initPid, {"link", "set", "eth0", "down"}));
    expectTheKernels(7, eth0, web.initPid, "eth0");
    expectTheKernels(7, "4242", web.initPid, "extra");
    EXPECT_GT(network(7)[eth0][0], 3000) << "the answers to its pings";
}

TEST_F(LabCountersTest, interfacesThatComeAndGoAreFollowed) {
    const CounterTarget web = started("web", 7);
    counters_->setTargets({web});
    EXPECT_THAT(network(7), SizeIs(1));
    addExtra(web.initPid);
    EXPECT_THAT(network(7), SizeIs(2));
    run(ipCommand(web.initPid, {"link", "set", "extra", "name", "renamed"}));
    EXPECT_EQ(network(7).count("4242"), 1U) << "its index stays";
    run(ipCommand(web.initPid, {"link", "del", "renamed"}));
    EXPECT_EQ(network(7).count("4242"), 0U);
    run(ipCommand(web.initPid, {"link", "del", "eth0"}));
    EXPECT_EQ(network(7), (std::map<std::string, Values>{{"", {0, 0, 0, 0}}})) << "it runs, so it is in every class";
}

TEST_F(LabCountersTest, aContainerThatHasEndedIsInNoClassWhoeverHasItsNumberNow) {
    const CounterTarget web = started("web", 7);
    CounterTarget late = started("late", 8);
    late.initPid = ::getpid();
    counters_->setTargets({web, late});
    EXPECT_THAT(network(7), SizeIs(1));
    EXPECT_THAT(network(8), SizeIs(1));
    run(lab({"stop", "web"}));
    run(lab({"stop", "late"}));
    for (const CounterTable& table : read().tables) {
        EXPECT_THAT(table.rows, IsEmpty());
    }
    EXPECT_EQ(logged("network"), 0U) << "that it has ended is no problem of its counters";
}

TEST_F(LabCountersTest, aFrozenContainerIsStillRead) {
    const CounterTarget web = started("web", 7);
    run(lab({"freeze", "web"}));
    counters_->setTargets({web});
    EXPECT_THAT(network(7), SizeIs(1));
    EXPECT_THAT(quota(7), SizeIs(1));
}

TEST_F(LabCountersTest, withoutProjectQuotasUsageIsNotKnownAndItIsLoggedOnce) {
    const std::vector<CounterTarget> both{started("web", 7), started("db", 8)};
    const QuotaReading reading = readDiskQuota(both[0].rootFolder);
    if (reading.quota.spaceUsed) {
        GTEST_SKIP() << "this file system has project quotas";
    }
    counters_->setTargets(both);
    for (int round = 0; round < 3; ++round) {
        for (const std::uint8_t number : {std::uint8_t{7}, std::uint8_t{8}}) {
            std::vector<std::string> unknown;
            EXPECT_EQ(quota(number, &unknown), (std::map<std::string, Values>{{"", Values(8, 0)}}));
            EXPECT_THAT(unknown, ElementsAre("diskspace_used", "inodes_used")) << "there are no limits";
        }
    }
    ASSERT_EQ(logged(), 1U);
    EXPECT_NE(log_[0].find(reading.problem), std::string::npos) << log_[0];
}

TEST_F(LabCountersTest, ofARootThatCannotBeReachedNothingIsKnown) {
    CounterTarget web = started("web", 7);
    web.rootFolder.clear();
    counters_->setTargets({web});
    std::vector<std::string> unknown;
    EXPECT_EQ(quota(7, &unknown), (std::map<std::string, Values>{{"", Values(8, 0)}}));
    EXPECT_THAT(unknown, SizeIs(8));
    EXPECT_EQ(logged(), 0U);
}

TEST_F(LabCountersTest, aContainerThatIsAFileSystemByItselfUsesWhatThatUses) {
    make("web");
    const std::string root = "/var/lib/lxc/web/rootfs";
    run({"sh", "-c",
         "cp -a " + root + " /var/lib/lxc/.copy && mount -t tmpfs tmpfs " + root +
             " && cp -a "
             "/var/lib/lxc/.copy/. " +
             root});
    run(lab({"start", "web"}));
    counters_->setTargets({target("web", 7)});
    std::vector<std::string> unknown;
    const Values seenFromHere = quota(7, &unknown)[""];
    EXPECT_THAT(unknown, IsEmpty());
    EXPECT_GT(seenFromHere[0], 500'000) << "a busybox";
    EXPECT_GT(seenFromHere[4], 10);
    // As with a volume or an image, which only the container has mounted.
    CounterTarget fromInside = target("web", 7);
    fromInside.rootFolder.clear();
    counters_->setTargets({fromInside});
    EXPECT_EQ(quota(7)[""], seenFromHere);
    run(lab({"stop", "web"}));
    run({"umount", root});
}

TEST_F(LabCountersTest, aContainerInTheHostsNetworkDoesNotShowTheHostsCounters) {
    make("web");
    run({"sed", "-i", "-e", "/^lxc[.]net[.]/d", "-e", "$a lxc.net.0.type = none", "/var/lib/lxc/web/config"});
    run(lab({"start", "web"}));
    counters_->setTargets({target("web", 7)});
    std::vector<std::string> unknown;
    EXPECT_EQ(network(7, &unknown), (std::map<std::string, Values>{{"", {0, 0, 0, 0}}}));
    EXPECT_THAT(unknown, ElementsAre("bytes_in", "packets_in", "bytes_out", "packets_out"));
    EXPECT_EQ(logged("network"), 0U);
}

TEST_F(LabCountersTest, countersThatCannotBeReadStayAsTheyWereAndAreLoggedOnce) {
    const CounterTarget web = started("web", 7);
    counters_->setTargets({web});
    run({"lxc-attach", "-n", "web", "--", "/bin/ping", "-q", "-c", "1", "10.77.0.1"});
    run(ipCommand(web.initPid, {"link", "set", "eth0", "down"}));
    const auto before = network(7);
    ASSERT_THAT(before, SizeIs(1));
    ASSERT_GT(before.begin()->second[0], 0);
    {
        const FewDescriptors few;
        for (int round = 0; round < 2; ++round) {
            std::vector<std::string> unknown;
            EXPECT_EQ(network(7, &unknown), before);
            EXPECT_THAT(unknown, SizeIs(4));
        }
        EXPECT_EQ(logged("network"), 1U);
    }
    std::vector<std::string> unknown;
    EXPECT_EQ(network(7, &unknown), before);
    EXPECT_THAT(unknown, IsEmpty());
}

TEST_F(LabCountersTest, interfacesBeyondTheLimitAreLeftOutAndLoggedOnce) {
    const CounterTarget web = started("web", 7);
    std::string lines;
    for (std::size_t i = 0; i < kMaxInterfaces; ++i) {
        lines += fmt::format("link add name extra{} type bridge\n", i);
    }
    writeFile("/var/lib/lxc/.batch", lines);
    Command batch(ipCommand(web.initPid, {"-batch", "/var/lib/lxc/.batch"}));
    ASSERT_TRUE(host_.waitUntil([&] { return batch.ended(); }, std::chrono::seconds(60)));
    if (batch.status() != 0) {
        GTEST_SKIP() << "this kernel has no such interfaces";
    }
    counters_->setTargets({web});
    EXPECT_THAT(network(7), SizeIs(kMaxInterfaces));
    EXPECT_THAT(network(7), SizeIs(kMaxInterfaces));
    EXPECT_EQ(logged("interfaces"), 1U);
}

TEST_F(LabCountersTest, theReaderComesHomeFromEveryContainer) {
    counters_->setTargets({started("web", 7), started("db", 8)});
    read();
    const NetworkSpaceId home = networkSpaceOf(::getpid());
    for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
        EXPECT_EQ(networkSpaceOf(std::stoi(thread.path().filename())), home) << thread.path();
    }
}

TEST_F(LabCountersTest, whoeverAsksIsAnsweredAlsoWhileContainersChange) {
    const CounterTarget web = started("web", 7);
    std::atomic<int> answers{0};
    constexpr int kAsked = 200;
    for (int i = 0; i < kAsked; ++i) {
        counters_->setTargets(i % 2 == 0 ? std::vector{web} : std::vector<CounterTarget>{});
        counters_->read([&answers](const CounterImage& image) {
            EXPECT_THAT(image.tables, SizeIs(::testing::Ge(2U)));
            ++answers;
        });
    }
    EXPECT_TRUE(host_.waitUntil([&] { return answers == kAsked; }, kReadWithin)) << answers;
    counters_->read([](const CounterImage&) {});
    counters_.reset();
}

}  // namespace
}  // namespace kx::agent::lxc
