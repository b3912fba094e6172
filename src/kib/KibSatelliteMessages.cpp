// SPDX-License-Identifier: MIT
// KibSatelliteImpl, second half: requests made, requests served, pings,
// announcements and connection-state callbacks.
#include <algorithm>
#include <chrono>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

#include "KibException.h"
#include "KibLog.h"
#include "KibSatellite.h"
#include "KibSatelliteImpl.h"
#include "KibSubjects.h"

namespace {

const char* const kUnknownException = "unknown exception";

// The request a thread is serving, while its handler runs.
struct KibServedRequest {
    const KibSatelliteImpl* impl = nullptr;
    std::string subject;  // where the reply goes; empty for a one-way request
    std::string user;     // the caller's user token, "" when the subject names none
    std::shared_ptr<KibDeferredReplyState> deferred;
};
thread_local KibServedRequest* t_served = nullptr;

// Marks the thread as serving `request` for the handler's lifetime.
class ServingScope {
public:
    explicit ServingScope(KibServedRequest& request) : saved_(t_served) { t_served = &request; }
    ServingScope(const ServingScope&) = delete;
    ServingScope& operator=(const ServingScope&) = delete;
    ~ServingScope() { t_served = saved_; }

private:
    KibServedRequest* saved_ = nullptr;
};

void setError(KibReply& reply, KibErrorKind kind, int status, const std::string& text) {
    reply.status = status;
    reply.value.reset();
    reply.errorKind = kind;
    reply.errorCode = status;
    reply.errorText = text;
}

}  // namespace

int KibSatelliteImpl::call(const char* satellite, const char* service, const VARIANT& in,
                           KibReply& reply, int timeoutMs, bool noReply) {
    reply = KibReply{};
    if (!KibNats::isValidName(satellite) || !KibNats::isValidName(service)) {
        setError(reply, KibErrorKind::Local, KIB_E_INVALID_ARGUMENT,
                 "invalid satellite or service name");
        return reply.status;
    }
    if (connection_ == nullptr) {
        setError(reply, KibErrorKind::Local, KIB_E_NOT_CONNECTED, "not connected to the bus");
        return reply.status;
    }
    const std::string refused = link_->refusals.credentials();
    if (!refused.empty() && natsConnection_IsClosed(connection_.get())) {
        setError(
            reply, KibErrorKind::Local, KIB_E_NOT_PERMITTED,
            "not permitted: the bus server refused this satellite's credentials (" + refused + ")");
        return reply.status;
    }
    std::string frame;
    std::string error;
    int status = KibCodec::encodeRequest(name_, in, frame, error, limits_);
    if (status != KIB_OK) {
        setError(reply, KibErrorKind::Local, status, "request cannot be sent: " + error);
        return reply.status;
    }
    // A client with a user names it, so that a server with accounts can pin it.
    const std::string subject = connectedUser_.empty()
                                    ? KibSubjects::service(satellite, service)
                                    : KibSubjects::service(satellite, service, connectedUser_);
    if (noReply) {
        const natsStatus sent = natsConnection_Publish(
            connection_.get(), subject.c_str(), frame.data(), static_cast<int>(frame.size()));
        if (sent != NATS_OK) {
            setError(reply, KibErrorKind::Local, KibNats::toStatus(sent), natsStatus_GetText(sent));
        }
        return reply.status;
    }
    KibNatsMsg msg;
    const natsStatus sent =
        request(connection_.get(), inboxPrefix_, subject, frame, timeoutMs, msg, &link_->refusals);
    if (sent != NATS_OK) {
        status = KibNats::toStatus(sent);
        std::string text = natsStatus_GetText(sent);
        if (status == KIB_E_NOT_PERMITTED) {
            text = "not permitted: the bus server does not let this account call " +
                   std::string(satellite) + "." + service + " (Permissions Violation for " +
                   subject + ")";
        } else if (status == KIB_E_NO_RESPONDERS) {
            text = "no responders: no satellite " + std::string(satellite) + " offers service " +
                   service;
        } else if (status == KIB_E_TIMEOUT) {
            text = "timeout: " + std::string(satellite) + "." + service +
                   " did not answer within " + std::to_string(timeoutMs) + " ms";
        }
        setError(reply, KibErrorKind::Local, status, text);
        return reply.status;
    }
    status = KibCodec::decodeReply(natsMsg_GetData(msg.get()),
                                   static_cast<std::size_t>(natsMsg_GetDataLength(msg.get())),
                                   reply, error, limits_);
    if (status != KIB_OK) setError(reply, KibErrorKind::Local, status, "bad reply: " + error);
    return reply.status;
}

