// SPDX-License-Identifier: MIT
#include "RemoteLogReply.h"

#include "CollectorStats.h"
#include "KibVariantHolder.h"
#include "RemoteLogBacklog.h"
#include "RemoteLogDeviceQuota.h"

const char* const RemoteLogReply::kUnknownSourceText =
    "AppendLog: unknown source: announce it with SetLogSource first";

RemoteLogReply::RemoteLogReply(KibDeferredReply reply, const char* service, int parts)
    : reply_(std::move(reply)),
      service_(service),
      remaining_(parts > 0 ? parts : 1),
      parts_(parts > 0 ? parts : 1) {}

namespace {

// One part of a reply with several: tells the reply which part it is.
class RemoteLogReplyPart : public LogWriteListener {
public:
    RemoteLogReplyPart(std::shared_ptr<RemoteLogReply> reply, int part)
        : reply_(std::move(reply)), part_(part) {}
    void writeDone(int error, const CStdStr& message) override {
        reply_->partDone(error, message, part_);
    }

private:
    const std::shared_ptr<RemoteLogReply> reply_;
    const int part_;
};

}  // namespace

std::shared_ptr<LogWriteListener> RemoteLogReply::nextPartListener() {
    if (parts_ == 1) return shared_from_this();
    return std::make_shared<RemoteLogReplyPart>(shared_from_this(), partsHandedOut_++);
}

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

void RemoteLogReply::partDone(int error, const CStdStr& message, int part) {
    if (error != 0) {
        const PMutexLocker lock(mutex_);
        if (failure_.empty() || part < failurePart_) {
            failure_ = service_ + ": " + message;
            failurePart_ = part;
        }
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
