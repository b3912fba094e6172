// SPDX-License-Identifier: MIT
#include "RemoteLogDeviceQuota.h"

#include <algorithm>

bool RemoteLogDeviceQuota::tryAcquire(const CStdStr& mac, std::size_t calls, std::size_t bytes) {
    if (calls == 0 && bytes == 0) return true;  // nothing to wait for: no entry either
    const PMutexLocker lock(mutex_);
    Use& use = use_[mac];
    const bool idle = use.calls == 0;
    if (!idle && (use.calls + calls > maxCalls_ || use.bytes + bytes > maxBytes_)) return false;
    use.calls += calls;
    use.bytes += bytes;
    return true;
}

void RemoteLogDeviceQuota::release(const CStdStr& mac, std::size_t bytes) {
    const PMutexLocker lock(mutex_);
    const auto found = use_.find(mac);
    if (found == use_.end()) return;
    Use& use = found->second;
    use.calls -= use.calls > 0 ? 1 : 0;
    use.bytes -= std::min(use.bytes, bytes);
    if (use.calls == 0) use_.erase(found);
}
