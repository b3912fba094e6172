// SPDX-License-Identifier: MIT
// HttpLimits: the bounds nimb-web's HTTP layer holds every client to (timeouts, body
// size, connections per address and in all, the slowdown after failed logins), and
// the key under which a client's address is counted. A plain value; main thread.
#pragma once

#include <cstdint>

#include <QHostAddress>
#include <QString>

struct HttpLimits {
    // A request's head (request line and header fields) must be complete this long
    // after the server starts waiting for it.
    int headerTimeoutMs = 10 * 1000;
    // A request's body must be complete this long after its head.
    int bodyTimeoutMs = 30 * 1000;
    // A longer body (declared or, when chunked, as it arrives) is answered 413.
    std::int64_t maxBodyBytes = 64 * 1024;
    // Open connections from one address (see addressKey); more are answered 503 and closed.
    int maxConnectionsPerAddress = 64;
    // Open connections in all; held below the descriptor limit (kReservedDescriptors).
    int maxConnections = 1024;
    // After the n-th failed login in a row from an address, its next check waits
    // min(loginDelayMs * 2^(n-1), loginDelayMaxMs).
    int loginDelayMs = 1000;
    int loginDelayMaxMs = 30 * 1000;

    // Descriptors kept free of connections: live tails' files, the index, archives.
    static constexpr int kReservedDescriptors = 512;
    // The longest request head; a longer one is answered 431.
    static constexpr int kMaxHeadBytes = 16 * 1024;
    // A response the client does not take any of for this long ends its connection.
    static constexpr int kSendStallMs = 60 * 1000;

    // maxConnections, lowered to the process's descriptor limit less kReservedDescriptors
    // (at least 1).
    int effectiveMaxConnections() const;
};

// The key under which an address is counted: the address itself for IPv4 (an IPv4
// address mapped into IPv6 included), its /64 network for IPv6, as one host commonly
// holds a whole /64.
QString addressKey(const QHostAddress& address);
