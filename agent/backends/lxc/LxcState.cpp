#include "agent/backends/lxc/LxcState.h"

namespace kx::agent::lxc {
namespace {

struct Row {
    std::string_view lxcState;
    Status status;
    bool alive;
};

constexpr Row kRows[] = {
    {"STOPPED", {State::Stopped, Transition::None}, false},
    {"STARTING", {State::Stopped, Transition::Starting}, false},
    {"RUNNING", {State::Running, Transition::None}, true},
    {"STOPPING", {State::Running, Transition::Stopping}, false},
    {"ABORTING", {State::Stopped, Transition::Aborting}, false},
    {"FREEZING", {State::Running, Transition::Freezing}, true},
    {"FROZEN", {State::Frozen, Transition::None}, true},
    {"THAWED", {State::Frozen, Transition::Thawing}, true},
};

const Row* rowOf(std::string_view lxcState) {
    for (const Row& row : kRows) {
        if (row.lxcState == lxcState) {
            return &row;
        }
    }
    return nullptr;
}

bool startsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

}  // namespace

Status statusOf(std::string_view lxcState) {
    const Row* row = rowOf(lxcState);
    return row != nullptr ? row->status : Status{};
}

bool isAlive(std::string_view lxcState) {
    const Row* row = rowOf(lxcState);
    return row != nullptr && row->alive;
}

Freezer freezerOfV1(std::string_view text) {
    if (startsWith(text, "THAWED")) {
        return Freezer::Thawed;
    }
    if (startsWith(text, "FREEZING")) {
        return Freezer::Freezing;
    }
    return startsWith(text, "FROZEN") ? Freezer::Frozen : Freezer::Unknown;
}

Freezer freezerOfV2(std::string_view events, std::string_view freeze) {
    if (events.find("frozen 1") != std::string_view::npos) {
        return Freezer::Frozen;
    }
    if (events.find("frozen 0") == std::string_view::npos) {
        return Freezer::Unknown;
    }
    return startsWith(freeze, "1") ? Freezer::Freezing : Freezer::Thawed;
}

Status statusOf(Freezer freezer, Status byLxc) {
    switch (freezer) {
        case Freezer::Thawed:
            return {State::Running, Transition::None};
        case Freezer::Freezing:
            return {State::Running, Transition::Freezing};
        case Freezer::Frozen:
            return {State::Frozen, Transition::None};
        case Freezer::Unknown:
            break;
    }
    return byLxc;
}

}  // namespace kx::agent::lxc
