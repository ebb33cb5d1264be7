#include "ctl/events/EventJson.h"

#include "ctl/events/EventWords.h"

namespace kx::ctl {
namespace {

void putWord(Json& object, const char* key, const char* word) {
    if (word != nullptr) {
        object[key] = word;
    }
}

void put(Json& object, const ContainerName& about) {
    object["eid"] = about.eid.toString();
    object["host"] = about.isHost;
    if (about.veid) {
        object["veid"] = *about.veid;
    }
    if (about.name) {
        putText(object, "name", *about.name);
    }
}

void put(Json& object, const KXLResourceAlertData& alert) {
    object["code"] = alert.alertCode;
    putWord(object, "severity", alertWord(alert.alertCode));
    object["value"] = alert.alertValue;
    putText(object, "text", alert.alertText);
}

void put(Json& object, const KXLEnvironmentChangeData& change) {
    object["change"] = changeWord(change.kind);
    object["state"] = change.state;
    putWord(object, "state_name", stateWord(change.state));
    object["transition"] = change.transition;
    putWord(object, "transition_name", transitionWord(change.transition));
}

}  // namespace

Json eventJson(const KXLEvent& event, const std::optional<ContainerName>& about) {
    Json object = Json::object();
    putText(object, "kind", kindOf(event));
    if (event.getTimeMs() != 0) {
        object["time_ms"] = event.getTimeMs();
    }
    if (about) {
        put(object, *about);
    }
    const auto* data = event.getData().get();
    if (const auto* alert = dynamic_cast<const KXLResourceAlertData*>(data)) {
        put(object, *alert);
    } else if (const auto* change = dynamic_cast<const KXLEnvironmentChangeData*>(data)) {
        put(object, *change);
    }
    return object;
}

}  // namespace kx::ctl