int KibSatelliteImpl::ping(const char* host, const char* satellite, unsigned short port,
                           int timeoutMs, KIBSTATUS* status) {
    if (status != nullptr) *status = KIBSTATUS_DISCONNECTED;
    if (!KibNats::isValidName(satellite)) return KIB_E_INVALID_ARGUMENT;
    natsConnection* connection = connection_.get();
    const KibRefusals* refusals = link_ ? &link_->refusals : nullptr;
    std::string inboxPrefix = inboxPrefix_;
    KibNatsConnection temporary;
    if (host != nullptr && *host != '\0') {
        const std::vector<std::string> urls = KibNats::urls(host, port);
        if (urls.empty()) return KIB_E_INVALID_ARGUMENT;
        natsOptions* options = nullptr;
        if (KibNats::createOptions(&options) != NATS_OK) return KIB_E_TRANSPORT;
        KibNatsOptions owned(options);
        natsOptions_SetSendAsap(options, true);
        natsOptions_SetTimeout(options, timeoutMs > 0 ? timeoutMs : 2000);
        natsOptions_SetAllowReconnect(options, false);
        if (!configure(options, urls, inboxPrefix)) return KIB_E_CONNECT_FAILED;
        const natsStatus opened = open(&connection, options, KibNats::redacted(urls));
        if (opened != NATS_OK) {
            return opened == NATS_CONNECTION_AUTH_FAILED ? KIB_E_NOT_PERMITTED
                                                         : KIB_E_CONNECT_FAILED;
        }
        temporary.reset(connection);
        refusals = nullptr;
    }
    if (connection == nullptr) return KIB_E_NOT_CONNECTED;
    std::string frame;
    std::string error;
    VARIANT empty{};
    VariantInit(&empty);
    KibCodec::encodeRequest(name_, empty, frame, error, limits_);
    const std::string subject = KibSubjects::ping(satellite);
    KibNatsMsg msg;
    const natsStatus sent =
        request(connection, inboxPrefix, subject, frame, timeoutMs, msg, refusals);
    if (sent != NATS_OK) return KibNats::toStatus(sent);
    if (status != nullptr) *status = KIBSTATUS_CONNECTED;
    return KIB_OK;
}

namespace {

// How often a request waiting for its reply looks whether the server refused it.
constexpr int kRefusalCheckMs = 20;

// The next message of `sub` within `timeoutMs`; with `refusals`, NATS_NOT_PERMITTED as
// soon as `subject` or `inbox` has been refused more often than `before` times.
natsStatus nextReply(natsSubscription* sub, int timeoutMs, const KibRefusals* refusals,
                     const std::string& subject, const std::string& inbox, unsigned before,
                     natsMsg** message) {
    if (refusals == nullptr) return natsSubscription_NextMsg(message, sub, timeoutMs);
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        const int wait = static_cast<int>(std::clamp<long long>(left, 1, kRefusalCheckMs));
        const natsStatus status = natsSubscription_NextMsg(message, sub, wait);
        if (status != NATS_TIMEOUT) return status;
        if (refusals->count(subject) + refusals->count(inbox) != before) return NATS_NOT_PERMITTED;
        if (left <= wait) return NATS_TIMEOUT;
    }
}

}  // namespace

