// SPDX-License-Identifier: MIT
// RemoteLogBacklog: bounds what the bus handlers may have handed to the main thread but
// the main thread has not taken yet (queued addLog / appendLog calls and their text).
// A handler acquires room before it emits and waits, boundedly, while the main thread
// is behind; each delivered call releases its room. Shared by the satellite (bus
// threads acquire, stop() at shutdown) and the releasing connections (main thread).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

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
    // Makes every waiting and later acquire() fail at once. Main thread, at shutdown.
    void stop();
    // Makes every waiting and later acquire() succeed at once (until stop()): while the
    // main thread is leaving the bus it cannot make room, and the requests still served
    // then are bounded by the bus library's queue. Main thread, at shutdown.
    void stopBounding();

private:
    bool fitsLocked(std::size_t calls, std::size_t bytes) const;

    // Immutable after construction.
    const std::size_t maxCalls_ = 0;
    const std::size_t maxBytes_ = 0;
    // A timed wait is needed here, which PCondMutex does not offer.
    std::mutex mutex_;
    std::condition_variable roomFreed_;
    std::size_t calls_ = 0;  // guarded by mutex_
    std::size_t bytes_ = 0;  // guarded by mutex_
    bool stopped_ = false;   // guarded by mutex_
    bool bounded_ = true;    // guarded by mutex_
};
