#include "agent/core/AlertState.h"

#include <chrono>

#include "alertstate.pb.h"

namespace kx::agent {
namespace {

constexpr std::uint32_t kFormat = 1;

/// Thrown and caught in this file.
struct Damaged {};

std::int64_t millisecondsOf(WallTime time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

WallTime timeOf(std::int64_t milliseconds) {
    return WallTime(std::chrono::milliseconds(milliseconds));
}

Eid eidOf(const std::string& bytes) {
    const auto eid = Eid::fromWire(bytes);
    if (!eid) {
        throw Damaged();
    }
    return *eid;
}

void write(const AlertSignal& from, state::Alert& into) {
    into.set_eid(from.about.toWire());
    into.set_source(from.source);
    into.set_code(from.code);
    into.set_text(from.text);
    into.set_value(from.value);
}

void write(const DatedAlert& from, state::Alert& into) {
    write(from.signal, into);
    into.set_more(from.more);
    into.set_time_ms(millisecondsOf(from.happened));
}

AlertSignal signalOf(const state::Alert& from) {
    return {eidOf(from.eid()), from.source(), from.code(), from.text(), from.value()};
}

template <typename Alerts>
std::vector<DatedAlert> alertsOf(const Alerts& from) {
    std::vector<DatedAlert> alerts;
    for (const state::Alert& alert : from) {
        alerts.push_back({signalOf(alert), alert.more(), timeOf(alert.time_ms())});
    }
    return alerts;
}

void write(const Environment& from, state::Environment& into) {
    into.set_eid(from.eid.toWire());
    into.set_type(from.type);
    into.set_name(from.name);
    if (from.veid) {
        into.set_veid(*from.veid);
    }
    if (from.hostname) {
        into.set_hostname(*from.hostname);
    }
}

Environment environmentOf(const state::Environment& from) {
    Environment environment;
    environment.eid = eidOf(from.eid());
    environment.type = from.type();
    environment.name = from.name();
    environment.veid = from.has_veid() ? std::optional(from.veid()) : std::nullopt;
    environment.hostname = from.has_hostname() ? std::optional(from.hostname()) : std::nullopt;
    return environment;
}

AlertState stateOf(const state::State& from) {
    AlertState state;
    for (const state::Consumer& consumer : from.consumers()) {
        const auto away = consumer.has_away_ms() ? std::optional(timeOf(consumer.away_ms())) : std::nullopt;
        state.consumers.push_back({{consumer.name(), consumer.uid()}, away, alertsOf(consumer.alerts())});
    }
    state.waiting = alertsOf(from.waiting());
    for (const state::Alert& alarm : from.raised()) {
        state.raised.push_back(signalOf(alarm));
    }
    for (const state::Environment& environment : from.environments()) {
        state.environments.push_back(environmentOf(environment));
    }
    return state;
}

}  // namespace

std::string encodeState(const AlertState& from) {
    state::State state;
    state.set_format(kFormat);
    for (const KeptConsumer& consumer : from.consumers) {
        state::Consumer& into = *state.add_consumers();
        into.set_name(consumer.id.name);
        into.set_uid(consumer.id.uid);
        if (consumer.away) {
            into.set_away_ms(millisecondsOf(*consumer.away));
        }
        for (const DatedAlert& alert : consumer.alerts) {
            write(alert, *into.add_alerts());
        }
    }
    for (const DatedAlert& alert : from.waiting) {
        write(alert, *state.add_waiting());
    }
    for (const AlertSignal& alarm : from.raised) {
        write(alarm, *state.add_raised());
    }
    for (const Environment& environment : from.environments) {
        write(environment, *state.add_environments());
    }
    return state.SerializeAsString();
}

std::optional<AlertState> decodeState(std::string_view bytes) {
    state::State state;
    if (!state.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())) || state.format() != kFormat) {
        return std::nullopt;
    }
    try {
        return stateOf(state);
    } catch (const Damaged&) {
        return std::nullopt;
    }
}

}  // namespace kx::agent
