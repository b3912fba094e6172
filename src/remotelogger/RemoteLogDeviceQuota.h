// SPDX-License-Identifier: MIT
// RemoteLogDeviceQuota: each device's share of what waits for the main thread: its
// requests accepted but not yet delivered, and the text they carry. A device past its
// share is answered busy at once, so that a flooding device neither holds the bus
// handler waiting for room nor fills the backlog that every other device shares.
// Acquired on the bus threads, released on the main thread when a call is delivered.
#pragma once

#include <cstddef>
#include <map>

#include "PMutex.h"
#include "StdString.h"

class RemoteLogDeviceQuota {
public:
    RemoteLogDeviceQuota(std::size_t maxCalls, std::size_t maxBytes)
        : maxCalls_(maxCalls), maxBytes_(maxBytes) {}
    RemoteLogDeviceQuota(const RemoteLogDeviceQuota&) = delete;
    RemoteLogDeviceQuota& operator=(const RemoteLogDeviceQuota&) = delete;

    // Takes `calls` calls with `bytes` of text for device `mac`; false, taking nothing,
    // when that would pass the device's bound (a request larger than the byte bound is
    // taken only when the device has nothing waiting). Never blocks.
    bool tryAcquire(const CStdStr& mac, std::size_t calls, std::size_t bytes);
    // Gives back one delivered call of `mac` and its text.
    void release(const CStdStr& mac, std::size_t bytes);

private:
    struct Use {
        std::size_t calls = 0;
        std::size_t bytes = 0;
    };

    // Immutable after construction.
    const std::size_t maxCalls_ = 0;
    const std::size_t maxBytes_ = 0;
    PMutex mutex_;
    // Devices with nothing waiting are absent.
    std::map<CStdStr, Use> use_ NIMB_GUARDED_BY(mutex_);
};
