#include "agent/backends/lxc/NetlinkDump.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "tests/unit/lxc/NetlinkBytes.h"

namespace kx::agent::lxc {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr std::uint16_t kType = 99;

/// Keeps the payloads.
class Payloads : public DumpReader {
public:
    void begin() override { payloads_.clear(); }
    bool take(const nlmsghdr& message) override {
        const auto* payload = reinterpret_cast<const char*>(&message + 1);
        payloads_.emplace_back(payload, message.nlmsg_len - sizeof message);
        return payloads_.back() != "odd";
    }
    bool isFull() const override { return payloads_.size() == 3; }

    const std::vector<std::string>& all() const { return payloads_; }

private:
    std::vector<std::string> payloads_;
};

class NetlinkDumpTest : public ::testing::Test {
protected:
    DumpAnswer answer(const std::vector<std::string>& datagrams) { return answerOf(datagrams, payloads_); }

    void expectFailure(const std::string& datagram, const char* why) {
        const DumpAnswer failed = answer({datagram});
        EXPECT_EQ(failed.state, DumpState::Failed) << why;
        EXPECT_THAT(failed.problem, HasSubstr("cannot be understood")) << why;
    }

    Payloads payloads_;
};

TEST_F(NetlinkDumpTest, ReadsAnAnswerInOneDatagram) {
    const DumpAnswer whole = answer({message(kType, "one") + message(kType, "two") + done()});
    EXPECT_EQ(whole.state, DumpState::Complete);
    EXPECT_FALSE(whole.interrupted);
    EXPECT_THAT(payloads_.all(), ElementsAre("one", "two"));
}

TEST_F(NetlinkDumpTest, ReadsAnAnswerInManyDatagramsAndNothingBehindItsEnd) {
    DumpAnswer growing = answer({message(kType, "one"), message(kType, "two")});
    EXPECT_EQ(growing.state, DumpState::Unfinished);
    take(growing, done() + message(kType, "three"), payloads_);
    take(growing, message(kType, "four"), payloads_);
    EXPECT_EQ(growing.state, DumpState::Complete);
    EXPECT_THAT(payloads_.all(), ElementsAre("one", "two"));
}

TEST_F(NetlinkDumpTest, TakesNothingThatAFullReaderDoesNotWant) {
    answer({message(kType, "1") + message(kType, "2") + message(kType, "3") + message(kType, "odd")});
    EXPECT_THAT(payloads_.all(), ElementsAre("1", "2", "3"));
}

TEST_F(NetlinkDumpTest, AnEmptyListIsAnAnswer) {
    EXPECT_EQ(answer({done()}).state, DumpState::Complete);
    EXPECT_EQ(answer({message(NLMSG_DONE, "")}).state, DumpState::Complete) << "an older kernel's end";
    EXPECT_THAT(payloads_.all(), IsEmpty());
}

TEST_F(NetlinkDumpTest, PassesOverMessagesOfOtherRequestsAndOfNetlinkItself) {
    const DumpAnswer mixed = answer({message(kType, "foreign", NLM_F_MULTI, kDumpNumber + 1) +
                                     message(NLMSG_DONE, bytesOf(0), NLM_F_MULTI, 0) + message(NLMSG_NOOP, "") +
                                     message(NLMSG_ERROR, bytesOf(0)) + message(kType, "ours") + done()});
    EXPECT_EQ(mixed.state, DumpState::Complete);
    EXPECT_THAT(payloads_.all(), ElementsAre("ours"));
}

TEST_F(NetlinkDumpTest, EveryPrefixOfAnAnswerIsUnfinishedOrCannotBeUnderstood) {
    const std::string whole = message(kType, "one") + message(kType, "two") + done();
    for (std::size_t length = 0; length < whole.size(); ++length) {
        EXPECT_NE(answer({whole.substr(0, length)}).state, DumpState::Complete) << length << " bytes";
    }
}

TEST_F(NetlinkDumpTest, WrongLengthsFailTheAnswer) {
    std::string tooShort = message(kType, "one");
    const std::uint32_t fifteen = 15;
    std::memcpy(tooShort.data(), &fifteen, sizeof fifteen);
    expectFailure(tooShort, "a message shorter than its head");
    std::string tooLong = message(kType, "one!");
    const auto more = static_cast<std::uint32_t>(tooLong.size() + 1);
    std::memcpy(tooLong.data(), &more, sizeof more);
    expectFailure(tooLong, "a message longer than the datagram");
    expectFailure(std::string(4, '\0'), "less than a head");
    expectFailure(message(kType, "odd"), "what the reader does not understand");
}

TEST_F(NetlinkDumpTest, AnErrorIsTheKernelsWordForIt) {
    const DumpAnswer refused = answer({message(NLMSG_ERROR, bytesOf(-EPERM) + std::string(16, '\0'))});
    EXPECT_EQ(refused.state, DumpState::Failed);
    EXPECT_THAT(refused.problem, HasSubstr("Operation not permitted"));
    const DumpAnswer atItsEnd = answer({message(kType, "one") + done(-ENOMEM)});
    EXPECT_EQ(atItsEnd.state, DumpState::Failed);
    EXPECT_THAT(atItsEnd.problem, HasSubstr("Cannot allocate memory"));
}

TEST_F(NetlinkDumpTest, AListThatChangedWhileItWasMadeIsInterrupted) {
    const DumpAnswer changed =
        answer({message(kType, "one") + message(NLMSG_DONE, bytesOf(0), NLM_F_MULTI | NLM_F_DUMP_INTR)});
    EXPECT_EQ(changed.state, DumpState::Complete);
    EXPECT_TRUE(changed.interrupted);
}

}  // namespace
}  // namespace kx::agent::lxc
