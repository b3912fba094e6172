// SPDX-License-Identifier: MIT
// VaListEnd: ends a started va_list when the scope ends, on every exit path (the first
// logged line may throw when the writer thread cannot be started). Used by the logger's
// variadic entry points, on the caller's thread.
#pragma once

#include <cstdarg>

class VaListEnd {
public:
    explicit VaListEnd(va_list& args) : args_(args) {}
    VaListEnd(const VaListEnd&) = delete;
    VaListEnd& operator=(const VaListEnd&) = delete;
    ~VaListEnd() { va_end(args_); }

private:
    va_list& args_;
};
