// SPDX-License-Identifier: MIT
// PMutex: a plain (non-recursive) POSIX mutex, and PMutexLocker, the scoped guard
// through which every region is locked so that all exit paths unlock, exceptions
// included. Lock and unlock results are deliberately not checked.
#pragma once

#include <pthread.h>

#include "ThreadAnnotations.h"

class NIMB_CAPABILITY("mutex") PMutex {
public:
    PMutex();
    PMutex(const PMutex&) = delete;
    PMutex& operator=(const PMutex&) = delete;
    virtual ~PMutex();

    void lock() NIMB_ACQUIRE() { pthread_mutex_lock(&mutex_); }
    void unlock() NIMB_RELEASE() { pthread_mutex_unlock(&mutex_); }
    pthread_mutex_t* native() { return &mutex_; }

protected:
    pthread_mutex_t mutex_;
};

// Holds a PMutex locked for its scope. [[nodiscard]] on the constructor makes an
// unnamed temporary guard (which would unlock at once) a compiler warning.
class NIMB_SCOPED_CAPABILITY PMutexLocker {
public:
    [[nodiscard]] explicit PMutexLocker(PMutex& mutex) NIMB_ACQUIRE(mutex) : mutex_(mutex) {
        mutex_.lock();
    }
    PMutexLocker(const PMutexLocker&) = delete;
    PMutexLocker& operator=(const PMutexLocker&) = delete;
    ~PMutexLocker() NIMB_RELEASE() { mutex_.unlock(); }

private:
    PMutex& mutex_;
};
