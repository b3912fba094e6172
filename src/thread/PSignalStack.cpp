// SPDX-License-Identifier: MIT
#include "PSignalStack.h"

#include <algorithm>

#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

PSignalStack::PSignalStack() {
    stack_t current{};
    if (sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0 &&
        current.ss_sp != nullptr && current.ss_size >= kSize) {
        return;  // keep the stack someone else installed
    }
    const long minimum = sysconf(_SC_MINSIGSTKSZ);
    const std::size_t size = std::max<std::size_t>(kSize, minimum > 0 ? minimum : 0);
    // One extra page below the stack stays inaccessible, so an overflow of the handler
    // itself faults instead of silently writing into a neighbouring mapping.
    const std::size_t guard = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* mapping =
        mmap(nullptr, size + guard, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED) return;
    char* stackBase = static_cast<char*>(mapping) + guard;
    stack_t stack{};
    stack.ss_sp = stackBase;
    stack.ss_size = size;
    if (mprotect(stackBase, size, PROT_READ | PROT_WRITE) != 0 ||
        sigaltstack(&stack, nullptr) != 0) {
        munmap(mapping, size + guard);  // the thread goes on without an alternate stack
        return;
    }
    memory_ = mapping;
    mappedSize_ = size + guard;
}

PSignalStack::~PSignalStack() {
    if (memory_ == nullptr) return;
    stack_t disable{};
    disable.ss_flags = SS_DISABLE;
    sigaltstack(&disable, nullptr);
    munmap(memory_, mappedSize_);
}
