// SPDX-License-Identifier: MIT
// KibReply: everything a service call brought back: the status, the result value and,
// when the call failed, why. Filled by KibSatellite::Call; owned by the caller.
#pragma once

#include <cstdint>
#include <string>

#include "KibStatus.h"
#include "KibVariantHolder.h"

// What kind of failure an error reply describes.
enum class KibErrorKind : std::uint8_t {
    None = 0,            // no error: the handler returned `status`
    KibException = 1,    // the handler threw a KibException: code and message buffer
    StdException = 2,    // the handler threw a std::exception: what()
    OtherException = 3,  // the handler threw something else
    Library = 4,         // the bus library refused the call (bad frame, too large, ...)
    Local = 5,           // the call failed on this side (timeout, no responders, ...)
};

struct KibReply {
    // The handler's return value when it returned normally, otherwise a KIB_E_ code.
    int status = KIB_OK;
    // The result value the handler filled (VT_EMPTY on failure).
    KibVariantHolder value;
    KibErrorKind errorKind = KibErrorKind::None;
    // A KibException's code; 0 for the other kinds.
    std::int32_t errorCode = 0;
    // The error text; empty when errorKind is None.
    std::string errorText;

    bool failed() const { return errorKind != KibErrorKind::None; }
};
