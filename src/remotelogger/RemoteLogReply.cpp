// SPDX-License-Identifier: MIT
#include "RemoteLogReply.h"

#include "CollectorStats.h"
#include "KibVariantHolder.h"

const char* const RemoteLogReply::kUnknownSourceText =
    "AppendLog: unknown source: announce it with SetLogSource first";

RemoteLogReply::RemoteLogReply(KibDeferredReply reply, const char* service, int parts)
    : reply_(std::move(reply)), service_(service), remaining_(parts > 0 ? parts : 1) {}

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
