// SPDX-License-Identifier: MIT
// RemoteLogBacklog: bounds what the bus handlers may have handed to the main thread but
// the main thread has not taken yet (queued addLog / appendLog calls and their text).
// A handler acquires room before it emits and waits, boundedly, while the main thread
// is behind; each delivered call releases its room. Shared by the satellite (bus
// threads acquire, stop() at shutdown) and the releasing connections (main thread).
#pragma once

#include <chrono>
#include <cstddef>

#include "PCondMutex.h"

class RemoteLogBacklog {
public:
    RemoteLogBacklog(std::size_t maxCalls, std::size_t maxBytes)
        : maxCalls_(maxCalls), maxBytes_(maxBytes) {}
    RemoteLogBacklog(const RemoteLogBacklog&) = delete;
    RemoteLogBacklog& operator=(const RemoteLogBacklog&) = delete;

    // Takes room for `calls` calls carrying `bytes` of text, waiting at most `timeout`
    // for the main thread to catch up. A request larger than the bound fits only into
    // an empty backlog. False when no room came in time or the backlog was stopped.
    // Bus threads.
    bool acquire(std::size_t calls, std::size_t bytes, std::chrono::milliseconds timeout);
    // Gives back the room of one delivered call. Main thread.
    void release(std::size_t bytes);
    // What is waiting right now (calls, bytes of text). Any thread.
    std::size_t queuedCalls() const;
    std::size_t queuedBytes() const;
    // Makes every waiting and later acquire() fail at once. Main thread, at shutdown.
    void stop();
    // Makes every waiting and later acquire() succeed at once (until stop()): while the
    // main thread is leaving the bus it cannot make room, and the requests still served
    // then are bounded by the bus library's queue. Main thread, at shutdown.
    void stopBounding();

private:
    bool fitsLocked(std::size_t calls, std::size_t bytes) const NIMB_REQUIRES(mutex_);

    // Immutable after construction.
    const std::size_t maxCalls_ = 0;
    const std::size_t maxBytes_ = 0;
    // Its condition: room was freed, or the bound changed.
    mutable PCondMutex mutex_;
    std::size_t calls_ NIMB_GUARDED_BY(mutex_) = 0;
    std::size_t bytes_ NIMB_GUARDED_BY(mutex_) = 0;
    bool stopped_ NIMB_GUARDED_BY(mutex_) = false;
    bool bounded_ NIMB_GUARDED_BY(mutex_) = true;
};
