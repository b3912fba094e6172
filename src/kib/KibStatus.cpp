// SPDX-License-Identifier: MIT
#include "KibStatus.h"

const char* KibStatusText(int status) {
    switch (status) {
        case KIB_OK:
            return "ok";
        case KIB_E_INVALID_ARGUMENT:
            return "invalid argument";
        case KIB_E_NOT_CONNECTED:
            return "not connected";
        case KIB_E_ALREADY_CONNECTED:
            return "already connected";
        case KIB_E_CONNECT_FAILED:
            return "cannot connect to the bus directory";
        case KIB_E_TIMEOUT:
            return "timeout";
        case KIB_E_NO_RESPONDERS:
            return "no responders";
        case KIB_E_SERVICE_EXCEPTION:
            return "service threw an exception";
        case KIB_E_BAD_FRAME:
            return "malformed frame";
        case KIB_E_TOO_LARGE:
            return "frame too large";
        case KIB_E_BAD_VALUE:
            return "value cannot be sent";
        case KIB_E_DUPLICATE_SERVICE:
            return "service already added";
        case KIB_E_NO_SUCH_SERVICE:
            return "no such service";
        case KIB_E_TRANSPORT:
            return "transport error";
        default:
            return "unknown status";
    }
}
