// SPDX-License-Identifier: MIT
#include "RemoteLogReply.h"

#include "CollectorStats.h"
#include "KibVariantHolder.h"
#include "RemoteLogBacklog.h"
#include "RemoteLogDeviceQuota.h"

const char* const RemoteLogReply::kUnknownSourceText =
    "AppendLog: unknown source: announce it with SetLogSource first";

RemoteLogReply::RemoteLogReply(KibDeferredReply reply, const char* service, int parts)
    : reply_(std::move(reply)), service_(service), remaining_(parts > 0 ? parts : 1) {}

RemoteLogReply::~RemoteLogReply() { releaseRoom(); }

void RemoteLogReply::holdRoom(std::shared_ptr<RemoteLogBacklog> backlog,
                              std::shared_ptr<RemoteLogDeviceQuota> quota, const CStdStr& mac,
                              std::size_t bytes) {
    backlog_ = std::move(backlog);
    quota_ = std::move(quota);
    roomMac_ = mac;
    roomBytes_ = bytes;
}

// Only the thread of the last part (or the destructor, after it) gets here.
void RemoteLogReply::releaseRoom() {
    if (backlog_) backlog_->release(roomBytes_);
    if (quota_) quota_->release(roomMac_, roomBytes_);
    backlog_.reset();
    quota_.reset();
}

void RemoteLogReply::partDone(int error, const CStdStr& message) {
    if (error != 0) {
        const PMutexLocker lock(mutex_);
        if (failure_.empty()) failure_ = service_ + ": " + message;
    }
    finishPart();
}

void RemoteLogReply::unknownSource() {
    {
        const PMutexLocker lock(mutex_);
        unknown_ = true;
    }
    finishPart();
}

void RemoteLogReply::finishPart() {
    if (--remaining_ != 0) return;
    // The device may send again as soon as it has its reply: the room comes back first.
    releaseRoom();
    std::string failure;
    bool unknown = false;
    {
        const PMutexLocker lock(mutex_);
        failure = failure_;
        unknown = unknown_;
    }
    CollectorStats& stats = CollectorStats::global();
    if (!failure.empty()) {
        stats.countError(CollectorStats::ErrorKind::Write);
        reply_.fail(failure.c_str(), kNotWrittenCode);
    } else if (unknown) {
        stats.countError(CollectorStats::ErrorKind::Unknown);
        KibVariantHolder text;
        text.edit().vt = VT_BSTR;
        text.edit().bstrVal = SysAllocString(kUnknownSourceText);
        reply_.succeed(kUnknownSourceStatus, &text.get());
    } else {
        stats.countRequest();
        reply_.succeed(0);
    }
}
