// SPDX-License-Identifier: MIT
#include "RemoteLogSources.h"

#include <algorithm>

#include <boost/format.hpp>

RemoteLogSources::RemoteLogSources(std::size_t maxLogs, std::size_t maxPerDevice) {
    setLimits(maxLogs, maxPerDevice);
}

void RemoteLogSources::setLimits(std::size_t maxLogs, std::size_t maxPerDevice) {
    const PMutexLocker lock(mutex_);
    maxLogs_ = maxLogs;
    maxPerDevice_ = maxPerDevice;
}

bool RemoteLogSources::admit(const CStdStr& mac, const std::set<CStdStr>& ids,
                             std::size_t listLength, std::vector<CStdStr>& closed,
                             std::string& error) {
    const PMutexLocker lock(mutex_);
    std::size_t fresh = 0;
    for (const CStdStr& id : ids) fresh += open_.count(id) == 0 ? 1 : 0;
    const auto device = perDevice_.find(mac);
    const std::size_t deviceOpen = device == perDevice_.end() ? 0 : device->second;
    if (std::max(ids.size(), listLength) > maxLogs_) {
        error = boost::str(boost::format("too many log sources: at most %1%") % maxLogs_);
        return false;
    }
    if (deviceOpen + fresh > maxPerDevice_) {
        error = boost::str(boost::format("too many log sources for device %1%: at most %2%") % mac %
                           maxPerDevice_);
        return false;
    }
    // The request's own logs become the most recently used, so none of them is closed
    // to make room for another.
    for (const CStdStr& id : ids) {
        auto found = open_.find(id);
        if (found == open_.end()) {
            found = open_.emplace(id, Entry{mac, 0}).first;
            ++perDevice_[mac];
            if (closed_.erase(id) != 0) {
                closedOrder_.erase(std::find(closedOrder_.begin(), closedOrder_.end(), id));
            }
        }
        useLocked(id, found->second);
    }
    while (open_.size() > maxLogs_) {
        const CStdStr oldest = byLastUse_.begin()->second;
        closeLocked(oldest);
        closed.push_back(oldest);
    }
    return true;
}

RemoteLogSources::State RemoteLogSources::touch(const CStdStr& id) {
    const PMutexLocker lock(mutex_);
    const auto found = open_.find(id);
    if (found != open_.end()) {
        useLocked(id, found->second);
        return State::Open;
    }
    return closed_.count(id) != 0 ? State::Closed : State::Unknown;
}

std::size_t RemoteLogSources::openCount() const {
    const PMutexLocker lock(mutex_);
    return open_.size();
}

void RemoteLogSources::useLocked(const CStdStr& id, Entry& entry) {
    if (entry.lastUse != 0) byLastUse_.erase(entry.lastUse);
    entry.lastUse = ++clock_;
    byLastUse_.emplace(entry.lastUse, id);
}

void RemoteLogSources::closeLocked(const CStdStr& id) {
    const auto found = open_.find(id);
    byLastUse_.erase(found->second.lastUse);
    const auto device = perDevice_.find(found->second.mac);
    if (--device->second == 0) perDevice_.erase(device);
    open_.erase(found);
    closed_.insert(id);
    closedOrder_.push_back(id);
    if (closedOrder_.size() > kRememberedClosed) {
        closed_.erase(closedOrder_.front());
        closedOrder_.pop_front();
    }
}
