#include "InProcessAgent.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <stdexcept>

#include "mib/NetSnmp.h"
#include "tests/support/LogCapture.h"

// The library's own number of the callback transport that it listens on; no header declares it.
extern "C" int callback_master_num;

namespace kx::test {

namespace {

struct PduDeleter {
    void operator()(netsnmp_pdu* pdu) const { snmp_free_pdu(pdu); }
};
using PduPtr = std::unique_ptr<netsnmp_pdu, PduDeleter>;

Answer answerOf(const netsnmp_variable_list& variable) {
    return {Oid(variable.name, variable.name + variable.name_length), variable.type, bytesOf(variable)};
}

bool isBelow(const Oid& name, const Oid& root) {
    return name.size() > root.size() && std::equal(root.begin(), root.end(), name.begin());
}

PduPtr send(netsnmp_session* session, netsnmp_pdu* request) {
    // There are no communities and no views here; the library only asks for some community text.
    request->version = SNMP_VERSION_2c;
    request->community = reinterpret_cast<u_char*>(strdup("test"));
    request->community_len = 4;
    request->flags |= UCD_MSG_FLAG_ALWAYS_IN_VIEW;
    netsnmp_pdu* response = nullptr;
    if (snmp_synch_response(session, request, &response) != STAT_SUCCESS || response == nullptr) {
        throw std::runtime_error("the agent did not answer");
    }
    return PduPtr(response);
}

}  // namespace

void PrintTo(const Answer& answer, std::ostream* out) {
    for (const oid part : answer.name) {
        *out << '.' << part;
    }
    *out << " type " << answer.type << " value";
    for (const char byte : answer.value) {
        *out << ' ' << static_cast<int>(static_cast<unsigned char>(byte));
    }
}

std::string nativeLong(long value) {
    return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

InProcessAgent& InProcessAgent::instance() {
    static InProcessAgent agent;
    return agent;
}

InProcessAgent::InProcessAgent() {
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
    setenv("MIBS", "", 1);  // names of objects are not needed
    const LogCapture unwanted;
    init_agent("test_mib");
    init_snmp("test_mib");
    session_ = netsnmp_callback_open(callback_master_num, nullptr, nullptr, nullptr);
    if (session_ == nullptr) {
        throw std::runtime_error("no session to the agent");
    }
}

InProcessAgent::~InProcessAgent() {
    snmp_close(session_);
    snmp_shutdown("test_mib");
    shutdown_agent();
}

std::vector<Answer> InProcessAgent::ask(int command, const std::vector<Oid>& names, int repetitions, int nonRepeaters) {
    netsnmp_pdu* const request = snmp_pdu_create(command);
    if (command == SNMP_MSG_GETBULK) {
        request->non_repeaters = nonRepeaters;
        request->max_repetitions = repetitions;
    }
    for (const Oid& name : names) {
        snmp_add_null_var(request, name.data(), name.size());
    }
    const PduPtr response = send(session_, request);
    std::vector<Answer> answers;
    for (const netsnmp_variable_list* one = response->variables; one != nullptr; one = one->next_variable) {
        answers.push_back(answerOf(*one));
    }
    return answers;
}

long InProcessAgent::set(const Oid& name) {
    netsnmp_pdu* const request = snmp_pdu_create(SNMP_MSG_SET);
    const long value = 1;
    snmp_pdu_add_variable(request, name.data(), name.size(), ASN_INTEGER, &value, sizeof value);
    return send(session_, request)->errstat;
}

std::vector<Answer> InProcessAgent::walk(const Oid& root) {
    std::vector<Answer> found;
    Oid position = root;
    for (;;) {
        const std::vector<Answer> answers = getNext({position});
        if (answers.size() != 1 || !isBelow(answers[0].name, root) || answers[0].type == SNMP_ENDOFMIBVIEW) {
            return found;
        }
        if (answers[0].name <= position) {
            throw std::runtime_error("the walk does not get ahead");
        }
        position = answers[0].name;
        found.push_back(answers[0]);
    }
}

}  // namespace kx::test
