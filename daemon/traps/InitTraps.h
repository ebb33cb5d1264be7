// Start-up of the notification subsystem.
#pragma once

extern "C" {

/// @brief Brings the management-agent link into being and registers what makes traps of alerts. Called once, on the
/// main thread, first thing in the module's initialisation: the link's construction relies on no other thread existing
/// yet.
///
/// Hidden from the dynamic linker: the agent library has an empty function of the same name, which init_agent calls.
/// Were ours visible to it, it would be called instead, before its time and twice.
__attribute__((visibility("hidden"))) void init_traps();
}
