// SPDX-License-Identifier: MIT
#include "KibReplyChannel.h"

#include <algorithm>
#include <vector>

#include "KibDeferredReply.h"
#include "KibException.h"
#include "KibLog.h"
#include "KibReplyBatch.h"
#include "KibStatus.h"

namespace {

// This thread's batches: how deep they are nested, and the channels holding replies
// completed in them.
struct ThreadBatch {
    int depth = 0;
    std::vector<std::shared_ptr<KibReplyChannel>> holding;
};
thread_local ThreadBatch t_batch;

}  // namespace

KibReplyBatch::KibReplyBatch() { ++t_batch.depth; }

KibReplyBatch::~KibReplyBatch() {
    if (--t_batch.depth > 0) return;
    std::vector<std::shared_ptr<KibReplyChannel>> holding;
    holding.swap(t_batch.holding);
    for (const auto& channel : holding) channel->release();
}

void KibReplyChannel::send(const std::string& subject, KibReply& reply) {
    if (subject.empty()) return;  // a one-way request
    std::string frame;
    std::string error;
    if (KibCodec::encodeReply(reply, frame, error, limits_) != KIB_OK) {
        KibLog::error("Reply cannot be sent: %s", error.c_str());
        const int status = KIB_E_BAD_VALUE;
        reply.status = status;
        reply.value.reset();
        reply.errorKind = KibErrorKind::Library;
        reply.errorCode = status;
        reply.errorText = "reply cannot be sent: " + error;
        KibCodec::encodeReply(reply, frame, error, limits_);
    }
    const PMutexLocker lock(mutex_);
    if (connection_ == nullptr) {
        KibLog::debug("Reply to %s dropped: disconnected", subject.c_str());
        return;
    }
    natsStatus sent = NATS_OK;
    if (t_batch.depth > 0 && link_ != nullptr) {
        sent = link_->hold(subject.c_str(), frame.data(), static_cast<int>(frame.size()));
        std::vector<std::shared_ptr<KibReplyChannel>>& holding = t_batch.holding;
        if (std::none_of(holding.begin(), holding.end(),
                         [this](const auto& channel) { return channel.get() == this; })) {
            holding.push_back(shared_from_this());
        }
    } else {
        sent = natsConnection_Publish(connection_, subject.c_str(), frame.data(),
                                      static_cast<int>(frame.size()));
    }
    if (sent != NATS_OK) KibLog::error("Reply not sent: %s", natsStatus_GetText(sent));
}

void KibReplyChannel::release() {
    const PMutexLocker lock(mutex_);
    if (link_ != nullptr) link_->release();
}

void KibReplyChannel::close() {
    const PMutexLocker lock(mutex_);
    connection_ = nullptr;
    link_ = nullptr;
}

bool KibDeferredReply::succeed(int status, const tagVARIANT* value) {
    if (!state_ || !state_->claim()) return false;
    KibReply reply;
    reply.status = status;
    if (value != nullptr && reply.value.copyFrom(*value) != S_OK) {
        reply.value.reset();
        reply.status = KIB_E_BAD_VALUE;
        reply.errorKind = KibErrorKind::Library;
        reply.errorCode = KIB_E_BAD_VALUE;
        reply.errorText = "reply cannot be sent: the value cannot be copied";
    }
    state_->channel->send(state_->subject, reply);
    return true;
}

bool KibDeferredReply::fail(const char* message, std::int32_t code) {
    if (!state_ || !state_->claim()) return false;
    // Cut like the exception's buffer, so both ways of failing read the same.
    const KibException exception(message, code);
    KibReply reply;
    reply.status = KIB_E_SERVICE_EXCEPTION;
    reply.errorKind = KibErrorKind::KibException;
    reply.errorCode = exception.code();
    reply.errorText = exception.message();
    state_->channel->send(state_->subject, reply);
    return true;
}
