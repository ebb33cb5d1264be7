// Which callback of a handler a failure is delivered to.
#pragma once

#include <kxl/KXLRequestHandlerPrototype.h>

namespace kx::client {

/// @brief Delivers one failure. Whatever the code, a handler with the default callbacks gets one handleError.
/// @param code a KXLRequestError
inline void deliverFailure(KXLRequestHandlerPrototype& handler, int code) {
    switch (code) {
        case KXL_ERROR_TIMEOUT:
            handler.handleTimeout();
            break;
        case KXL_ERROR_CANCEL:
            handler.handleCancel();
            break;
        case KXL_ERROR_DISCONNECT:
            handler.handleDisconnect();
            break;
        case KXL_ERROR_BROKEN:
            handler.handleBroken();
            break;
        default:
            handler.handleError(code);
    }
}

}  // namespace kx::client
