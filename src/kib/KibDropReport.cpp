// SPDX-License-Identifier: MIT
#include "KibDropReport.h"

std::int64_t KibDropReport::take(std::int64_t total, Clock::time_point now, bool final) {
    const PMutexLocker lock(mutex_);
    if (total <= reported_) return 0;
    if (logged_ && !final && now - lastLine_ < interval_) return 0;
    const std::int64_t count = total - reported_;
    reported_ = total;
    lastLine_ = now;
    logged_ = true;
    return count;
}
