// The watch itself, on network namespaces without containers.
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "agent/backends/lxc/AddressDump.h"
#include "agent/backends/lxc/AddressWatch.h"
#include "agent/backends/lxc/Descriptors.h"
#include "tests/unit/lxc/LabRig.h"

namespace kx::agent::lxc {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Addresses = std::vector<Address>;
using std::chrono::milliseconds;

constexpr milliseconds kPatience{20'000};

/// Waits for a condition that other processes bring about.
bool comesTrue(const std::function<bool()>& condition, milliseconds limit = kPatience) {
    const auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        ::usleep(1000);
    }
    return true;
}

void run(const std::vector<std::string>& words) {
    Command command(words);
    ASSERT_TRUE(comesTrue([&] { return command.ended(); })) << words[0];
    ASSERT_EQ(command.status(), 0) << words[0] << " " << words[1];
}

/// A process with a network namespace of its own.
class Dweller {
public:
    /// @param command what it is, once it is in there
    explicit Dweller(const std::vector<std::string>& command = {"sleep", "1000"}) : process_(unshared(command)) {
        const NetworkSpaceId ours = networkSpaceOf(::getpid());
        EXPECT_TRUE(comesTrue([&] {
            const NetworkSpaceId its = networkSpaceOf(pid());
            return its.inode != 0 && its != ours;
        }));
        pidfd_ = std::make_shared<const OwnedDescriptor>(openPidfd(pid()));
    }

    pid_t pid() const { return process_.pid(); }
    const std::shared_ptr<const OwnedDescriptor>& pidfd() const { return pidfd_; }

    void ip(const std::vector<std::string>& words) const { run(ipCommand(pid(), words)); }

    void batch(const std::string& lines) const {
        const test::TemporaryFolder folder;
        folder.write("lines", lines);
        ip({"-batch", folder / "lines"});
    }

    void end() {
        ::kill(pid(), SIGKILL);
        EXPECT_TRUE(comesTrue([&] { return process_.ended(); }));
    }

private:
    static std::vector<std::string> unshared(const std::vector<std::string>& command) {
        std::vector<std::string> words{"unshare", "--net", "--"};
        words.insert(words.end(), command.begin(), command.end());
        return words;
    }

    Command process_;
    std::shared_ptr<const OwnedDescriptor> pidfd_;
};

class LabAddressWatchTest : public ::testing::Test {
protected:
    void begin() { watch_ = std::make_unique<AddressWatch>(); }

    void watch(std::uint64_t life, const Dweller& dweller) { watch_->watch(life, dweller.pid(), dweller.pidfd()); }

    /// Waits until a container's last report fulfils a condition.
    bool seen(std::uint64_t life, const std::function<bool(const AddressReport&)>& condition,
              milliseconds limit = kNoticed) {
        return comesTrue(
            [&] {
                take();
                const auto last = last_.find(life);
                return last != last_.end() && condition(last->second);
            },
            limit);
    }

    bool has(std::uint64_t life, const Addresses& addresses) {
        return seen(life, [&](const AddressReport& last) { return last.addresses == addresses; });
    }

    void take() {
        pollfd query{watch_->descriptor(), POLLIN, 0};
        if (::poll(&query, 1, 0) == 0) {
            return;
        }
        for (AddressReport& report : watch_->takeReports()) {
            ++counts_[report.life];
            last_[report.life] = std::move(report);
        }
    }

