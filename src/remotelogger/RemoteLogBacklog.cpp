// SPDX-License-Identifier: MIT
#include "RemoteLogBacklog.h"

bool RemoteLogBacklog::acquire(std::size_t calls, std::size_t bytes,
                               std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const PMutexLocker lock(mutex_);
    while (!stopped_ && !fitsLocked(calls, bytes)) {
        if (!mutex_.waitUntil(deadline)) break;
    }
    if (stopped_ || !fitsLocked(calls, bytes)) return false;
    calls_ += calls;
    bytes_ += bytes;
    return true;
}

void RemoteLogBacklog::release(std::size_t bytes) {
    {
        const PMutexLocker lock(mutex_);
        if (calls_ > 0) --calls_;
        bytes_ -= bytes < bytes_ ? bytes : bytes_;
        mutex_.broadcast();
    }
}

void RemoteLogBacklog::stopBounding() {
    {
        const PMutexLocker lock(mutex_);
        bounded_ = false;
        mutex_.broadcast();
    }
}

void RemoteLogBacklog::stop() {
    {
        const PMutexLocker lock(mutex_);
        stopped_ = true;
        mutex_.broadcast();
    }
}

bool RemoteLogBacklog::fitsLocked(std::size_t calls, std::size_t bytes) const {
    if (calls_ == 0 || !bounded_) return true;
    return calls_ + calls <= maxCalls_ && bytes_ + bytes <= maxBytes_;
}

std::size_t RemoteLogBacklog::queuedCalls() const {
    const PMutexLocker lock(mutex_);
    return calls_;
}

std::size_t RemoteLogBacklog::queuedBytes() const {
    const PMutexLocker lock(mutex_);
    return bytes_;
}
