// SPDX-License-Identifier: MIT
// SyslogSettings: what the syslog listeners read from the settings under
// "Software\Pellix\Nimb\Syslog". A plain value, read once at start-up.
#pragma once

#include <string>

struct SyslogSettings {
    static constexpr const char* kKey = "Software\\Pellix\\Nimb\\Syslog";

    // Ports; 0 (or missing) leaves that listener off.
    int udpPort = 0;
    int tcpPort = 0;
    int tlsPort = 0;
    // The address the listeners bind to; loopback unless the user opens it up.
    std::string address = "127.0.0.1";
    // PEM files of the TLS listener's certificate (chain) and private key.
    std::string certFile;
    std::string keyFile;
    // Client certificates on the TLS listener: the PEM CA they must come from (none: no
    // sender is asked for one), whether a sender without one is refused, and the list of
    // allowed senders that nimb-bus-setup keeps (none: any name the CA signed).
    std::string clientCaFile;
    bool requireClientCert = false;
    std::string clientsFile;
    // Longer messages are cut to this many bytes.
    int maxMessageSize = 8192;
    // Stamps are rewritten into server time when the sender's clock is off by more.
    int clockThreshold = 2;
    // Lines per second a sender's address may send (0: no bound); twice that in a burst.
    int maxLinesPerSecond = 5000;
    // Open TCP and TLS connections at one time.
    int maxConnections = 64;
    // Open TCP and TLS connections from one address; at most maxConnections - 1 apply,
    // so that one address never holds every slot.
    int maxConnectionsPerAddress = 16;
    // Distinct senders (host names, or addresses) with files, over the collector's life.
    int maxSenders = 64;
    // Applications with a file of their own per sender; later ones share "syslog".
    int maxAppsPerSender = 16;

    // Fixed, not read from the settings (tests shorten them). A TLS connection whose
    // handshake is not done this long after it was accepted is closed.
    int handshakeTimeoutMs = 10 * 1000;
    // While every connection slot is taken, a new connection closes the one that has been
    // idle (no bytes) longest, if that is at least this long; below the cap idle
    // connections stay open.
    int idleTimeoutMs = 5 * 60 * 1000;

    // Reads every value present; a value out of range is logged and replaced by the
    // nearest bound. Any thread.
    static SyslogSettings read();
    bool isEnabled() const { return udpPort > 0 || tcpPort > 0 || tlsPort > 0; }
};