    std::unique_ptr<AddressWatch> watch_;
    std::map<std::uint64_t, AddressReport> last_;
    std::map<std::uint64_t, int> counts_;
};

TEST_F(LabAddressWatchTest, tellsTheListAtOnceAndEveryChangeOfItOnce) {
    const Dweller dweller;
    dweller.ip({"link", "set", "lo", "up"});
    begin();
    watch(1, dweller);
    ASSERT_TRUE(has(1, {})) << "127.0.0.1 is nobody's";
    dweller.ip({"addr", "add", "10.0.0.1/24", "dev", "lo"});
    ASSERT_TRUE(has(1, {{"10.0.0.1", "255.255.255.0"}}));
    // A notice of something that is not published.
    dweller.ip({"addr", "add", "10.5.0.1/24", "dev", "lo", "scope", "host"});
    dweller.ip({"addr", "add", "10.0.1.1/25", "dev", "lo"});
    ASSERT_TRUE(has(1, {{"10.0.0.1", "255.255.255.0"}, {"10.0.1.1", "255.255.255.128"}}));
    EXPECT_EQ(counts_[1], 3);
}

std::set<std::string> threads() {
    std::set<std::string> result;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        result.insert(entry.path());
    }
    return result;
}

/// @return how often a thread has gone to sleep
std::string sleepsOf(const std::string& thread) {
    std::ifstream status(thread + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0) {
            return line;
        }
    }
    return {};
}

TEST_F(LabAddressWatchTest, doesNothingWhileNothingChanges) {
    const Dweller dweller;
    const std::set<std::string> others = threads();
    begin();
    std::string its;
    for (const std::string& thread : threads()) {
        its = others.count(thread) == 0 ? thread : its;
    }
    watch(1, dweller);
    ASSERT_TRUE(has(1, {}));
    dweller.ip({"addr", "add", "10.0.0.1/24", "dev", "lo"});
    ASSERT_TRUE(has(1, {{"10.0.0.1", "255.255.255.0"}}));
    ASSERT_NE(sleepsOf(its), "");
    const auto quiet = LookPacer::kPace + LookPacer::kGrid + kNoticed;
    std::string before;
    Clock::time_point since;
    EXPECT_TRUE(comesTrue(
        [&] {
            const std::string now = sleepsOf(its);
            since = now == before ? since : Clock::now();
            before = now;
            return Clock::now() - since >= quiet;
        },
        kNoticed * 5))
        << "it wakes up again and again";
}

TEST_F(LabAddressWatchTest, forgetsWhoItIsToldToForget) {
    const Dweller one;
    const Dweller other;
    begin();
    watch(1, one);
    watch(2, other);
    ASSERT_TRUE(has(1, {}) && has(2, {}));
    watch_->forget(1);
    one.ip({"addr", "add", "10.0.0.1/24", "dev", "lo"});
    other.ip({"addr", "add", "10.0.0.2/24", "dev", "lo"});
    ASSERT_TRUE(has(2, {{"10.0.0.2", "255.255.255.0"}}));
    EXPECT_EQ(counts_[1], 1);
}

class LabNamespaceEndTest : public LabAddressWatchTest {
protected:
    /// Puts one end of a pair of interfaces into a namespace: the other is gone when the namespace is.
    static void attach(const Dweller& dweller) {
        run({"ip", "link", "add", "kxouter", "type", "veth", "peer", "name", "kxinner"});
        run({"ip", "link", "set", "kxinner", "netns", std::to_string(dweller.pid())});
    }

    static bool isGone(milliseconds limit = kNoticed * 3) {
        return comesTrue([] { return !std::filesystem::exists("/sys/class/net/kxouter"); }, limit);
    }

    void TearDown() override {
        watch_.reset();
        EXPECT_TRUE(isGone());
    }
};

TEST_F(LabNamespaceEndTest, aNamespaceEndsWithItsProcessThoughNobodyTellsTheWatch) {
    Dweller dweller;
    attach(dweller);
    begin();
    watch(1, dweller);
    ASSERT_TRUE(has(1, {}));
    dweller.end();
    EXPECT_TRUE(isGone());
}

TEST_F(LabNamespaceEndTest, aNamespaceThatWasForgottenMayEnd) {
    Dweller dweller;
    attach(dweller);
    begin();
    watch(1, dweller);
    ASSERT_TRUE(has(1, {}));
    watch_->forget(1);
    // Its end cannot tell the watch any more.
    dweller.end();
    EXPECT_TRUE(isGone());
}

