// SPDX-License-Identifier: MIT
#include "PThread.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <boost/smart_ptr/bad_weak_ptr.hpp>

#include "PSignalStack.h"

namespace {
PThread::CreateFunction g_createFunction = &pthread_create;  // written by tests only
}

PThread::ThreadData::ThreadData(PThreadDelegateGeneric* d, void* arg, const char* threadName)
    : delegate(d), argument(arg) {
    if (threadName != nullptr) std::strncpy(name, threadName, sizeof(name) - 1);
}

PThread::ThreadData::~ThreadData() { delete delegate; }

PThread::PThread(const PThreadDelegateGeneric& delegate, void* argument, const char* name) {
    boost::shared_ptr<ThreadData> data(new ThreadData(delegate.clone(), argument, name));
    data_ = data;
    const int rc = g_createFunction(&handle_, nullptr, &_PThread_delegate_helper_function, this);
    if (rc != 0) {
        char message[64];
        std::snprintf(message, sizeof(message), "Failed to create thread: %d", rc);
        released_ = true;  // there is no thread to detach
        throw std::runtime_error(message);
    }
    {
        PMutexLocker lock(data->handshake);
        while (!data->started) data->handshake.wait();
    }
    // From here on only the running thread keeps the record alive.
}

PThread::~PThread() {
    if (!released_) detach();
}

void PThread::join() {
    pthread_join(handle_, nullptr);
    released_ = true;
}

void PThread::detach() {
    pthread_detach(handle_);
    released_ = true;
}

void* PThread::_PThread_delegate_helper_function(void* thread) {
    // Lets a fault handler run (and a crash dump be taken) even when this thread
    // overflows its stack.
    PSignalStack signalStack;
    boost::shared_ptr<ThreadData> data;
    try {
        data = boost::shared_ptr<ThreadData>(static_cast<PThread*>(thread)->data_);
    } catch (const boost::bad_weak_ptr&) {
        return nullptr;  // the record is gone: nothing to run
    }
    if (data->name[0] != '\0') pthread_setname_np(pthread_self(), data->name);
    {
        PMutexLocker lock(data->handshake);
        data->started = true;
        data->handshake.broadcast();
    }
    // `thread` may be destroyed from here on; only `data` is used. An exception
    // escaping the delegate reaches std::terminate, whose handler reports it.
    return data->delegate->Invoke(data->argument);
}

void PThread::setCreateFunctionForTesting(CreateFunction function) {
    g_createFunction = function != nullptr ? function : &pthread_create;
}
