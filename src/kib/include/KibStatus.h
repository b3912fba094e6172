// SPDX-License-Identifier: MIT
// Status codes, connection states and request flags of the bus library. Every
// KibSatellite operation returns KIB_OK (0) or one of the KIB_E_ codes below; the
// codes are negative 32-bit values so that they stay apart from the small,
// non-negative results that service handlers usually return. Plain constants: no
// state, usable from any thread.
#pragma once

#include <cstdint>

// Connection state of a satellite, as reported to KibSatellite::OnStatusChange and
// by KibSatellite::DirectoryPingSatellite.
enum KIBSTATUS : int {
    KIBSTATUS_DISCONNECTED = 0,  // not connected (never connected, or disconnected)
    KIBSTATUS_CONNECTED = 1,     // connected to the bus directory
    KIBSTATUS_RECONNECTING = 2,  // connection lost; the library keeps reconnecting
};

// Flags of KibSatellite::Request.
using KIBFLAGS = std::uint32_t;
constexpr KIBFLAGS KIBFLAG_NONE = 0;
// Send the request without waiting for (or asking for) a reply: Request returns
// KIB_OK once the request is handed to the transport.
constexpr KIBFLAGS KIBFLAG_NO_REPLY = 1;

constexpr int kibErrorCode(unsigned int n) { return static_cast<int>(0x80044B00u | n); }

constexpr int KIB_OK = 0;
constexpr int KIB_E_INVALID_ARGUMENT = kibErrorCode(0x01);   // null pointer, bad name or host
constexpr int KIB_E_NOT_CONNECTED = kibErrorCode(0x02);      // operation needs a connection
constexpr int KIB_E_ALREADY_CONNECTED = kibErrorCode(0x03);  // Connect on a connected satellite
constexpr int KIB_E_CONNECT_FAILED = kibErrorCode(0x04);     // bus directory not reachable
constexpr int KIB_E_TIMEOUT = kibErrorCode(0x05);            // no reply within the timeout
constexpr int KIB_E_NO_RESPONDERS = kibErrorCode(0x06);      // nobody offers that service
constexpr int KIB_E_SERVICE_EXCEPTION = kibErrorCode(0x07);  // the remote handler threw
constexpr int KIB_E_BAD_FRAME = kibErrorCode(0x08);          // malformed or hostile frame
constexpr int KIB_E_TOO_LARGE = kibErrorCode(0x09);          // frame above the size limit
constexpr int KIB_E_BAD_VALUE = kibErrorCode(0x0A);          // value cannot be encoded
constexpr int KIB_E_DUPLICATE_SERVICE = kibErrorCode(0x0B);  // service name already added
constexpr int KIB_E_NO_SUCH_SERVICE = kibErrorCode(0x0C);    // service name not added here
constexpr int KIB_E_TRANSPORT = kibErrorCode(0x0D);          // any other transport failure
constexpr int KIB_E_CONNECTION_LOST = kibErrorCode(0x0E);    // connection to the directory lost
constexpr int KIB_E_NOT_PERMITTED = kibErrorCode(0x0F);  // the server refused it to this account
// The highest code number above: a new code takes the next number, raises this and adds
// its row to kKibStatusTable (the compiler checks that every number has its row).
constexpr unsigned kKibLastErrorNumber = 0x0F;

struct KibStatusEntry {
    int code;
    const char* text;
};

// Every status with its short English text: KIB_OK first, then the KIB_E_ codes in the
// order of their numbers. The one source of status texts.
inline constexpr KibStatusEntry kKibStatusTable[] = {
    {KIB_OK, "ok"},
    {KIB_E_INVALID_ARGUMENT, "invalid argument"},
    {KIB_E_NOT_CONNECTED, "not connected"},
    {KIB_E_ALREADY_CONNECTED, "already connected"},
    {KIB_E_CONNECT_FAILED, "cannot connect to the bus directory"},
    {KIB_E_TIMEOUT, "timeout"},
    {KIB_E_NO_RESPONDERS, "no responders"},
    {KIB_E_SERVICE_EXCEPTION, "service threw an exception"},
    {KIB_E_BAD_FRAME, "malformed frame"},
    {KIB_E_TOO_LARGE, "frame too large"},
    {KIB_E_BAD_VALUE, "value cannot be sent"},
    {KIB_E_DUPLICATE_SERVICE, "service already added"},
    {KIB_E_NO_SUCH_SERVICE, "no such service"},
    {KIB_E_TRANSPORT, "transport error"},
    {KIB_E_CONNECTION_LOST, "connection lost"},
    {KIB_E_NOT_PERMITTED, "not permitted"},
};

constexpr bool kibStatusTableIsComplete() {
    if (sizeof(kKibStatusTable) / sizeof(kKibStatusTable[0]) != kKibLastErrorNumber + 1)
        return false;
    if (kKibStatusTable[0].code != KIB_OK) return false;
    for (unsigned n = 1; n <= kKibLastErrorNumber; ++n) {
        if (kKibStatusTable[n].code != kibErrorCode(n)) return false;
    }
    return true;
}
static_assert(kibStatusTableIsComplete(),
              "kKibStatusTable needs one row per status code, in the order of their numbers");

// Short English text for a status code ("ok", "timeout", ...) from kKibStatusTable;
// "unknown status" for values that are not library codes.
const char* KibStatusText(int status);
