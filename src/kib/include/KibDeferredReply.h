// SPDX-License-Identifier: MIT
// KibDeferredReply: the reply to one request, sent later. A service handler takes it
// with KibSatellite::DeferReply() while it serves the request; the library then sends
// nothing when the handler returns, and the reply leaves when a copy of the handle is
// completed, from any thread. Copies share one reply: the first completion is sent, the
// later ones are ignored. A reply that is never completed is never sent (the requester
// times out); one completed after its satellite disconnected is dropped.
#pragma once

#include <cstdint>
#include <memory>

#include "KibVariant.h"

struct KibDeferredReplyState;

class KibDeferredReply {
public:
    // An empty handle: completing it does nothing.
    KibDeferredReply() = default;
    KibDeferredReply(const KibDeferredReply&) = default;
    KibDeferredReply& operator=(const KibDeferredReply&) = default;
    KibDeferredReply(KibDeferredReply&&) noexcept = default;
    KibDeferredReply& operator=(KibDeferredReply&&) noexcept = default;
    ~KibDeferredReply() = default;

    // True when the handle belongs to a request (taken inside a handler).
    explicit operator bool() const { return static_cast<bool>(state_); }

    // Sends the reply a handler returning `status` with `value` (borrowed and copied;
    // null for VT_EMPTY) would send. Any thread; never throws; may block briefly on the
    // connection. False when the handle is empty or the reply was already completed.
    bool succeed(int status, const tagVARIANT* value = nullptr);
    // Sends the error reply a handler throwing KibException(message, code) would send:
    // status KIB_E_SERVICE_EXCEPTION, error kind 1, `code` and `message` (cut to 255
    // bytes like the exception's buffer). Same threads and result as succeed().
    bool fail(const char* message, std::int32_t code);

    // Library only: the handle of a request being served.
    explicit KibDeferredReply(std::shared_ptr<KibDeferredReplyState> state)
        : state_(std::move(state)) {}

private:
    std::shared_ptr<KibDeferredReplyState> state_;
};
