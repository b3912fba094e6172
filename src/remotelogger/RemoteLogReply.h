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
#include <cstdint>
#include <string>

#include "KibDeferredReply.h"
#include "PMutex.h"
#include "StdString.h"

class RemoteLogReply {
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
    ~RemoteLogReply() = default;

    // One text was written (error 0) or not (`message` names the file and the reason).
    void partDone(int error, const CStdStr& message);
    // The text's log is not known: the request is answered with kUnknownSourceStatus.
    void unknownSource();

private:
    void finishPart();

    // Immutable after construction.
    KibDeferredReply reply_;
    const std::string service_;

    std::atomic<int> remaining_{0};
    PMutex mutex_;
    std::string failure_ NIMB_GUARDED_BY(mutex_);  // the first failure
    bool unknown_ NIMB_GUARDED_BY(mutex_) = false;
};
