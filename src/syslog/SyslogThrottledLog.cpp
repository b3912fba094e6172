// SPDX-License-Identifier: MIT
#include "SyslogThrottledLog.h"

#include "CBBLog.h"

void SyslogThrottledLog::error(const std::string& text) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (logged_ && now.tv_sec - last_ < interval_) {
        ++suppressed_;
        return;
    }
    if (suppressed_ != 0) {
        CBBLog::error("%s (%ld more like it not logged)", text.c_str(), suppressed_);
    } else {
        CBBLog::error("%s", text.c_str());
    }
    logged_ = true;
    last_ = now.tv_sec;
    suppressed_ = 0;
}
