// SPDX-License-Identifier: MIT
#include "RemoteLogBacklog.h"

bool RemoteLogBacklog::acquire(std::size_t calls, std::size_t bytes,
                               std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!roomFreed_.wait_for(lock, timeout, [&] { return stopped_ || fitsLocked(calls, bytes); }) ||
        stopped_) {
        return false;
    }
    calls_ += calls;
    bytes_ += bytes;
    return true;
}

void RemoteLogBacklog::release(std::size_t bytes) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (calls_ > 0) --calls_;
        bytes_ -= bytes < bytes_ ? bytes : bytes_;
    }
    roomFreed_.notify_all();
}

void RemoteLogBacklog::stopBounding() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        bounded_ = false;
    }
    roomFreed_.notify_all();
}

void RemoteLogBacklog::stop() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
    }
    roomFreed_.notify_all();
}

bool RemoteLogBacklog::fitsLocked(std::size_t calls, std::size_t bytes) const {
    if (calls_ == 0 || !bounded_) return true;
    return calls_ + calls <= maxCalls_ && bytes_ + bytes <= maxBytes_;
}
