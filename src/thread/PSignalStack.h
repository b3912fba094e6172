// SPDX-License-Identifier: MIT
// PSignalStack: gives the calling thread an alternate signal stack for the object's
// lifetime, so that a fault handler still has room to run when the thread overflows its
// own stack. A thread that already has a large enough one keeps it and nothing is
// changed. Owned by the thread it was made on and destroyed on that thread (a local at
// the top of a thread body); PThread does this for every thread it starts.
#pragma once

#include <cstddef>

class PSignalStack {
public:
    // Size of the stacks installed here: room for a dump handler and its callback.
    static constexpr std::size_t kSize = 128 * 1024;

    // Installs a kSize stack unless the thread has an enabled one of at least kSize.
    // Runs in: normal context, on the thread that wants the stack. Never throws; when
    // memory or sigaltstack fails the thread simply goes on without one.
    PSignalStack();
    PSignalStack(const PSignalStack&) = delete;
    PSignalStack& operator=(const PSignalStack&) = delete;
    // Disables and frees the stack this object installed (nothing else).
    ~PSignalStack();

    bool installed() const { return memory_ != nullptr; }

private:
    void* memory_ = nullptr;  // mapping that holds the stack, nullptr when none was installed
    std::size_t mappedSize_ = 0;
};
