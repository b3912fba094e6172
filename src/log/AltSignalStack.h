// SPDX-License-Identifier: MIT
// AltSignalStack: gives the calling thread an alternate signal stack for the lifetime
// of the object, so that a crash handler can still run on that thread after a stack
// overflow. Created and destroyed on the same thread (the one it serves); a thread that
// already has an alternate stack keeps it and the object does nothing.
#pragma once

#include <cstddef>

class AltSignalStack {
public:
    // Runs in: normal context. Maps and installs the stack unless the thread has one;
    // a failure leaves the thread as it was (a crash on it is then handled on its own
    // stack, as on any other thread).
    AltSignalStack();
    AltSignalStack(const AltSignalStack&) = delete;
    AltSignalStack& operator=(const AltSignalStack&) = delete;
    // Disables the stack it installed, then unmaps it.
    ~AltSignalStack();

    bool isInstalled() const { return memory_ != nullptr; }

private:
    void* memory_ = nullptr;
    size_t size_ = 0;
};
