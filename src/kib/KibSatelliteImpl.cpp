// SPDX-License-Identifier: MIT
#include "KibSatelliteImpl.h"

#include <algorithm>
#include <chrono>
#include <random>

#include "KibCredentials.h"
#include "KibLog.h"
#include "KibSatellite.h"
#include "KibSubjects.h"

namespace {

// How long Connect waits for the directory, and how long teardown waits for a
// running handler or the client's close notification.
constexpr int kConnectTimeoutMs = 2000;
constexpr auto kTeardownWait = std::chrono::seconds(5);
constexpr int kFlushTimeoutMs = 2000;
// Reconnection: every 250 ms by default plus the client's jitter (at most 100 ms, and
// never more than the wait itself), without end.
constexpr int kReconnectJitterMs = 100;
constexpr int kReconnectJitterTlsMs = 1000;
// Dead-server detection: a ping every 2 s, two unanswered pings drop the connection.
constexpr int kPingIntervalMs = 2000;
constexpr int kMaxPingsOut = 2;
// What may wait in one subscription's queue while its handler is busy; beyond it the
// client drops messages (the requester then times out).
constexpr int kPendingMessages = 1024;
constexpr int kPendingBytes = 64 * 1024 * 1024;

void onMessageThunk(natsConnection* nc, natsSubscription* sub, natsMsg* msg, void* closure) {
    auto* s = static_cast<KibSubscription*>(closure);
    s->impl->onMessage(*s, nc, msg);
    // Any drop leaves a full queue behind it, so a message handled here follows it.
    s->impl->reportDrops(*s, sub, false);
}

// The client's promise that the subscription's handler will not run again.
void onCompleteThunk(void* closure) {
    auto* s = static_cast<KibSubscription*>(closure);
    bool orphaned = false;
    {
        const std::lock_guard<std::mutex> lock(s->mutex);
        s->complete = true;
        orphaned = s->orphaned;
        s->completed.notify_all();
    }
    if (orphaned) delete s;
}

KibConnectionLink& linkOf(void* closure) {
    return **static_cast<std::shared_ptr<KibConnectionLink>*>(closure);
}

void onDisconnectedThunk(natsConnection*, void* closure) {
    KibConnectionLink& link = linkOf(closure);
    const std::lock_guard<std::mutex> lock(link.mutex);
    if (link.owner != nullptr) link.owner->onDisconnected();
}

void onReconnectedThunk(natsConnection*, void* closure) {
    KibConnectionLink& link = linkOf(closure);
    link.refusals.clearCredentials();
    const std::lock_guard<std::mutex> lock(link.mutex);
    if (link.owner != nullptr) link.owner->onReconnected();
}

// The last callback of a connection: releases the closure. With the owner still set the
// close was not asked for: the client gave up (the server refused the credentials).
void onClosedThunk(natsConnection* nc, void* closure) {
    auto* holder = static_cast<std::shared_ptr<KibConnectionLink>*>(closure);
    {
        KibConnectionLink& link = **holder;
        const std::lock_guard<std::mutex> lock(link.mutex);
        if (link.owner != nullptr) {
            const char* detail = nullptr;
            natsConnection_GetLastError(nc, &detail);
            link.owner->onClosedByServer(detail != nullptr ? detail : "",
                                         !link.refusals.credentials().empty());
        }
        link.closed = true;
        link.closedSignal.notify_all();
    }
    delete holder;
}

std::uint32_t randomInstanceId() {
    std::random_device device;
    std::uniform_int_distribution<std::uint32_t> distribution(1, 0x7FFFFFFF);
    return distribution(device);
}

KibNatsOptions makeOptions(const char* name) {
    natsOptions* raw = nullptr;
    if (KibNats::createOptions(&raw) != NATS_OK) return nullptr;
    KibNatsOptions options(raw);
    if (name != nullptr) natsOptions_SetName(raw, name);
    natsOptions_SetSendAsap(raw, true);
    natsOptions_SetTimeout(raw, kConnectTimeoutMs);
    return options;
}

// The client's status text with its detail (the server's refusal, the TLS error),
// without the client's source location ("(conn.c:123): ").
std::string failureText(natsStatus status) {
    std::string text = natsStatus_GetText(status);
    std::string detail = nats_GetLastError(nullptr) != nullptr ? nats_GetLastError(nullptr) : "";
    const std::size_t location = detail.find("): ");
    if (!detail.empty() && detail.front() == '(' && location != std::string::npos)
        detail.erase(0, location + 3);
    if (!detail.empty() && detail != text) text += ": " + detail;
    return text;
}

// Errors the server reports on a working connection (a refused subscription or
// publication, a failed reconnection). With a connection link as `closure` they are
// recorded in its refusals first. Each distinct text is logged once in a row, so a
// server that keeps refusing does not fill the log.
void onAsyncErrorThunk(natsConnection* nc, natsSubscription*, natsStatus status, void* closure) {
    static std::mutex mutex;
    static std::string last;
    const char* detail = nullptr;
    natsConnection_GetLastError(nc, &detail);
    const std::string server = detail != nullptr ? detail : "";
    if (closure != nullptr) linkOf(closure).refusals.record(status, server);
    const std::string text = std::string(natsStatus_GetText(status)) +
                             (!server.empty() ? std::string(": ") + server : std::string());
    const std::lock_guard<std::mutex> lock(mutex);
    if (text == last) return;
    last = text;
    KibLog::error("Bus server reports: %s", text.c_str());
}

}  // namespace

