// SPDX-License-Identifier: MIT
#include "CStdPath.h"

CStdStr CStdPath::AppendPath(const CStdStr& base, const CStdStr& tail) {
    if (base.empty()) return tail;
    if (tail.empty()) return base;
    const size_t baseEnd = base.find_last_not_of('/');
    const size_t tailStart = tail.find_first_not_of('/');
    CStdStr result(base.substr(0, baseEnd == std::string::npos ? 0 : baseEnd + 1));
    result += '/';
    if (tailStart != std::string::npos) result.append(tail, tailStart, std::string::npos);
    return result;
}
