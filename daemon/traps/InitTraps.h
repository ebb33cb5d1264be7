// Start-up of the notification subsystem.
#pragma once

extern "C" {

/// @brief Brings the management-agent link into being. Called once, on the main thread, first thing in the module's
/// initialisation: the link's construction relies on no other thread existing yet.
void init_traps();
}
