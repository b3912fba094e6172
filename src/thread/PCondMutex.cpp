// SPDX-License-Identifier: MIT
#include "PCondMutex.h"

#include <cerrno>
#include <ctime>

PCondMutex::PCondMutex() {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&cond_, &attr);
    pthread_condattr_destroy(&attr);
}

// The condition goes first; the base destroys the mutex afterwards.
PCondMutex::~PCondMutex() { pthread_cond_destroy(&cond_); }

bool PCondMutex::waitUntil(std::chrono::steady_clock::time_point deadline) {
    const auto since = deadline.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since);
    timespec at{};
    at.tv_sec = static_cast<time_t>(seconds.count());
    at.tv_nsec = static_cast<long>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(since - seconds).count());
    return pthread_cond_timedwait(&cond_, &mutex_, &at) != ETIMEDOUT;
}
