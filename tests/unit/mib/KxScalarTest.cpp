// The handler itself, with the requests that the library would not let through to it.
#include "mib/KxScalar.h"

#include <gmock/gmock.h>

#include <array>

#include "Varbinds.h"
#include "link/SNMPNodeLocal.h"
#include "mib/OidLayout.h"
#include "tests/support/LogCapture.h"

namespace {

using namespace kx::test;
using testing::ElementsAre;
using testing::IsEmpty;

// The number is laid down by the interface of the vocabularies.
static_assert(KXL_FIELD_VALUE == 1307);

/// A request for one scalar's instance, as the scalar helper passes it on.
class ScalarRequest {
public:
    explicit ScalarRequest(oid number) : name_{1, 3, 6, 1, 4, 1, 53864, 1, 1, number, 0} {
        snmp_set_var_objid(&variable_, name_.data(), name_.size());
        variable_.type = ASN_NULL;
        request_.requestvb = &variable_;
    }
    ~ScalarRequest() { snmp_reset_var_buffers(&variable_); }
    ScalarRequest(const ScalarRequest&) = delete;
    ScalarRequest& operator=(const ScalarRequest&) = delete;

    int handle(int mode) {
        netsnmp_handler_registration registration{};
        registration.rootoid = name_.data();
        registration.rootoid_len = name_.size();
        netsnmp_agent_request_info info{};
        info.mode = mode;
        return KxScalar_get_handler(nullptr, &registration, &info, &request_);
    }

    void setNext(ScalarRequest& other) { request_.next = &other.request_; }
    void setProcessed() { request_.processed = 1; }
    const netsnmp_variable_list& answer() const { return variable_; }

private:
    std::array<oid, 11> name_;
    netsnmp_variable_list variable_{};
    netsnmp_request_info request_{};
};

/// The link is gone, which is the same as having no management agent.
class KxScalar : public testing::Test {
protected:
    KxScalar() { SNMPNodeLocal::destroy(); }

    LogCapture log_;
};

TEST_F(KxScalar, AnswersTheInvalidIdentifierWithoutAnAgent) {
    ScalarRequest request(1);
    EXPECT_EQ(request.handle(MODE_GET), 0);
    EXPECT_EQ(request.answer().type, ASN_OCTET_STR);
    EXPECT_EQ(bytesOf(request.answer()), "00000000-0000-0000-0000-000000000000");
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(KxScalar, AnswersAnEmptyVersionWithoutAnAgent) {
    ScalarRequest request(2);
    EXPECT_EQ(request.handle(MODE_GET), 0);
    EXPECT_EQ(request.answer().type, ASN_OCTET_STR);
    EXPECT_EQ(request.answer().val_len, 0U);
    EXPECT_THAT(log_.lines(), IsEmpty());
}

TEST_F(KxScalar, WarnsOfAnUnknownNumberAndGoesOn) {
    ScalarRequest unknown(3);
    ScalarRequest known(1);
    unknown.setNext(known);
    EXPECT_EQ(unknown.handle(MODE_GET), 0);
    EXPECT_EQ(unknown.answer().type, ASN_NULL);
    EXPECT_EQ(known.answer().type, ASN_OCTET_STR);
    EXPECT_THAT(log_.lines(),
                ElementsAre(LogCapture::Line(4, "CorvaneMIB: Unknown sub-id (3) in KxScalar_get_handler\n")));
}

TEST_F(KxScalar, KnowsNoScalarByATablesNumber) {
    ScalarRequest request(4);
    request.handle(MODE_GET);
    EXPECT_EQ(request.answer().type, ASN_NULL);
    EXPECT_THAT(log_.lines(),
                ElementsAre(LogCapture::Line(4, "CorvaneMIB: Unknown sub-id (4) in KxScalar_get_handler\n")));
}

TEST_F(KxScalar, DoesNotAskWhetherARequestIsProcessed) {
    ScalarRequest request(2);
    request.setProcessed();
    request.handle(MODE_GET);
    EXPECT_EQ(request.answer().type, ASN_OCTET_STR);
}

TEST_F(KxScalar, WarnsOfModesThatItDoesNotSupport) {
    for (const int mode : {161, 165, 0, 1, 2, 3, 4, 5}) {
        LogCapture log;
        ScalarRequest request(1);
        EXPECT_EQ(request.handle(mode), 0);
        EXPECT_EQ(request.answer().type, ASN_NULL);
        EXPECT_THAT(log.lines(),
                    ElementsAre(LogCapture::Line(4, "CorvaneMIB: Unsupported mode (" + std::to_string(mode) + ")\n")));
    }
}

TEST_F(KxScalar, WarnsOfModesThatItDoesNotKnow) {
    for (const int mode : {6, 159, 162, 1000, -1}) {
        LogCapture log;
        ScalarRequest request(1);
        EXPECT_EQ(request.handle(mode), 0);
        EXPECT_EQ(request.answer().type, ASN_NULL);
        EXPECT_THAT(log.lines(),
                    ElementsAre(LogCapture::Line(4, "CorvaneMIB: Unrecognised mode (" + std::to_string(mode) + ")\n")));
    }
}

}  // namespace