KibSatelliteImpl::KibSatelliteImpl(KibSatellite& owner) : owner_(owner) {}

KibSatelliteImpl::~KibSatelliteImpl() { disconnect(); }

bool KibSatelliteImpl::configure(natsOptions* raw, const std::vector<std::string>& urls,
                                 std::string& inboxPrefix, std::string* user) {
    std::vector<const char*> servers;
    for (const std::string& address : urls) servers.push_back(address.c_str());
    natsOptions_SetServers(raw, servers.data(), static_cast<int>(servers.size()));
    // The order given is the order of preference: the first server, then the next.
    natsOptions_SetNoRandomize(raw, true);
    natsOptions_SetErrorHandler(raw, &onAsyncErrorThunk, nullptr);
    if (!options_.caFile.empty()) {
        natsOptions_SetSecure(raw, true);
        if (natsOptions_LoadCATrustedCertificates(raw, options_.caFile.c_str()) != NATS_OK) {
            setLastError(KibNats::redacted(urls),
                         "cannot load the certificate authority file " + options_.caFile);
            return false;
        }
    }
    KibCredentials credentials;
    if (!options_.credentialsFile.empty()) {
        std::string error;
        std::string warning;
        if (!KibCredentials::load(options_.credentialsFile, credentials, error, warning)) {
            setLastError(KibNats::redacted(urls), error);
            return false;
        }
        if (!warning.empty()) KibLog::error("%s", warning.c_str());
    } else if (!user_.empty()) {
        credentials.kind = KibCredentials::Kind::Password;
        credentials.user = user_;
        credentials.password = password_;
    }
    if (credentials.kind == KibCredentials::Kind::Password) {
        natsOptions_SetUserInfo(raw, credentials.user.c_str(), credentials.password.c_str());
    } else if (credentials.kind == KibCredentials::Kind::CredsFile) {
        natsOptions_SetUserCredentialsFromFiles(raw, credentials.path.c_str(), nullptr);
    }
    const bool named = KibNats::isValidName(credentials.user.c_str());
    inboxPrefix = named ? credentials.inboxPrefix() : std::string("_INBOX");
    if (user != nullptr) *user = named ? credentials.user : std::string();
    return true;
}

void KibSatelliteImpl::setLastError(const std::string& where, const std::string& text) {
    if (!text.empty()) {
        KibLog::error("Cannot connect to the bus directory %s: %s", where.c_str(), text.c_str());
    }
    const PMutexLocker lock(errorMutex_);
    lastError_ = text;
}

std::string KibSatelliteImpl::lastError() const {
    const PMutexLocker lock(errorMutex_);
    return lastError_;
}

natsStatus KibSatelliteImpl::open(natsConnection** connection, natsOptions* raw,
                                  const std::string& where) {
    const natsStatus status = natsConnection_Connect(connection, raw);
    std::string why = status == NATS_OK ? std::string() : failureText(status);
    if (status == NATS_SSL_ERROR && options_.caFile.empty()) {
        why += " (the server requires TLS: give the certificate authority file of the bus)";
    }
    setLastError(where, why);
    return status;
}

