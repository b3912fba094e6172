// SPDX-License-Identifier: MIT
#include "AltSignalStack.h"

#include <algorithm>
#include <csignal>

#include <sys/mman.h>

namespace {
// Large enough for a handler that writes a minidump; never below the system minimum.
constexpr size_t kMinimumSize = 64 * 1024;
}  // namespace

AltSignalStack::AltSignalStack() {
    stack_t current{};
    if (sigaltstack(nullptr, &current) != 0) return;
    if ((current.ss_flags & SS_DISABLE) == 0) return;  // the thread has one already

    const size_t size = std::max(kMinimumSize, static_cast<size_t>(SIGSTKSZ));
    void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return;

    stack_t stack{};
    stack.ss_sp = memory;
    stack.ss_size = size;
    if (sigaltstack(&stack, nullptr) != 0) {
        munmap(memory, size);
        return;
    }
    memory_ = memory;
    size_ = size;
}

AltSignalStack::~AltSignalStack() {
    if (memory_ == nullptr) return;
    stack_t disable{};
    disable.ss_flags = SS_DISABLE;
    // If disabling fails (the thread is running on the stack, which cannot happen from
    // a destructor on the normal stack), the memory is kept rather than pulled away.
    if (sigaltstack(&disable, nullptr) == 0) munmap(memory_, size_);
}
