#include "ctl/events/EventJson.h"

#include "ctl/view/Words.h"

namespace kx::ctl {
namespace {

void putWord(Json& object, const char* key, const char* word) {
    if (word != nullptr) {
        object.put(key, word);
    }
}

void put(Json& object, const ContainerName& about) {
    object.put("eid", about.eid.toString());
    object.put("host", about.isHost);
    if (about.veid) {
        object.put("veid", *about.veid);
    }
    if (about.name) {
        object.putText("name", *about.name);
    }
}

void put(Json& object, const KXLResourceAlertData& alert) {
    object.put("code", alert.alertCode);
    putWord(object, "severity", alertWord(alert.alertCode));
    object.put("value", alert.alertValue);
    object.putText("text", alert.alertText);
}

void put(Json& object, const KXLEnvironmentChangeData& change) {
    object.put("change", changeWord(change.kind));
    object.put("state", change.state);
    putWord(object, "state_name", stateWord(change.state));
    object.put("transition", change.transition);
    putWord(object, "transition_name", transitionWord(change.transition));
}

}  // namespace

Json eventJson(const KXLEvent& event, const std::optional<ContainerName>& about) {
    Json object;
    object.putText("kind", kindOf(event));
    if (event.getTimeMs() != 0) {
        object.put("time_ms", event.getTimeMs());
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
