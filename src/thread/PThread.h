// SPDX-License-Identifier: MIT
// PThread: starts a POSIX thread that runs a delegate. The thread's shared record
// (delegate copy, start handshake, argument) is owned by the running thread; the
// PThread object only observes it through a weak reference, so it may be destroyed
// while the thread still runs (a joinable thread is then detached, never cancelled).
// Owner: whoever constructs it; join()/detach() from the owning thread only.
// Errors: only a thread that cannot be created throws (std::runtime_error); lock,
// join and detach results are not checked, as the wrappers' callers expect.
#pragma once

#include <pthread.h>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "PCondMutex.h"
#include "PThreadDelegate.h"

class PThread {
public:
    // Signature of pthread_create; replaceable for tests of the failure path.
    using CreateFunction = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

    // Starts a joinable thread running a clone of `delegate` with `argument`; returns
    // once the new thread has begun (the delegate may already have finished). `name`
    // (at most 15 characters are kept) labels the thread for debuggers and dumps.
    // Throws std::runtime_error("Failed to create thread: <code>") when the thread
    // cannot be created; nothing is left running then.
    PThread(const PThreadDelegateGeneric& delegate, void* argument, const char* name = nullptr);
    PThread(const PThread&) = delete;
    PThread& operator=(const PThread&) = delete;
    // Detaches the thread unless it was joined or detached already.
    virtual ~PThread();

    // Waits for the thread's end; its result is ignored.
    void join();
    // Lets the thread run on its own.
    void detach();
    bool isReleased() const { return released_; }

    // The start routine handed to pthread_create; `thread` is the PThread itself.
    static void* _PThread_delegate_helper_function(void* thread);

    // Replaces pthread_create (nullptr restores it). Tests only; not thread-safe.
    static void setCreateFunctionForTesting(CreateFunction function);

private:
    struct ThreadData {
        explicit ThreadData(PThreadDelegateGeneric* d, void* arg, const char* threadName);
        ThreadData(const ThreadData&) = delete;
        ThreadData& operator=(const ThreadData&) = delete;
        ~ThreadData();

        PThreadDelegateGeneric* delegate = nullptr;  // owned
        PCondMutex handshake;
        bool started NIMB_GUARDED_BY(handshake) = false;
        void* argument = nullptr;
        char name[16] = {};
    };

    pthread_t handle_{};
    boost::weak_ptr<ThreadData> data_;
    bool released_ = false;
};