// Reconnection without end, every reconnectWaitMs_ plus jitter, and dead-server detection.
void KibSatelliteImpl::setReconnection(natsOptions* raw) const {
    natsOptions_SetMaxReconnect(raw, -1);
    const int reconnectWait = reconnectWaitMs_.load();
    natsOptions_SetReconnectWait(raw, reconnectWait);
    natsOptions_SetReconnectJitter(raw, std::min(kReconnectJitterMs, reconnectWait),
                                   std::min(kReconnectJitterTlsMs, reconnectWait));
    natsOptions_SetPingInterval(raw, kPingIntervalMs);
    natsOptions_SetMaxPingsOut(raw, kMaxPingsOut);
}

std::unique_ptr<KibReplyLink> KibSatelliteImpl::openReplyLink(const std::vector<std::string>& urls,
                                                              const char* satelliteName) {
    std::string error = "cannot set its options";
    KibNatsOptions options = makeOptions(satelliteName);
    std::string inboxPrefix;
    std::unique_ptr<KibReplyLink> replyLink;
    if (options && configure(options.get(), urls, inboxPrefix)) {
        setReconnection(options.get());
        replyLink = KibReplyLink::open(options.get(), error);
    }
    if (!replyLink) {
        KibLog::error("Replies of %s leave one by one: no reply connection (%s)", satelliteName,
                      error.c_str());
    }
    return replyLink;
}

int KibSatelliteImpl::connect(const char* host, const char* satelliteName) {
    if (connection_ != nullptr) return KIB_E_ALREADY_CONNECTED;
    const std::vector<std::string> urls = KibNats::urls(host, 0);
    if (urls.empty() || !KibNats::isValidName(satelliteName)) return KIB_E_INVALID_ARGUMENT;
    const std::string where = KibNats::redacted(urls);
    KibNatsOptions options = makeOptions(satelliteName);
    if (!options) return KIB_E_TRANSPORT;
    natsOptions* raw = options.get();
    if (!configure(raw, urls, inboxPrefix_, &connectedUser_)) return KIB_E_CONNECT_FAILED;
    setReconnection(raw);
    auto link = std::make_shared<KibConnectionLink>();
    auto* holder = new std::shared_ptr<KibConnectionLink>(link);
    natsOptions_SetDisconnectedCB(raw, &onDisconnectedThunk, holder);
    natsOptions_SetReconnectedCB(raw, &onReconnectedThunk, holder);
    natsOptions_SetClosedCB(raw, &onClosedThunk, holder);
    natsOptions_SetErrorHandler(raw, &onAsyncErrorThunk, holder);

    natsConnection* connection = nullptr;
    const natsStatus opened = open(&connection, raw, where);
    if (opened != NATS_OK) {
        delete holder;  // no connection, so no callback will ever see it
        return opened == NATS_CONNECTION_AUTH_FAILED ? KIB_E_NOT_PERMITTED : KIB_E_CONNECT_FAILED;
    }
    connection_.reset(connection);
    link_ = link;
    if (options_.batchReplies) replyLink_ = openReplyLink(urls, satelliteName);
    replies_ = std::make_shared<KibReplyChannel>(connection, replyLink_.get());
    name_ = satelliteName;
    instance_ = randomInstanceId();
    {
        const std::lock_guard<std::mutex> lock(link->mutex);
        link->owner = this;
    }
    char connectedUrl[256] = "";
    natsConnection_GetConnectedUrl(connection, connectedUrl, sizeof connectedUrl);
    KibLog::info("Connected to %s as %s (%u)", KibNats::redacted(connectedUrl).c_str(),
                 name_.c_str(), instance_);

    int result = subscribeControl();
    if (result == KIB_OK) result = owner_.CreateServices();
    if (result == KIB_OK) result = owner_.RegisterServices();
    if (result != KIB_OK) {
        KibLog::error("Satellite %s not registered: %d", name_.c_str(), result);
        disconnect();
        return result;
    }
    flush();
    return KIB_OK;
}

