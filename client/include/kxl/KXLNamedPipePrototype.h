// The named-pipe transport: unix stream sockets.
#pragma once

#include <kxl/KXLRefCounter.h>

/// @brief Making one registers the transport under the type name "NamedPipe" for the life of the process; the
/// object itself may be dropped at once. Making several is harmless. Any thread.
class KXLNamedPipePrototype : public KXLRefCounter {
public:
    KXLNamedPipePrototype();

    /// The type name under which connectivity information asks for this transport.
    static const char* const typeName;
};