TEST_F(LabNamespaceEndTest, aNamespaceThatIsLeftMayEnd) {
    const test::TemporaryFolder folder;
    const std::string go = folder / "go";
    Dweller dweller({"sh", "-c", "until [ -e " + go + " ]; do sleep 0.01; done; exec unshare -n sleep 1000"});
    attach(dweller);
    begin();
    watch(1, dweller);
    dweller.ip({"addr", "add", "10.0.0.1/24", "dev", "kxinner"});
    ASSERT_TRUE(has(1, {{"10.0.0.1", "255.255.255.0"}}));
    const NetworkSpaceId before = networkSpaceOf(dweller.pid());
    folder.write("go", "");
    ASSERT_TRUE(comesTrue([&] { return networkSpaceOf(dweller.pid()) != before; }));
    watch_->compare();
    EXPECT_TRUE(has(1, {}));
    EXPECT_TRUE(isGone());
    dweller.ip({"addr", "add", "10.0.0.2/24", "dev", "lo"});
    EXPECT_TRUE(has(1, {{"10.0.0.2", "255.255.255.0"}}));
}

TEST_F(LabAddressWatchTest, aNumberThatIsAnotherProcesssByNowIsNotFollowed) {
    Dweller ended;
    const Dweller other;
    ended.end();
    begin();
    watch_->watch(1, other.pid(), ended.pidfd());
    watch(2, other);
    ASSERT_TRUE(has(2, {}));
    take();
    EXPECT_EQ(counts_[1], 0);
}

/// What the process's descriptors are, as the kernel names it.
std::set<std::string> openFiles() {
    std::set<std::string> result;
    std::error_code closed;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        result.insert(std::filesystem::read_symlink(entry.path(), closed).string());
    }
    return result;
}

TEST_F(LabAddressWatchTest, aComparisonThatFindsNothingTouchesNothing) {
    const Dweller dweller;
    const Dweller other;
    begin();
    watch(1, dweller);
    ASSERT_TRUE(has(1, {}));
    const std::set<std::string> before = openFiles();
    watch_->compare();
    watch(2, other);
    ASSERT_TRUE(has(2, {}));
    EXPECT_THAT(openFiles(), ::testing::IsSupersetOf(before));
}

TEST_F(LabAddressWatchTest, takesSoManyAddressesAndNoMore) {
    const Dweller dweller;
    std::string lines;
    for (std::size_t i = 0; i <= kMaxAddresses; ++i) {
        lines += fmt::format("addr add 10.0.{}.{}/32 dev lo\n", i / 250, i % 250 + 1);
    }
    dweller.batch(lines);
    begin();
    watch(1, dweller);
    ASSERT_TRUE(seen(1, [](const AddressReport& last) { return last.cut; }));
    EXPECT_EQ(last_[1].addresses->size(), kMaxAddresses);
    EXPECT_EQ(last_[1].addresses->front().address, "10.0.0.1");
    dweller.ip({"addr", "del", "10.0.0.1/32", "dev", "lo"});
    ASSERT_TRUE(seen(1, [](const AddressReport& last) { return !last.cut; }));
    EXPECT_EQ(last_[1].addresses->size(), kMaxAddresses);
}

