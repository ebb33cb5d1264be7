#include "mib/KxScalar.h"

#include <boost/intrusive_ptr.hpp>
#include <string>

#include "link/SNMPNodeLocal.h"
#include "mib/LibraryLock.h"
#include "mib/OidLayout.h"

namespace {

// The link is gone once the module was finalised; that is the same as having no agent.
KXLEID serverEid() {
    SNMPNodeLocal* const link = SNMPNodeLocal::instance();
    return link == nullptr ? KXLEID::EID_INVALID : link->getServerEID();
}

boost::intrusive_ptr<KXLAccessPointPrototype> accessPoint() {
    SNMPNodeLocal* const link = SNMPNodeLocal::instance();
    return link == nullptr ? nullptr : link->getAccessPoint();
}

// As the vocabulary holds it: nothing is trimmed, read or put in another form.
std::string productVersion() {
    std::string version;
    const auto point = accessPoint();
    if (!point) {
        return version;
    }
    const auto vocabulary = point->getVocabulary(serverEid());
    const auto parameter = vocabulary ? vocabulary->readParameter("kxversion") : nullptr;
    if (parameter) {
        parameter->getValue(version, KXL_FIELD_VALUE);
    }
    return version;
}

void answer(netsnmp_request_info* request, const std::string& value) {
    snmp_set_var_typed_value(request->requestvb, ASN_OCTET_STR, value.data(), value.size());
}

// The `processed` mark is not looked at: the scalar helper above passes on only what this handler is to answer.
void answerGet(const netsnmp_handler_registration* reginfo, netsnmp_request_info* request) {
    // The registered name ends in the instance number 0; the object's own number stands before it.
    const oid subId = request->requestvb->name[reginfo->rootoid_len - 2];
    switch (static_cast<ObjectId>(subId)) {
        case ObjectId::serverIdentifier:
            answer(request, serverEid().toString());
            break;
        case ObjectId::productVersion:
            answer(request, productVersion());
            break;
        default:
            snmp_log(LOG_WARNING, "CorvaneMIB: Unknown sub-id (%d) in %s\n", static_cast<int>(subId),
                     "KxScalar_get_handler");
            break;
    }
}

}  // namespace

extern "C" int KxScalar_get_handler(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* reginfo,
                                    netsnmp_agent_request_info* reqinfo, netsnmp_request_info* requests) noexcept {
    const OutOfLibrary outside;  // both values are asked of the link
    switch (reqinfo->mode) {
        case MODE_GET:
            for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
                answerGet(reginfo, request);
            }
            break;
        // The scalar helper turns get-next into get, and nothing registers for writing.
        case MODE_GETNEXT:
        case MODE_GETBULK:
        case MODE_SET_RESERVE1:
        case MODE_SET_RESERVE2:
        case MODE_SET_ACTION:
        case MODE_SET_COMMIT:
        case MODE_SET_FREE:
        case MODE_SET_UNDO:
            snmp_log(LOG_WARNING, "CorvaneMIB: Unsupported mode (%d)\n", reqinfo->mode);
            break;
        default:
            snmp_log(LOG_WARNING, "CorvaneMIB: Unrecognised mode (%d)\n", reqinfo->mode);
            break;
    }
    return SNMP_ERR_NOERROR;
}