void KibSatelliteImpl::setUser(const char* user, const char* password) {
    user_ = user != nullptr ? user : "";
    password_ = password != nullptr ? password : "";
}

int KibSatelliteImpl::disconnect() {
    if (connection_ == nullptr) return KIB_OK;
    {
        // No connection-state notifications from here on: the satellite may be halfway
        // through its destruction.
        const std::lock_guard<std::mutex> lock(link_->mutex);
        link_->owner = nullptr;
    }
    unregisterServices(true);
    std::map<std::string, std::unique_ptr<KibSubscription>> listeners;
    {
        const PMutexLocker lock(mutex_);
        listeners.swap(listeners_);
        availability_.clear();
    }
    for (auto& [name, listener] : listeners) unsubscribe(std::move(listener));
    for (auto& control : control_) unsubscribe(std::move(control));
    control_.clear();
    flush();
    closeConnection();
    name_.clear();
    connectedUser_.clear();
    instance_ = 0;
    return KIB_OK;
}

// Closes the connection and waits (boundedly) for the client's last callback. Replies
// completed from now on are dropped.
void KibSatelliteImpl::closeConnection() {
    // Kept (closed) until the next connect: a handler orphaned by a slow teardown may
    // still read it.
    replies_->close();
    if (replyLink_) {
        replyLink_->close();  // writes what batches still hold
        replyLink_.reset();
    }
    natsConnection_Close(connection_.get());
    {
        std::unique_lock<std::mutex> lock(link_->mutex);
        if (!link_->closedSignal.wait_for(lock, kTeardownWait, [&] { return link_->closed; })) {
            KibLog::error("The bus connection did not report its close");
        }
    }
    connection_.reset();
    link_.reset();
}

std::unique_ptr<KibSubscription> KibSatelliteImpl::makeSubscription(KibSubscription::Kind kind,
                                                                    const std::string& name) {
    auto s = std::make_unique<KibSubscription>();
    s->impl = this;
    s->kind = kind;
    s->name = name;
    return s;
}

int KibSatelliteImpl::subscribe(KibSubscription& s, const std::string& subject, bool queue) {
    s.subject = subject;  // before the first message can arrive
    natsSubscription* sub = nullptr;
    natsStatus status =
        queue ? natsConnection_QueueSubscribe(&sub, connection_.get(), subject.c_str(),
                                              name_.c_str(), &onMessageThunk, &s)
              : natsConnection_Subscribe(&sub, connection_.get(), subject.c_str(), &onMessageThunk,
                                         &s);
    s.sub.reset(sub);
    if (status == NATS_OK)
        status = natsSubscription_SetOnCompleteCB(s.sub.get(), &onCompleteThunk, &s);
    if (status == NATS_OK) {
        status = natsSubscription_SetPendingLimits(s.sub.get(), kPendingMessages, kPendingBytes);
    }
    if (status != NATS_OK) {
        KibLog::error("Cannot subscribe to %s: %s", subject.c_str(), natsStatus_GetText(status));
        s.sub.reset();
        return KibNats::toStatus(status);
    }
    return KIB_OK;
}

void KibSatelliteImpl::reportDrops(KibSubscription& s, natsSubscription* sub, bool final) {
    std::int64_t total = 0;
    if (natsSubscription_GetDropped(sub, &total) != NATS_OK) return;
    const std::int64_t count = s.drops.take(total, KibDropReport::Clock::now(), final);
    if (count <= 0) return;
    KibLog::error("Dropped %lld messages to %s: more than %d were waiting",
                  static_cast<long long>(count), s.subject.c_str(), kPendingMessages);
}

// Stops the subscription and waits until its handler has returned for the last time.
// If that takes too long (or this runs inside that handler) the subscription object
// is handed to its completion callback, which deletes it later.
void KibSatelliteImpl::unsubscribe(std::unique_ptr<KibSubscription> s) {
    if (s && s->perUser) unsubscribe(std::move(s->perUser));
    if (!s || s->sub == nullptr) return;
    reportDrops(*s, s->sub.get(), true);
    natsSubscription_Unsubscribe(s->sub.get());
    s->sub.reset();
    std::unique_lock<std::mutex> lock(s->mutex);
    if (s->completed.wait_for(lock, kTeardownWait, [&] { return s->complete; })) return;
    KibLog::error("Handler of %s still running; releasing it later", s->name.c_str());
    s->orphaned = true;
    lock.unlock();
    s.release();  // deleted by onCompleteThunk
}

