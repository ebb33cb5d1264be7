// Collects the traps that the agent library is asked to send, as it would send them.
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "mib/LibraryLock.h"
#include "mib/NetSnmp.h"
#include "tests/unit/traps/FakeMaster.h"

// clang-format off
#include <net-snmp/agent/agent_callbacks.h>
// clang-format on

namespace kx::test {

using Oid = std::vector<oid>;

/// @brief One variable of a trap; `value` holds the bytes as the library hands them to an encoder.
struct TrapVariable {
    Oid name;
    unsigned type;
    std::string value;

    bool operator==(const TrapVariable& other) const {
        return name == other.name && type == other.type && value == other.value;
    }
};

/// @brief A trap of the first version: the form that carries the numbers as they were given.
struct Trap {
    Oid enterprise;
    long genericTrap;
    long specificTrap;
    std::vector<TrapVariable> variables;
    std::thread::id thread;  ///< that sent it
};

/// @brief While it lives, there is a session with a master agent, and traps come here. One at a time.
class TrapCapture {
public:
    TrapCapture() {
        snmp_register_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_SEND_TRAP1, &TrapCapture::take, this);
    }
    ~TrapCapture() {
        snmp_unregister_callback(SNMP_CALLBACK_APPLICATION, SNMPD_CALLBACK_SEND_TRAP1, &TrapCapture::take, this, 1);
    }
    TrapCapture(const TrapCapture&) = delete;
    TrapCapture& operator=(const TrapCapture&) = delete;

    /// Any thread.
    std::vector<Trap> traps() const {
        const std::lock_guard guard(lock_);
        return traps_;
    }

private:
    static int take(int, int, void* message, void* self) {
        EXPECT_TRUE(LibraryLock::isHeldHere()) << "a request may be answered on the same session meanwhile";
        const auto* const pdu = static_cast<const netsnmp_pdu*>(message);
        Trap trap{Oid(pdu->enterprise, pdu->enterprise + pdu->enterprise_length),
                  pdu->trap_type,
                  pdu->specific_type,
                  {},
                  std::this_thread::get_id()};
        for (const netsnmp_variable_list* at = pdu->variables; at != nullptr; at = at->next_variable) {
            trap.variables.push_back({Oid(at->name, at->name + at->name_length), at->type,
                                      std::string(reinterpret_cast<const char*>(at->val.string), at->val_len)});
        }
        auto& capture = *static_cast<TrapCapture*>(self);
        const std::lock_guard guard(capture.lock_);
        capture.traps_.push_back(std::move(trap));
        return 0;
    }

    mutable std::mutex lock_;
    std::vector<Trap> traps_;
    const FakeMaster master_;
};

}  // namespace kx::test
