// SPDX-License-Identifier: MIT
// RemoteLogSources: the slots of the logs the collector keeps open. At most `maxLogs`
// logs in all and `maxPerDevice` per device (MAC address). When every slot is taken, a
// new log takes the slot of the log that has been idle longest, which is handed back to
// be closed, instead of new devices being refused until a restart; past its own bound,
// a device's new log takes the slot of that device's idlest log. Only an announcement
// that names more logs than a bound at once is refused. A log that gave up its slot is
// remembered (boundedly) so that text sent to it can be refused with a request to
// announce it again, rather than acknowledged and dropped. Any thread; internally locked.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "PMutex.h"
#include "StdString.h"
#include "ThreadAnnotations.h"

class RemoteLogSources {
public:
    // How many logs one device may keep open when the "MaxLogsPerDevice" setting is absent.
    static constexpr std::size_t kDefaultMaxPerDevice = 1024;
    // How many closed logs are remembered as closed (older ones read as never announced).
    static constexpr std::size_t kRememberedClosed = 4096;

    // Foreign: open, but by another device (touch with an owner).
    enum class State { Open, Closed, Unknown, Foreign };

    RemoteLogSources(std::size_t maxLogs, std::size_t maxPerDevice);
    RemoteLogSources(const RemoteLogSources&) = delete;
    RemoteLogSources& operator=(const RemoteLogSources&) = delete;

    // Changes the bounds; logs already open stay open until they give up their slot.
    void setLimits(std::size_t maxLogs, std::size_t maxPerDevice);
    // Opens the logs `ids` of device `mac` (ids already open only count as used now),
    // which came as a list of `listLength` names, repeats included. Returns false,
    // opening none, with `error` set, when they cannot all be open at once (more than
    // either bound) or the list itself is longer than the total bound. Otherwise
    // `closed` receives the logs that gave up their slot for them, idle longest first:
    // first the device's own past its bound, then anyone's past the total bound.
    // With `foreign` given, an id open by another device refuses them all (false, with
    // `*foreign` set to that id and `error` empty), unless `isGone` says that device is
    // gone (a revoked account): its log is then closed and taken over.
    bool admit(const CStdStr& mac, const std::set<CStdStr>& ids, std::size_t listLength,
               std::vector<CStdStr>& closed, std::string& error, CStdStr* foreign = nullptr,
               const std::function<bool(const CStdStr&)>& isGone = nullptr);
    // Marks `id` as used now when it is open; says whether it is open, gave up its slot,
    // or was never announced (or closed too long ago to be remembered).
    State touch(const CStdStr& id);
    // The same for a text of device `owner`: Foreign, touching nothing, when another
    // device opened the log.
    State touch(const CStdStr& id, const CStdStr& owner);
    std::size_t openCount() const;

private:
    struct Entry;
    using Open = std::map<CStdStr, Entry>;
    struct Entry {
        CStdStr mac;
        std::list<Open::iterator>::iterator use;  // its place in byUse_
    };
    // Marks the log as used last; no allocation.
    void useLocked(Open::iterator entry) NIMB_REQUIRES(mutex_);
    // Closes the idlest open log of device `mac`; `keep` are spared. False when none.
    bool closeIdlestOfLocked(const CStdStr& mac, const std::set<CStdStr>& keep,
                             std::vector<CStdStr>& closed) NIMB_REQUIRES(mutex_);
    void closeLocked(Open::iterator entry) NIMB_REQUIRES(mutex_);

    mutable PMutex mutex_;
    std::size_t maxLogs_ NIMB_GUARDED_BY(mutex_) = 0;
    std::size_t maxPerDevice_ NIMB_GUARDED_BY(mutex_) = 0;
    Open open_ NIMB_GUARDED_BY(mutex_);
    std::list<Open::iterator> byUse_ NIMB_GUARDED_BY(mutex_);  // idlest first
    std::map<CStdStr, std::size_t> perDevice_ NIMB_GUARDED_BY(mutex_);
    std::set<CStdStr> closed_ NIMB_GUARDED_BY(mutex_);
    std::deque<CStdStr> closedOrder_ NIMB_GUARDED_BY(mutex_);
};
