// SPDX-License-Identifier: MIT
// RemoteLogReply: the deferred reply of one "SetLogSource" or "AppendLog" request,
// completed once every text the request handed to the loggers has reached its file
// (one part per text: a header per announced log, or the appended text). Success when
// all parts were written; otherwise the first failure, as an error reply naming the file
// and the reason; the unknown-source answer when the log was never announced. Created
// by a bus handler, completed on the loggers' writer threads (or the main thread); any
// thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "CBBLogSink.h"
#include "KibDeferredReply.h"
#include "PMutex.h"
#include "StdString.h"

class RemoteLogBacklog;
class RemoteLogDeviceQuota;

class RemoteLogReply : public LogWriteListener,
                       public std::enable_shared_from_this<RemoteLogReply> {
public:
    // The handler's status and exception code when a log was never announced, or when a
    // text could not be written; the device may send it again in both cases.
    static constexpr int kUnknownSourceStatus = 2;
    static constexpr std::int32_t kNotWrittenCode = 3;
    static const char* const kUnknownSourceText;

    // `service` names the request in error texts; `parts` (at least 1) texts must be done.
    RemoteLogReply(KibDeferredReply reply, const char* service, int parts);
    RemoteLogReply(const RemoteLogReply&) = delete;
    RemoteLogReply& operator=(const RemoteLogReply&) = delete;
    // Gives back the room it holds, if the reply never finished.
    ~RemoteLogReply() override;

    // Holds one call with `bytes` of text of device `mac` in `backlog` and `quota` (taken
    // already), to be given back when the reply finishes. Call before the first part.
    void holdRoom(std::shared_ptr<RemoteLogBacklog> backlog,
                  std::shared_ptr<RemoteLogDeviceQuota> quota, const CStdStr& mac,
                  std::size_t bytes);
    // The logger's report on one text: partDone().
    void writeDone(int error, const CStdStr& message) override { partDone(error, message); }

    // One text was written (error 0) or not (`message` names the file and the reason).
    // Of several failures, the reply names the one of the earliest part (`part`: its
    // place in the request, 0 first), whichever finished first.
    void partDone(int error, const CStdStr& message, int part = 0);
    // The listener of the request's next part, in request order (the reply itself when
    // it has one part). Called once per part, on one thread (the main thread's slots).
    std::shared_ptr<LogWriteListener> nextPartListener();
    // The text's log is not known: the request is answered with kUnknownSourceStatus.
    void unknownSource();

private:
    void finishPart();
    void releaseRoom();

    // Immutable after construction.
    KibDeferredReply reply_;
    const std::string service_;

    std::atomic<int> remaining_{0};
    // Set by holdRoom(), taken by releaseRoom() (the last part, or the destructor).
    std::shared_ptr<RemoteLogBacklog> backlog_;
    std::shared_ptr<RemoteLogDeviceQuota> quota_;
    CStdStr roomMac_;
    std::size_t roomBytes_ = 0;
    PMutex mutex_;
    std::string failure_ NIMB_GUARDED_BY(mutex_);  // the failure of the earliest part
    int failurePart_ NIMB_GUARDED_BY(mutex_) = 0;
    const int parts_ = 1;
    int partsHandedOut_ = 0;  // by nextPartListener(), one thread
    bool unknown_ NIMB_GUARDED_BY(mutex_) = false;
};
