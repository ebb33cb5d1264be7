// The agent library with its registry and helpers, in this process: requests go the whole way through it, save that
// no socket and no master agent is involved.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Varbinds.h"

namespace kx::test {

/// @brief One variable of an answer. `value` holds the bytes as the library hands them to an encoder.
struct Answer {
    Oid name;
    unsigned type;
    std::string value;

    bool operator==(const Answer& other) const {
        return name == other.name && type == other.type && value == other.value;
    }
};

/// For messages of failing tests.
void PrintTo(const Answer& answer, std::ostream* out);

/// The bytes of an integer-like value.
std::string nativeLong(long value);

/// @brief The one agent of the process, made on first use. Main thread.
class InProcessAgent {
public:
    static InProcessAgent& instance();
    ~InProcessAgent();

    std::vector<Answer> get(const std::vector<Oid>& names) { return ask(SNMP_MSG_GET, names, 0); }
    std::vector<Answer> getNext(const std::vector<Oid>& names) { return ask(SNMP_MSG_GETNEXT, names, 0); }
    std::vector<Answer> getBulk(const Oid& name, int repetitions) { return getBulk({name}, 0, repetitions); }
    std::vector<Answer> getBulk(const std::vector<Oid>& names, int nonRepeaters, int repetitions) {
        return ask(SNMP_MSG_GETBULK, names, repetitions, nonRepeaters);
    }

    /// @brief Tries to write an integer.
    /// @return the error status
    long set(const Oid& name);

    /// @brief Everything below a name, by GETNEXT. A walk that does not get ahead is a failure.
    std::vector<Answer> walk(const Oid& root);

private:
    InProcessAgent();
    std::vector<Answer> ask(int command, const std::vector<Oid>& names, int repetitions, int nonRepeaters = 0);

    netsnmp_session* session_;
};

}  // namespace kx::test
