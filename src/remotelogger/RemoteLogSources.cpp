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
                             std::string& error, CStdStr* foreign,
                             const std::function<bool(const CStdStr&)>& isGone) {
    const PMutexLocker lock(mutex_);
    if (foreign != nullptr) {
        for (const CStdStr& id : ids) {
            const auto found = open_.find(id);
            if (found != open_.end() && found->second.mac != mac &&
                !(isGone && isGone(found->second.mac))) {
                *foreign = id;
                return false;
            }
        }
        for (const CStdStr& id : ids) {
            const auto found = open_.find(id);
            if (found == open_.end() || found->second.mac == mac) continue;
            closed.push_back(id);
            closeLocked(found);
        }
    }
    if (std::max(ids.size(), listLength) > maxLogs_) {
        error = boost::str(boost::format("too many log sources: at most %1%") % maxLogs_);
        return false;
    }
    if (ids.size() > maxPerDevice_) {
        error = boost::str(boost::format("too many log sources for device %1%: at most %2%") % mac %
                           maxPerDevice_);
        return false;
    }
    // The request's own logs become the most recently used, so none of them is closed
    // to make room for another.
    for (const CStdStr& id : ids) {
        auto found = open_.find(id);
        if (found == open_.end()) {
            found = open_.emplace(id, Entry{mac, byUse_.end()}).first;
            found->second.use = byUse_.insert(byUse_.end(), found);
            ++perDevice_[mac];
            if (closed_.erase(id) != 0) {
                closedOrder_.erase(std::find(closedOrder_.begin(), closedOrder_.end(), id));
            }
        }
        useLocked(found);
    }
    for (auto device = perDevice_.find(mac);
         device != perDevice_.end() && device->second > maxPerDevice_;
         device = perDevice_.find(mac)) {
        if (!closeIdlestOfLocked(mac, ids, closed)) break;
    }
    while (open_.size() > maxLogs_) {
        closed.push_back(byUse_.front()->first);
        closeLocked(byUse_.front());
    }
    return true;
}

RemoteLogSources::State RemoteLogSources::touch(const CStdStr& id) {
    const PMutexLocker lock(mutex_);
    const auto found = open_.find(id);
    if (found != open_.end()) {
        useLocked(found);
        return State::Open;
    }
    return closed_.count(id) != 0 ? State::Closed : State::Unknown;
}

RemoteLogSources::State RemoteLogSources::touch(const CStdStr& id, const CStdStr& owner) {
    const PMutexLocker lock(mutex_);
    const auto found = open_.find(id);
    if (found != open_.end()) {
        if (found->second.mac != owner) return State::Foreign;
        useLocked(found);
        return State::Open;
    }
    return closed_.count(id) != 0 ? State::Closed : State::Unknown;
}

std::size_t RemoteLogSources::openCount() const {
    const PMutexLocker lock(mutex_);
    return open_.size();
}

void RemoteLogSources::useLocked(Open::iterator entry) {
    byUse_.splice(byUse_.end(), byUse_, entry->second.use);
}

bool RemoteLogSources::closeIdlestOfLocked(const CStdStr& mac, const std::set<CStdStr>& keep,
                                           std::vector<CStdStr>& closed) {
    for (const Open::iterator entry : byUse_) {
        if (entry->second.mac != mac || keep.count(entry->first) != 0) continue;
        closed.push_back(entry->first);
        closeLocked(entry);
        return true;
    }
    return false;
}

void RemoteLogSources::closeLocked(Open::iterator entry) {
    const CStdStr id = entry->first;
    byUse_.erase(entry->second.use);
    const auto device = perDevice_.find(entry->second.mac);
    if (--device->second == 0) perDevice_.erase(device);
    open_.erase(entry);
    closed_.insert(id);
    closedOrder_.push_back(id);
    if (closedOrder_.size() > kRememberedClosed) {
        closed_.erase(closedOrder_.front());
        closedOrder_.pop_front();
    }
}