natsStatus KibSatelliteImpl::request(natsConnection* nc, const std::string& inboxPrefix,
                                     const std::string& subject, const std::string& frame,
                                     int timeoutMs, KibNatsMsg& reply,
                                     const KibRefusals* refusals) {
    natsInbox* unique = nullptr;
    natsStatus status = natsInbox_Create(&unique);
    if (status != NATS_OK) return status;
    // The client's inbox is "_INBOX.<unique>": keep the unique part under our prefix.
    const std::string created(unique);
    natsInbox_Destroy(unique);
    const std::string inbox = inboxPrefix + created.substr(created.find('.'));
    const unsigned before =
        refusals != nullptr ? refusals->count(subject) + refusals->count(inbox) : 0;
    natsSubscription* raw = nullptr;
    status = natsConnection_SubscribeSync(&raw, nc, inbox.c_str());
    KibNatsSubscription sub(raw);
    if (status == NATS_OK) status = natsSubscription_AutoUnsubscribe(raw, 1);
    if (status == NATS_OK) {
        status = natsConnection_PublishRequest(nc, subject.c_str(), inbox.c_str(), frame.data(),
                                               static_cast<int>(frame.size()));
    }
    natsMsg* message = nullptr;
    if (status == NATS_OK) {
        status = nextReply(raw, timeoutMs, refusals, subject, inbox, before, &message);
    }
    reply.reset(message);
    if (status == NATS_OK && natsMsg_IsNoResponders(message)) status = NATS_NO_RESPONDERS;
    if (status != NATS_OK && raw != nullptr) natsSubscription_Unsubscribe(raw);
    return status;
}

void KibSatelliteImpl::onMessage(KibSubscription& s, natsConnection* nc, natsMsg* msg) {
    KibNatsMsg owned(msg);
    const bool asksForReply =
        s.kind == KibSubscription::Kind::Service || s.kind == KibSubscription::Kind::Ping;
    std::string user;
    if (asksForReply && !acceptsReplySubject(s, msg, user)) return;
    switch (s.kind) {
        case KibSubscription::Kind::Service:
            serveRequest(s, nc, msg, user);
            break;
        case KibSubscription::Kind::Ping:
            servePing(nc, msg);
            break;
        case KibSubscription::Kind::Discover: {
            if (isRegistered()) announce(false);
            break;
        }
        case KibSubscription::Kind::Availability:
            onAnnouncement(msg);
            break;
    }
}

// A reply goes to the caller's own inbox only: "_INBOX." or "_INBOX_<user>." on the
// plain subject, and "_INBOX_<user>." of the very user the subject names on a per-user
// subject. Anything else would let a requester make this satellite speak on a subject
// of someone else's (a service, another user's inbox).
bool KibSatelliteImpl::acceptsReplySubject(KibSubscription& s, natsMsg* msg, std::string& user) {
    const char* replyTo = natsMsg_GetReply(msg);
    if (s.isPerUser) {
        const std::string subject = natsMsg_GetSubject(msg);
        user = subject.substr(subject.rfind('.') + 1);
    }
    if (replyTo == nullptr || *replyTo == '\0') return true;
    const char* reason = nullptr;
    if (!KibNats::isInboxSubject(replyTo)) {
        reason = "is not an inbox";
    } else if (!user.empty() && std::string_view(replyTo).rfind("_INBOX_" + user + ".", 0) != 0) {
        reason = "is not the caller's own inbox";
    }
    if (reason == nullptr) return true;
    KibLog::error(refusedRequestLog_,
                  "Refused a request for %s from \"%.64s\": its reply subject \"%.128s\" %s",
                  s.name.c_str(), user.c_str(), replyTo, reason);
    try {
        owner_.OnRequestRefused(s.name.c_str(), user.c_str(), reason);
    } catch (...) {
        KibLog::error("OnRequestRefused threw; ignored");
    }
    return false;
}

std::string KibSatelliteImpl::callerUser() const {
    if (t_served == nullptr || t_served->impl != this) return {};
    return t_served->user;
}

