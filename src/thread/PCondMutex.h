// SPDX-License-Identifier: MIT
// PCondMutex: a PMutex with one condition variable. Waiters wait under the mutex
// (through a PMutexLocker); wakers always broadcast, never signal one waiter.
#pragma once

#include <chrono>

#include <pthread.h>

#include "PMutex.h"

class PCondMutex : public PMutex {
public:
    PCondMutex();
    PCondMutex(const PCondMutex&) = delete;
    PCondMutex& operator=(const PCondMutex&) = delete;
    ~PCondMutex() override;

    // Waits on the condition; the caller must hold the mutex.
    void wait() NIMB_REQUIRES(this) { pthread_cond_wait(&cond_, &mutex_); }
    // Waits on the condition until woken or until `deadline` (the monotonic clock, so a
    // change of the wall clock neither shortens nor stretches it); false once the
    // deadline has passed. The caller must hold the mutex.
    bool waitUntil(std::chrono::steady_clock::time_point deadline) NIMB_REQUIRES(this);
    // Wakes every waiter.
    void broadcast() { pthread_cond_broadcast(&cond_); }

private:
    pthread_cond_t cond_;
};
