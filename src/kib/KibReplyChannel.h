// SPDX-License-Identifier: MIT
// KibReplyChannel: the way back to the requesters of one connection, shared by every
// reply still to be sent (deferred ones included), so that a reply completed after its
// satellite disconnected finds a closed channel instead of a destroyed connection.
// Replies completed inside a KibReplyBatch go through the satellite's reply link, when
// it has one, and are held there until the batch ends.
// KibDeferredReplyState: one request's pending reply. Internal to the bus library;
// any thread.
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include <nats/nats.h>

#include "KibCodec.h"
#include "KibReply.h"
#include "KibReplyLink.h"
#include "PMutex.h"

class KibReplyChannel : public std::enable_shared_from_this<KibReplyChannel> {
public:
    // `link` (may be null) carries the replies of batches; it outlives close().
    explicit KibReplyChannel(natsConnection* connection, KibReplyLink* link = nullptr)
        : connection_(connection), link_(link) {}
    KibReplyChannel(const KibReplyChannel&) = delete;
    KibReplyChannel& operator=(const KibReplyChannel&) = delete;
    ~KibReplyChannel() = default;

    // Encodes `reply` and publishes it on `subject` (nothing for an empty subject, a
    // one-way request). A reply that cannot be encoded goes out as a library error.
    // Inside a batch on this thread it is held on the link until release(). Dropped once
    // the channel is closed. Any thread. A channel made by make_shared only.
    void send(const std::string& subject, KibReply& reply);
    // Writes the replies that batches hold on the link. Any thread.
    void release();
    // From now on send() drops everything and release() does nothing; waits for a send
    // in progress. Management thread, before the connection and the link are closed.
    void close();

private:
    // Immutable after construction.
    const KibCodecLimits limits_{};
    PMutex mutex_;
    natsConnection* connection_ NIMB_GUARDED_BY(mutex_) = nullptr;  // null once closed
    KibReplyLink* link_ NIMB_GUARDED_BY(mutex_) = nullptr;          // null once closed
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