int KibSatelliteImpl::subscribeControl() {
    const std::pair<KibSubscription::Kind, std::string> subjects[] = {
        {KibSubscription::Kind::Ping, KibSubjects::ping(name_)},
        {KibSubscription::Kind::Discover, KibSubjects::discover(name_)},
        {KibSubscription::Kind::Discover, KibSubjects::discover("*")},
    };
    for (const auto& [kind, subject] : subjects) {
        auto s = makeSubscription(kind, name_);
        const int status = subscribe(*s, subject, kind == KibSubscription::Kind::Ping);
        if (status != KIB_OK) return status;
        control_.push_back(std::move(s));
    }
    return KIB_OK;
}

// The service's own subject, for requests that name no user, and "<subject>.*" for those
// that do (KibSubjects::service with a user): one queue group, one delegate.
int KibSatelliteImpl::subscribeService(KibSubscription& s) {
    const std::string subject = KibSubjects::service(name_, s.name);
    int status = subscribe(s, subject, true);
    if (status != KIB_OK) return status;
    auto perUser = makeSubscription(KibSubscription::Kind::Service, s.name);
    perUser->isPerUser = true;
    status = subscribe(*perUser, KibSubjects::service(name_, s.name, "*"), true);
    if (status == KIB_OK) s.perUser = std::move(perUser);
    return status;
}

int KibSatelliteImpl::registerServices() {
    if (connection_ == nullptr) return KIB_E_NOT_CONNECTED;
    int result = KIB_OK;
    {
        const PMutexLocker lock(mutex_);
        for (auto& [name, service] : services_) {
            if (service->sub != nullptr) continue;
            const int status = subscribeService(*service);
            if (status != KIB_OK && result == KIB_OK) result = status;
        }
        registered_ = true;
    }
    announce(false);
    flush();
    return result;
}

// Leaves the bus before anything is taken away: the services' subscriptions are
// drained (the server stops routing requests here, and the requests already received
// are still served by the listed services), and only then are the records replaced or
// removed. So an orderly stop never answers a request with "no such service".
int KibSatelliteImpl::unregisterServices(bool removeServices) {
    std::vector<KibSubscription*> active;
    bool wasRegistered = false;
    {
        const PMutexLocker lock(mutex_);
        wasRegistered = registered_;
        registered_ = false;
        for (auto& [name, service] : services_) {
            if (service->sub != nullptr) active.push_back(service.get());
        }
    }
    if (!active.empty() && connection_ != nullptr && !connectionUp()) {
        // The client keeps the connection to itself while it tries a server, so the
        // calls below may wait for that attempt to give up.
        KibLog::info(
            "Leaving the bus without a connection: the services stop at once, "
            "after a reconnection attempt under way (at most %d ms)",
            kConnectTimeoutMs);
    }
    if (wasRegistered && connection_ != nullptr) announce(true);
    // Only this (management) thread changes the service table, so the records stay put.
    for (KibSubscription* s : active) drain(*s);
    for (KibSubscription* s : active) waitForCompletion(*s);

    std::vector<std::unique_ptr<KibSubscription>> stopped;
    {
        const PMutexLocker lock(mutex_);
        for (auto& [name, service] : services_) {
            if (service->sub == nullptr) continue;
            // Move the subscription into a fresh record so the service stays listed.
            auto drained = makeSubscription(KibSubscription::Kind::Service, name);
            std::swap(drained, service);
            if (!removeServices) {
                service->description = drained->description;
                service->delegate = std::move(drained->delegate);
            }
            stopped.push_back(std::move(drained));
        }
        if (removeServices) services_.clear();
    }
    const bool anyStopped = !stopped.empty();
    for (auto& s : stopped) unsubscribe(std::move(s));
    // As in removeService: the server must have seen the unsubscriptions before the
    // caller goes on, or a request sent right afterwards may still be routed here.
    if (anyStopped && connection_ != nullptr) flush();
    return KIB_OK;
}

