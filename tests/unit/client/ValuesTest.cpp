#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include <kxa/KXATemplate.h>
#include <kxl/KXLConnectionInfo.h>
#include <kxl/KXLGUID.h>
#include <kxl/KXLIPAddress.h>
#include <kxl/KXLInstallPath.h>
#include <kxl/KXLLock.h>
#include <kxl/KXLOptionalProperty.h>
#include <kxl/KXLRefCounter.h>
#include <kxl/KXLRequestHandlerPrototype.h>

#include <boost/intrusive_ptr.hpp>

namespace {

TEST(Guid, ReadsAndWritesTheUsualForm) {
    KXLGUID guid;
    ASSERT_EQ(guid.fromString("0F8E5C1A-7a44-4c3b-9d1e-000000000101"), 0);
    EXPECT_EQ(guid.toString(), "0f8e5c1a-7a44-4c3b-9d1e-000000000101");
    EXPECT_EQ(guid.bytes()[0], 0x0f);
    EXPECT_EQ(guid.bytes()[15], 0x01);
}

TEST(Guid, LeavesTheValueWhenTheTextIsNone) {
    KXLGUID guid;
    ASSERT_EQ(guid.fromString("0f8e5c1a-7a44-4c3b-9d1e-000000000101"), 0);
    for (const char* text :
         {"", "0f8e5c1a", "0f8e5c1a-7a44-4c3b-9d1e-00000000010", "0f8e5c1ax7a44-4c3b-9d1e-000000000101",
          "0f8e5c1g-7a44-4c3b-9d1e-000000000101", "{f8e5c1a-7a44-4c3b-9d1e-000000000101}"}) {
        EXPECT_EQ(guid.fromString(text), -1) << text;
    }
    EXPECT_EQ(guid.toString(), "0f8e5c1a-7a44-4c3b-9d1e-000000000101");
}

TEST(Eid, InvalidIsTheEmptyIdentifier) {
    EXPECT_TRUE(KXLEID::EID_INVALID.isEmpty());
    EXPECT_EQ(KXLEID::EID_INVALID, KXLEID());
    EXPECT_EQ(KXLEID::EID_INVALID.toString(), "00000000-0000-0000-0000-000000000000");
}

struct Counted : KXLRefCounter {
    explicit Counted(bool& gone) : gone_(gone) {}
    ~Counted() override { gone_ = true; }
    bool& gone_;
};

TEST(RefCounter, StartsAtZeroAndDeletesWithTheLastPointer) {
    bool gone = false;
    boost::intrusive_ptr<Counted> first(new Counted(gone));
    EXPECT_EQ(first->referenceCount(), 1);
    {
        const boost::intrusive_ptr<Counted> second = first;
        EXPECT_EQ(first->referenceCount(), 2);
    }
    EXPECT_FALSE(gone);
    first.reset();
    EXPECT_TRUE(gone);
}

TEST(RefCounter, ACopyHasACountOfItsOwn) {
    bool gone = false;
    const boost::intrusive_ptr<Counted> first(new Counted(gone));
    const boost::intrusive_ptr<Counted> copy(new Counted(*first));
    EXPECT_EQ(copy->referenceCount(), 1);
}

TEST(RefCounter, CountsAcrossThreads) {
    bool gone = false;
    boost::intrusive_ptr<Counted> object(new Counted(gone));
    const auto copyOften = [&object] {
        for (int i = 0; i < 10000; ++i) {
            const boost::intrusive_ptr<Counted> copy = object;
        }
    };
    std::thread other(copyOften);
    copyOften();
    other.join();
    EXPECT_EQ(object->referenceCount(), 1);
}

TEST(Lock, ExcludesOtherThreadsAndIsNotRecursive) {
    KXLLock lock;
    lock.lock();
    bool taken = true;
    std::thread([&] { taken = lock.try_lock(); }).join();
    EXPECT_FALSE(taken);
    lock.unlock();
    EXPECT_TRUE(lock.try_lock());
    lock.unlock();
}

TEST(OptionalProperty, IsADefaultValueUntilSet) {
    KXLOptionalProperty<std::string> property;
    EXPECT_FALSE(property.isSet());
    EXPECT_EQ(property.get(), "");
    property.set("web");
    EXPECT_TRUE(property.isSet());
    EXPECT_EQ(property.get(), "web");
}

TEST(IpAddress, ComparesAddressThenMask) {
    const KXLIPAddress address("10.0.0.1", "255.0.0.0");
    EXPECT_EQ(address.compare(KXLIPAddress("10.0.0.1", "255.0.0.0")), 0);
    EXPECT_NE(address.compare(KXLIPAddress("10.0.0.2", "255.0.0.0")), 0);
    EXPECT_NE(address.compare(KXLIPAddress("10.0.0.1", "255.255.0.0")), 0);
}

TEST(ConnectionInfo, CarriesNoCredentialsByDefault) {
    const KXLConnectionInfo info;
    EXPECT_EQ(info.connectivity.getType(), "");
    EXPECT_EQ(info.connectivity.getNumber(), 0);
    EXPECT_EQ(info.authName.name, "");
    EXPECT_EQ(info.authName.flags, 0U);
    EXPECT_TRUE(info.authName.id.isEmpty());
    EXPECT_EQ(info.options, "");
}

TEST(InstallPath, IsBelowTheInstallFolderAndStays) {
    const char* path = getAgentInstallPathHard("kxagent.cache", true);
    EXPECT_STREQ(path, "/opt/orma/agent/kxagent.cache");
    EXPECT_EQ(getAgentInstallPathHard("kxagent.cache", true), path);
    EXPECT_STREQ(getAgentInstallPathHard("kxagent.cache", false), "kxagent.cache");
    EXPECT_EQ(getAgentInstallPathHard(nullptr, true), nullptr);
}

class RecordingHandler : public KXLRequestHandlerAgentPrototype {
public:
    void handleConnected() override {}
    void handleError(int code) override { codes.push_back(code); }
    std::vector<int> codes;
};

TEST(RequestHandler, DefaultCallbacksEndInHandleErrorWithTheirCodes) {
    const boost::intrusive_ptr<RecordingHandler> handler(new RecordingHandler);
    handler->handleTimeout();
    handler->handleCancel();
    handler->handleBroken();
    handler->handleDisconnect();
    EXPECT_EQ(handler->codes, (std::vector<int>{-2, -3, -5, -4}));
}

TEST(RequestHandler, CancelReachesTheRequestOnce) {
    int cancelled = 0;
    const boost::intrusive_ptr<RecordingHandler> handler(new RecordingHandler);
    handler->cancel();  // no request: nothing happens
    handler->setContext(new KXLRequestContext([&cancelled] { ++cancelled; }));
    handler->cancel();
    handler->cancel();
    EXPECT_EQ(cancelled, 1);
}

TEST(RequestHandler, KnowsThePeerOfItsConnection) {
    const boost::intrusive_ptr<RecordingHandler> handler(new RecordingHandler);
    EXPECT_EQ(handler->getConnection(), nullptr);
    handler->setContext(new KXLRequestContext([] {}));
    EXPECT_EQ(handler->getConnection(), nullptr);
    handler->getContext()->setConnection(new KXLConnectionPrototype("agent 1"));
    EXPECT_EQ(handler->getConnection()->getPeerName(), "agent 1");
}

}  // namespace
