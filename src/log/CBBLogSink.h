// SPDX-License-Identifier: MIT
// CBBLogSink: where a logger's texts go when the logger does not write its file on a
// thread of its own, such as a device log whose texts a writer shared by many logs
// writes. LogWriteListener: told the outcome of one queued text. Both are interfaces;
// the implementations say which threads call them.
#pragma once

#include <cstdint>
#include <memory>

#include "StdString.h"

class LogWriteListener {
public:
    LogWriteListener() = default;
    LogWriteListener(const LogWriteListener&) = delete;
    LogWriteListener& operator=(const LogWriteListener&) = delete;
    virtual ~LogWriteListener() = default;

    // One text was written (error 0: write or writev returned all of it) or not (the
    // errno, and `message` naming the file and the reason, "cannot write '<path>':
    // <reason>"). Called exactly once per queued text, on the writer's thread or, when
    // the text was refused, on the caller's. Must not throw.
    virtual void writeDone(int error, const CStdStr& message) = 0;
};

// What the ingesting side knows of a text beyond its bytes, for a sink that records it
// (the device-log index). All zero: nothing known (the sink takes the time it is handed
// the text as its receive time).
struct LogTextInfo {
    long long receivedMs = 0;  // when it was received, ms since 1970 UTC
    bool header = false;       // an announce's header line
    bool hasDeviceTime = false;
    long long deviceTime = 0;      // the sender's clock then, s since 1970 UTC
    long long clockOffset = 0;     // server minus sender, seconds, as its stamps were moved
    std::uint16_t severities = 0;  // bit 1 << level of its lines when known (syslog)
};

class CBBLogSink {
public:
    CBBLogSink() = default;
    CBBLogSink(const CBBLogSink&) = delete;
    CBBLogSink& operator=(const CBBLogSink&) = delete;
    // Releases the file once everything queued through this sink has been written.
    virtual ~CBBLogSink() = default;

    // Queues `text` (taken) for the end of the file; `listener` (may be null) learns how
    // it went. Texts queued through one sink are written in the order queued. Any
    // thread; never blocks on the disk. False, with nothing queued and the listener not
    // called, when the writer has stopped.
    virtual bool append(CStdStr text, std::shared_ptr<LogWriteListener> listener,
                        const LogTextInfo& info = LogTextInfo()) = 0;
    // The file's path.
    virtual const CStdStr& path() const = 0;
};