// One request for service `s`: decode, run the handler, answer (unless the handler
// deferred the reply). Nothing thrown by the handler leaves this function; the service
// keeps serving.
void KibSatelliteImpl::serveRequest(KibSubscription& s, natsConnection*, natsMsg* msg,
                                    const std::string& user) {
    KibReply reply;
    KibRequestFrame request;
    std::string error;
    KibServedRequest served;
    served.impl = this;
    served.user = user;
    const char* replyTo = natsMsg_GetReply(msg);
    if (replyTo != nullptr) served.subject = replyTo;
    const int decoded = KibCodec::decodeRequest(
        natsMsg_GetData(msg), static_cast<std::size_t>(natsMsg_GetDataLength(msg)), request, error,
        limits_);
    if (decoded != KIB_OK) {
        KibLog::error(refusedRequestLog_, "Refused a request for %s: %s", s.name.c_str(),
                      error.c_str());
        setError(reply, KibErrorKind::Library, decoded, "bad request: " + error);
    } else {
        const ServingScope scope(served);
        try {
            int result = 0;
            const int status = owner_.OnServiceRequested(++requestSequence_, request.caller.c_str(),
                                                         s.name.c_str(), request.value.get(),
                                                         reply.value.out(), &result);
            reply.status = status == KIB_OK ? result : status;
            if (status != KIB_OK) {
                setError(reply, KibErrorKind::Library, status,
                         "no such service: " + name_ + "." + s.name);
            }
        } catch (const KibException& e) {
            setError(reply, KibErrorKind::KibException, KIB_E_SERVICE_EXCEPTION, e.message());
            reply.errorCode = e.code();
        } catch (const std::exception& e) {
            setError(reply, KibErrorKind::StdException, KIB_E_SERVICE_EXCEPTION, e.what());
            reply.errorCode = 0;
        } catch (...) {
            setError(reply, KibErrorKind::OtherException, KIB_E_SERVICE_EXCEPTION,
                     kUnknownException);
            reply.errorCode = 0;
        }
        if (reply.failed()) {
            KibLog::debug("%s.%s failed for %s: %s", name_.c_str(), s.name.c_str(),
                          request.caller.c_str(), reply.errorText.c_str());
        }
    }
    answer(reply, served.subject.c_str(), served.deferred);
}

// Sends `reply` unless the handler deferred it and returned normally. A handler that
// threw after deferring gets its exception's reply; a later completion is then ignored.
void KibSatelliteImpl::answer(KibReply& reply, const char* subject,
                              const std::shared_ptr<KibDeferredReplyState>& deferred) {
    if (deferred && (!reply.failed() || !deferred->claim())) return;
    if (replies_) replies_->send(subject != nullptr ? subject : "", reply);
}

KibDeferredReply KibSatelliteImpl::deferReply() {
    if (t_served == nullptr || t_served->impl != this || !replies_) return KibDeferredReply();
    if (!t_served->deferred) {
        t_served->deferred = std::make_shared<KibDeferredReplyState>(replies_, t_served->subject);
    }
    return KibDeferredReply(t_served->deferred);
}

void KibSatelliteImpl::servePing(natsConnection*, natsMsg* msg) {
    KibReply reply;
    VARIANT* id = reply.value.out();
    id->vt = VT_I4;
    id->lVal = static_cast<std::int32_t>(instance_);
    answer(reply, natsMsg_GetReply(msg), nullptr);
}

void KibSatelliteImpl::announce(bool leaving) {
    KibAnnounceFrame frame;
    frame.satellite = name_;
    frame.instance = instance_;
    frame.leaving = leaving;
    {
        const PMutexLocker lock(mutex_);
        for (const auto& [name, service] : services_) {
            if (leaving || service->sub != nullptr) frame.services.push_back(name);
        }
    }
    std::string data;
    std::string error;
    if (KibCodec::encodeAnnounce(frame, data, error, limits_) != KIB_OK) {
        KibLog::error("Announcement not sent: %s", error.c_str());
        return;
    }
    const std::string subject = KibSubjects::avail(name_);
    natsConnection_Publish(connection_.get(), subject.c_str(), data.data(),
                           static_cast<int>(data.size()));
}

void KibSatelliteImpl::discover(const std::string& satellite) {
    std::string data;
    KibCodec::encodeDiscover(name_, data);
    const std::string subject = KibSubjects::discover(satellite);
    natsConnection_Publish(connection_.get(), subject.c_str(), data.data(),
                           static_cast<int>(data.size()));
}

int KibSatelliteImpl::addListener(const char* satellite) {
    if (satellite == nullptr) return KIB_E_INVALID_ARGUMENT;
    const std::string name = satellite;
    if (name != "*" && !KibNats::isValidName(satellite)) return KIB_E_INVALID_ARGUMENT;
    if (connection_ == nullptr) return KIB_E_NOT_CONNECTED;
    {
        const PMutexLocker lock(mutex_);
        if (listeners_.count(name) != 0) return KIB_OK;
        auto listener = makeSubscription(KibSubscription::Kind::Availability, name);
        const int status = subscribe(*listener, KibSubjects::avail(name), false);
        if (status != KIB_OK) return status;
        listeners_.emplace(name, std::move(listener));
    }
    natsConnection_FlushTimeout(connection_.get(), 2000);
    discover(name);
    return KIB_OK;
}

