// SPDX-License-Identifier: MIT
// SyslogCounters: what the syslog listeners counted since start. Written by the listener
// thread, read by any thread (the collector's "GetStats" service on a bus thread, tests,
// the summary logged at stop): every value is an atomic of its own, so a reading is a
// set of individually consistent values, not a snapshot.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

struct SyslogCounters {
    std::atomic<std::uint64_t> lines{0};                // messages written to a file
    std::atomic<std::uint64_t> bytes{0};                // bytes received (decrypted, for TLS)
    std::atomic<std::uint64_t> truncated{0};            // messages cut at the maximum size
    std::atomic<std::uint64_t> rateDropped{0};          // datagrams over a sender's rate
    std::atomic<std::uint64_t> ratePaused{0};           // times a connection was held back
    std::atomic<std::uint64_t> refusedNames{0};         // host names not usable in a file name
    std::atomic<std::uint64_t> refusedFiles{0};         // lines whose file is not a plain file
    std::atomic<std::uint64_t> senderCapDropped{0};     // lines of senders past the cap
    std::atomic<std::uint64_t> connectionsRefused{0};   // connections past the cap
    std::atomic<std::uint64_t> badFrames{0};            // connections closed on a bad frame
    std::atomic<std::uint64_t> handshakeTimeouts{0};    // TLS handshakes not done in time
    std::atomic<std::uint64_t> idleClosed{0};           // idle connections closed for a new one
    std::atomic<std::uint64_t> refusedCertificates{0};  // TLS client certificates refused
    // Levels, not counts: open TCP and TLS connections, senders with files.
    std::atomic<std::uint64_t> connections{0};
    std::atomic<std::uint64_t> senders{0};

    using Counter = std::atomic<std::uint64_t> SyslogCounters::*;
    // The counters under the names the collector's "GetStats" service gives them.
    static constexpr std::pair<const char*, Counter> kNamed[] = {
        {"syslog.messages", &SyslogCounters::lines},
        {"syslog.bytes", &SyslogCounters::bytes},
        {"syslog.truncated", &SyslogCounters::truncated},
        {"syslog.dropped.rate", &SyslogCounters::rateDropped},
        {"syslog.dropped.senders", &SyslogCounters::senderCapDropped},
        {"syslog.dropped.file", &SyslogCounters::refusedFiles},
        {"syslog.heldBack", &SyslogCounters::ratePaused},
        {"syslog.refusedNames", &SyslogCounters::refusedNames},
        {"syslog.connections", &SyslogCounters::connections},
        {"syslog.closed.cap", &SyslogCounters::connectionsRefused},
        {"syslog.closed.frame", &SyslogCounters::badFrames},
        {"syslog.closed.handshake", &SyslogCounters::handshakeTimeouts},
        {"syslog.closed.idle", &SyslogCounters::idleClosed},
        {"syslog.closed.certificate", &SyslogCounters::refusedCertificates},
        {"syslog.senders", &SyslogCounters::senders},
    };
};
