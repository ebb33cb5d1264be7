// Where the library's log lines go.
#pragma once

/// Receives one line without a line end. Called on any thread; must not call the library.
using KXLLogHandler = void (*)(int priority, const char* line);

/// @brief Sends the library's log lines to `handler` instead of syslog(3). The library logs little: what an agent
/// sent that could not be understood, and a handshake that was refused; a failure that repeats itself only once.
/// @param handler null: syslog again
void setKXLLogHandler(KXLLogHandler handler);