TEST_F(LabAddressWatchTest, oneThatChangesAllTheTimeDoesNotKeepAnotherFromBeingSeen) {
    const test::TemporaryFolder folder;
    std::string lines = "link set lo up\n";
    for (int i = 0; i < 1000; ++i) {
        lines += fmt::format(
            "addr add 10.9.9.{0}/32 dev lo\naddr add 10.9.8.{0}/32 dev lo\n"
            "addr del 10.9.9.{0}/32 dev lo\naddr del 10.9.8.{0}/32 dev lo\n",
            i % 250 + 1);
    }
    folder.write("changes", lines);
    const Dweller restless({"sh", "-c", "while :; do ip -batch " + (folder / "changes") + "; done"});
    const Dweller quiet;
    begin();
    const auto restlessSince = Clock::now();
    watch(1, restless);
    // What is quickly taken of it has been taken.
    ASSERT_TRUE(seen(
        1, [&](const AddressReport&) { return counts_[1] >= LookPacer::kSoonLooks / 2; }, kPatience));
    ASSERT_TRUE(seen(
        1, [](const AddressReport& last) { return !last.addresses->empty(); }, kPatience));
    watch(2, quiet);
    ASSERT_TRUE(has(2, {}));
    for (int round = 0; round < 3; ++round) {
        quiet.ip({"addr", "add", "10.0.0.1/24", "dev", "lo"});
        ASSERT_TRUE(has(2, {{"10.0.0.1", "255.255.255.0"}}));
        quiet.ip({"addr", "del", "10.0.0.1/24", "dev", "lo"});
        ASSERT_TRUE(has(2, {}));
    }
    const int before = counts_[1];
    ASSERT_TRUE(seen(
        1, [&](const AddressReport&) { return counts_[1] >= before + 3; }, kPatience))
        << "it is not forgotten";
    EXPECT_LE(counts_[1], LookPacer::kSoonLooks + (Clock::now() - restlessSince) / LookPacer::kPace + 2);
}

TEST_F(LabAddressWatchTest, aNamespaceThatMayNotBeEnteredIsReportedOnceAndTriedAgain) {
    const Dweller dweller;
    {
        const WithoutCapability lost(kEnterNamespaces);
        begin();
    }
    watch(1, dweller);
    ASSERT_TRUE(seen(1, [](const AddressReport& last) { return !last.addresses; }));
    EXPECT_THAT(last_[1].problem, HasSubstr("cannot be entered: Operation not permitted"));
    for (std::uint64_t life = 2; life < 5; ++life) {
        watch_->compare();
        watch(life, dweller);
        ASSERT_TRUE(seen(life, [](const AddressReport& last) { return !last.addresses; }));
    }
    EXPECT_EQ(counts_[1], 1);
}

/// Lets the process have no more descriptors than it has now.
class NoMoreDescriptors {
public:
    NoMoreDescriptors() {
        ::getrlimit(RLIMIT_NOFILE, &former_);
        const int next = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        rlimit tight = former_;
        tight.rlim_cur = static_cast<rlim_t>(next);
        ::close(next);
        ::setrlimit(RLIMIT_NOFILE, &tight);
    }
    ~NoMoreDescriptors() { ::setrlimit(RLIMIT_NOFILE, &former_); }
    NoMoreDescriptors(const NoMoreDescriptors&) = delete;
    NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

private:
    rlimit former_{};
};

TEST_F(LabAddressWatchTest, aLackOfDescriptorsIsToldFromOtherTroubleAndOvercome) {
    const Dweller dweller;
    dweller.ip({"addr", "add", "10.0.0.1/24", "dev", "lo"});
    begin();
    watch(2, dweller);
    ASSERT_TRUE(has(2, {{"10.0.0.1", "255.255.255.0"}}));
    {
        const NoMoreDescriptors lack;
        watch(1, dweller);
        dweller.ip({"addr", "add", "10.0.0.2/24", "dev", "lo"});
        for (const std::uint64_t life : {1U, 2U}) {
            ASSERT_TRUE(seen(life, [](const AddressReport& last) { return last.noDescriptors; })) << life;
            EXPECT_EQ(last_[life].addresses, std::nullopt);
        }
    }
    watch_->compare();
    for (const std::uint64_t life : {1U, 2U}) {
        EXPECT_TRUE(has(life, {{"10.0.0.1", "255.255.255.0"}, {"10.0.0.2", "255.255.255.0"}})) << life;
        EXPECT_FALSE(last_[life].noDescriptors);
    }
}

}  // namespace
}  // namespace kx::agent::lxc