int KibSatelliteImpl::removeListener(const char* satellite) {
    if (satellite == nullptr) return KIB_E_INVALID_ARGUMENT;
    std::unique_ptr<KibSubscription> listener;
    {
        const PMutexLocker lock(mutex_);
        const auto found = listeners_.find(satellite);
        if (found == listeners_.end()) return KIB_E_INVALID_ARGUMENT;
        listener = std::move(found->second);
        listeners_.erase(found);
        if (listeners_.count("*") == 0) {
            if (std::string(satellite) == "*") {
                availability_.clear();
            } else {
                availability_.forget(satellite);
            }
        }
    }
    unsubscribe(std::move(listener));
    return KIB_OK;
}

void KibSatelliteImpl::onAnnouncement(natsMsg* msg) {
    KibAnnounceFrame frame;
    std::string error;
    if (KibCodec::decodeAnnounce(natsMsg_GetData(msg),
                                 static_cast<std::size_t>(natsMsg_GetDataLength(msg)), frame, error,
                                 limits_) != KIB_OK) {
        KibLog::error("Ignored an announcement: %s", error.c_str());
        return;
    }
    std::vector<KibAvailabilityEvent> events;
    {
        const PMutexLocker lock(mutex_);
        events = availability_.apply(frame);
    }
    for (const KibAvailabilityEvent& event : events) {
        try {
            owner_.OnServiceAvailabilityChanged(event.satellite.c_str(), event.service.c_str(),
                                                event.available ? 1 : 0);
        } catch (...) {
            KibLog::error("OnServiceAvailabilityChanged threw; ignored");
        }
    }
}

void KibSatelliteImpl::onDisconnected() {
    lostAt_ = std::chrono::steady_clock::now().time_since_epoch().count();
    KibLog::error("Lost the bus connection of %s; reconnecting", name_.c_str());
    try {
        owner_.OnStatusChange(KIB_E_CONNECTION_LOST, KIBSTATUS_RECONNECTING);
    } catch (...) {
        KibLog::error("OnStatusChange threw; ignored");
    }
}

void KibSatelliteImpl::onClosedByServer(const std::string& why, bool credentialsRefused) {
    KibLog::error("The bus connection of %s was closed: %s; not reconnecting", name_.c_str(),
                  why.empty() ? "the server gave no reason" : why.c_str());
    try {
        owner_.OnStatusChange(credentialsRefused ? KIB_E_NOT_PERMITTED : KIB_E_CONNECTION_LOST,
                              KIBSTATUS_DISCONNECTED);
    } catch (...) {
        KibLog::error("OnStatusChange threw; ignored");
    }
}

std::string KibSatelliteImpl::credentialsRefusal() const {
    return link_ ? link_->refusals.credentials() : std::string();
}

// Back on the bus: the client has restored the subscriptions; tell the others what is
// offered again and ask the watched satellites for theirs, which may have changed.
void KibSatelliteImpl::onReconnected() {
    char url[256] = "the bus";
    natsConnection_GetConnectedUrl(connection_.get(), url, sizeof url);
    const std::chrono::steady_clock::duration lost(lostAt_.load());
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch() - lost)
            .count();
    // At error level, like the loss, so that both show at the default level.
    KibLog::error("Reconnected %s to %s after %.1f s", name_.c_str(), url, seconds);
    std::vector<std::string> watched;
    bool registered = false;
    {
        const PMutexLocker lock(mutex_);
        registered = registered_;
        for (const auto& [name, listener] : listeners_) watched.push_back(name);
    }
    if (registered) announce(false);
    for (const std::string& satellite : watched) discover(satellite);
    try {
        owner_.OnStatusChange(KIB_OK, KIBSTATUS_CONNECTED);
    } catch (...) {
        KibLog::error("OnStatusChange threw; ignored");
    }
}
