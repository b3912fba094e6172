// SPDX-License-Identifier: MIT
// KibReplyChannel: the way back to the requesters of one connection, shared by every
// reply still to be sent (deferred ones included), so that a reply completed after its
// satellite disconnected finds a closed channel instead of a destroyed connection.
// KibDeferredReplyState: one request's pending reply. Internal to the bus library;
// any thread.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include <nats/nats.h>

#include "KibCodec.h"
#include "KibReply.h"
#include "PMutex.h"

class KibReplyChannel {
public:
    explicit KibReplyChannel(natsConnection* connection) : connection_(connection) {}
    KibReplyChannel(const KibReplyChannel&) = delete;
    KibReplyChannel& operator=(const KibReplyChannel&) = delete;
    ~KibReplyChannel() = default;

    // Encodes `reply` and publishes it on `subject` (nothing for an empty subject, a
    // one-way request). A reply that cannot be encoded goes out as a library error.
    // Dropped once the channel is closed. Any thread.
    void send(const std::string& subject, KibReply& reply);
    // From now on send() drops everything; waits for a send in progress. Management
    // thread, before the connection is closed.
    void close();

private:
    // Immutable after construction.
    const KibCodecLimits limits_{};
    PMutex mutex_;
    natsConnection* connection_ NIMB_GUARDED_BY(mutex_) = nullptr;  // null once closed
};

struct KibDeferredReplyState {
    KibDeferredReplyState(std::shared_ptr<KibReplyChannel> replyChannel, std::string replyTo)
        : channel(std::move(replyChannel)), subject(std::move(replyTo)) {}

    // Claims the one completion; false when it was already taken.
    bool claim() { return !done.exchange(true); }

    // Immutable after construction.
    const std::shared_ptr<KibReplyChannel> channel;
    const std::string subject;
    std::atomic<bool> done{false};
};