bool KibSatelliteImpl::connectionUp() const {
    return connection_ != nullptr &&
           natsConnection_Status(connection_.get()) == NATS_CONN_STATUS_CONNECTED;
}

// A flush needs the server's answer: while the connection is lost it would only wait
// out its timeout, and nothing sent meanwhile reaches a server anyway.
void KibSatelliteImpl::flush() {
    if (connectionUp()) natsConnection_FlushTimeout(connection_.get(), kFlushTimeoutMs);
}

// Stops the server's deliveries to `s` while its handler works through what already
// arrived; without a connection to tell the server, the subscription just ends: a drain
// would wait out its whole timeout for the server's answer, and the requests not yet
// handled could not be answered anyway (their senders send them again).
void KibSatelliteImpl::drain(KibSubscription& s) {
    if (s.perUser) drain(*s.perUser);
    reportDrops(s, s.sub.get(), true);
    if (!connectionUp()) {
        natsSubscription_Unsubscribe(s.sub.get());
        return;
    }
    const natsStatus status = natsSubscription_DrainTimeout(
        s.sub.get(), std::chrono::duration_cast<std::chrono::milliseconds>(kTeardownWait).count());
    if (status != NATS_OK) natsSubscription_Unsubscribe(s.sub.get());
}

// Waits (boundedly) until the handler of a drained subscription returned for the last time.
void KibSatelliteImpl::waitForCompletion(KibSubscription& s) {
    if (s.perUser) waitForCompletion(*s.perUser);
    std::unique_lock<std::mutex> lock(s.mutex);
    s.completed.wait_for(lock, kTeardownWait + std::chrono::seconds(1), [&] { return s.complete; });
}

int KibSatelliteImpl::addService(const char* name, const char* description,
                                 std::unique_ptr<KibSatelliteDelegateGeneric> delegate) {
    if (!KibNats::isValidName(name) || !delegate) return KIB_E_INVALID_ARGUMENT;
    int result = KIB_OK;
    {
        const PMutexLocker lock(mutex_);
        if (services_.count(name) != 0) return KIB_E_DUPLICATE_SERVICE;
        auto service = makeSubscription(KibSubscription::Kind::Service, name);
        service->description = description != nullptr ? description : "";
        service->delegate = std::move(delegate);
        if (registered_ && connection_ != nullptr) {
            result = subscribeService(*service);
        }
        if (result == KIB_OK) services_.emplace(name, std::move(service));
    }
    if (result == KIB_OK && isRegistered() && connection_ != nullptr) {
        announce(false);
        flush();
    }
    return result;
}

int KibSatelliteImpl::removeService(const char* name) {
    if (name == nullptr) return KIB_E_INVALID_ARGUMENT;
    std::unique_ptr<KibSubscription> service;
    {
        const PMutexLocker lock(mutex_);
        const auto found = services_.find(name);
        if (found == services_.end()) return KIB_E_NO_SUCH_SERVICE;
        service = std::move(found->second);
        services_.erase(found);
    }
    if (isRegistered() && connection_ != nullptr) announce(false);
    if (service->sub != nullptr) {
        unsubscribe(std::move(service));
        flush();
    }
    return KIB_OK;
}

int KibSatelliteImpl::dispatch(const char* caller, const char* service, const VARIANT& in,
                               VARIANT* out, int* result) {
    KibSatelliteDelegateGeneric* delegate = nullptr;
    {
        const PMutexLocker lock(mutex_);
        const auto found = services_.find(service != nullptr ? service : "");
        if (found == services_.end() || !found->second->delegate) return KIB_E_NO_SUCH_SERVICE;
        delegate = found->second->delegate.get();
    }
    // The delegate stays alive while its subscription's handler runs (this call).
    const int status = delegate->Invoke(caller, in, out);
    if (result != nullptr) *result = status;
    return KIB_OK;
}

bool KibSatelliteImpl::isRegistered() {
    const PMutexLocker lock(mutex_);
    return registered_;
}

int KibSatelliteImpl::satelliteId(int* id) const {
    if (id == nullptr) return KIB_E_INVALID_ARGUMENT;
    if (connection_ == nullptr) return KIB_E_NOT_CONNECTED;
    *id = static_cast<int>(instance_);
    return KIB_OK;
}
