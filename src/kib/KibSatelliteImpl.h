// SPDX-License-Identifier: MIT
// KibSatelliteImpl: the machinery behind one KibSatellite: the NATS connection, the
// subscriptions of its services and of the bus's control subjects, the announcements
// and the request/reply exchange. Owned by its KibSatellite. Management calls come
// from one thread at a time; message and connection callbacks run on the NATS
// client's threads and find their way back here through KibSubscription and
// KibConnectionLink.
//
// The subjects it uses are built by KibSubjects.h (satellite and service names are
// single subject tokens).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <nats/nats.h>

#include "KibAvailability.h"
#include "KibCodec.h"
#include "KibConnectOptions.h"
#include "KibDeferredReply.h"
#include "KibDropReport.h"
#include "KibLog.h"
#include "KibNats.h"
#include "KibRefusals.h"
#include "KibReply.h"
#include "KibReplyChannel.h"
#include "KibReplyLink.h"
#include "KibSatelliteDelegate.h"
#include "KibStatus.h"
#include "PMutex.h"
#include "ThreadAnnotations.h"

class KibSatellite;
class KibSatelliteImpl;

// One subscription and the closure its callbacks receive. Once subscribed it lives
// until the client reports that its handler will not run again (or, if that report
// is late, until the report arrives: see KibSatelliteImpl::unsubscribe).
struct KibSubscription {
    enum class Kind { Service, Ping, Discover, Availability };

    KibSatelliteImpl* impl = nullptr;
    Kind kind = Kind::Service;
    std::string name;  // service name, or the watched satellite
    std::string subject;
    std::string description;
    std::unique_ptr<KibSatelliteDelegateGeneric> delegate;
    KibNatsSubscription sub;
    KibDropReport drops;  // what the client dropped from its full queue
    // A service's second subscription, to "<subject>.*" (the requests that name their
    // user), in the same queue group; it shares the service record's delegate by name.
    std::unique_ptr<KibSubscription> perUser;
    bool isPerUser = false;  // this is such a subscription

    std::mutex mutex;
    std::condition_variable completed;
    bool complete = false;  // guarded by mutex
    bool orphaned = false;  // guarded by mutex: the completion callback deletes it
};

// The connection callbacks' closure; `owner` is cleared before the connection closes.
struct KibConnectionLink {
    std::mutex mutex;
    std::condition_variable closedSignal;
    KibSatelliteImpl* owner = nullptr;  // guarded by mutex
    bool closed = false;                // guarded by mutex
    KibRefusals refusals;               // its own lock
};

class KibSatelliteImpl {
public:
    explicit KibSatelliteImpl(KibSatellite& owner);
    KibSatelliteImpl(const KibSatelliteImpl&) = delete;
    KibSatelliteImpl& operator=(const KibSatelliteImpl&) = delete;
    ~KibSatelliteImpl();

    int connect(const char* host, const char* satelliteName);
    void setUser(const char* user, const char* password);
    void setConnectOptions(const KibConnectOptions& options) { options_ = options; }
    // Why the last connect (or ping connection) failed, "" after a success. Any thread.
    std::string lastError() const;
    int disconnect();
    int call(const char* satellite, const char* service, const VARIANT& in, KibReply& reply,
             int timeoutMs, bool noReply);
    int ping(const char* host, const char* satellite, unsigned short port, int timeoutMs,
             KIBSTATUS* status);
    int satelliteId(int* id) const;
    int addListener(const char* satellite);
    int removeListener(const char* satellite);
    int registerServices();
    int unregisterServices(bool removeServices);
    int addService(const char* name, const char* description,
                   std::unique_ptr<KibSatelliteDelegateGeneric> delegate);
    int removeService(const char* name);
    // Runs the named service's delegate (the library's OnServiceRequested).
    int dispatch(const char* caller, const char* service, const VARIANT& in, VARIANT* out,
                 int* result);

    // The reply of the request this thread is serving for this satellite, which is then
    // not answered when its handler returns; empty outside a handler.
    KibDeferredReply deferReply();
    // The user token of the request this thread is serving for this satellite; "" for
    // none, or outside a handler.
    std::string callerUser() const;
    // The user of connection_ ("" without one). Management thread.
    const std::string& user() const { return connectedUser_; }

    void setRequestTimeout(int timeoutMs) { requestTimeoutMs_ = timeoutMs; }
    void setReconnectWait(int waitMs) { reconnectWaitMs_ = waitMs; }
    int requestTimeout() const { return requestTimeoutMs_; }
    const std::string& name() const { return name_; }

    // Callbacks from the NATS client's threads.
    void onMessage(KibSubscription& s, natsConnection* nc, natsMsg* msg);
    // Logs (rate-limited) what the client dropped from `sub`'s full queue; `final` for
    // the last look before it ends. Any thread.
    void reportDrops(KibSubscription& s, natsSubscription* sub, bool final);
    void onDisconnected();
    void onReconnected();
    // The client gave up the connection (the server refused the credentials twice in a
    // row, after they were revoked): no more reconnection attempts.
    void onClosedByServer(const std::string& why, bool credentialsRefused);
    // See KibSatellite::credentialsRefusal. Management thread.
    std::string credentialsRefusal() const;

private:
    void serveRequest(KibSubscription& s, natsConnection* nc, natsMsg* msg,
                      const std::string& user);
    // Whether a request or ping `msg` on `s` may be answered on its reply subject (none:
    // nothing to answer); logs, reports (OnRequestRefused) and returns false when not.
    // `user` receives the caller's user token (per-user subjects), else "".
    bool acceptsReplySubject(KibSubscription& s, natsMsg* msg, std::string& user);
    // Subscribes service `s` to its subject and to its per-user subjects.
    int subscribeService(KibSubscription& s);
    void servePing(natsConnection* nc, natsMsg* msg);
    void onAnnouncement(natsMsg* msg);
    void answer(KibReply& reply, const char* subject,
                const std::shared_ptr<KibDeferredReplyState>& deferred);
    void drain(KibSubscription& s);
    // Whether the connection is up right now (not lost and reconnecting, not closed).
    bool connectionUp() const;
    // Waits (boundedly) until the server has seen what was sent; at once without a server.
    void flush();
    void waitForCompletion(KibSubscription& s);
    int subscribe(KibSubscription& s, const std::string& subject, bool queue);
    bool isRegistered();
    void unsubscribe(std::unique_ptr<KibSubscription> s);
    std::unique_ptr<KibSubscription> makeSubscription(KibSubscription::Kind kind,
                                                      const std::string& name);
    int subscribeControl();
    void announce(bool leaving);
    void discover(const std::string& satellite);
    void closeConnection();
    // Fills `raw` with the servers, TLS and credentials of a connection and sets
    // `inboxPrefix` to its reply inbox prefix. Returns false, with the reason logged and
    // kept for lastError(), when the options cannot be used.
    bool configure(natsOptions* raw, const std::vector<std::string>& urls, std::string& inboxPrefix,
                   std::string* user = nullptr);
    // Opens a connection with `raw`; a failure is logged and kept for lastError().
    natsStatus open(natsConnection** connection, natsOptions* raw, const std::string& where);
    // Sets the reconnection and dead-server detection of a connection.
    void setReconnection(natsOptions* raw) const;
    // The connection for the replies of batches; null, with the reason logged, when it
    // cannot be opened (batches then send their replies one by one).
    std::unique_ptr<KibReplyLink> openReplyLink(const std::vector<std::string>& urls,
                                                const char* satelliteName);
    void setLastError(const std::string& where, const std::string& text);
    // One request and its reply, received on an inbox under `inboxPrefix`, so that the
    // server can keep other users from reading it.
    // With `refusals` (those of `nc`; may be null) a request whose subject or reply
    // inbox the server refuses ends with NATS_NOT_PERMITTED as soon as the refusal
    // arrives, instead of at the timeout.
    static natsStatus request(natsConnection* nc, const std::string& inboxPrefix,
                              const std::string& subject, const std::string& frame, int timeoutMs,
                              KibNatsMsg& reply, const KibRefusals* refusals);

    // Immutable after construction.
    KibSatellite& owner_;
    const KibCodecLimits limits_{};

    // Written by connect/disconnect (management thread); read by callbacks while the
    // connection exists.
    KibNatsConnection connection_;
    std::shared_ptr<KibConnectionLink> link_;
    std::shared_ptr<KibReplyChannel> replies_;
    std::unique_ptr<KibReplyLink> replyLink_;  // with KibConnectOptions::batchReplies
    std::string name_;
    std::uint32_t instance_ = 0;
    std::string user_;
    std::string password_;
    KibConnectOptions options_;
    // Reply inboxes of connection_: "<prefix>.<unique>".
    std::string inboxPrefix_ = "_INBOX";
    // The user of connection_, "" without one; requests then name it in their subject.
    std::string connectedUser_;

    mutable PMutex errorMutex_;
    std::string lastError_ NIMB_GUARDED_BY(errorMutex_);
    std::atomic<int> requestTimeoutMs_{5000};
    std::atomic<int> requestSequence_{0};
    std::atomic<int> reconnectWaitMs_{250};
    // When the connection was lost (steady clock, ns); written and read by the client's
    // connection-state callbacks, which it runs one at a time.
    std::atomic<long long> lostAt_{0};
    // Refused requests (bad frames, reply subjects outside an inbox) are logged at most
    // once per interval: a peer that keeps sending them cannot flood the log.
    KibLogLimit refusedRequestLog_;

    // Control subscriptions (ping, discovery): management thread only.
    std::vector<std::unique_ptr<KibSubscription>> control_;

    // Written under mutex_ by the management thread, read under it by callbacks.
    PMutex mutex_;
    std::map<std::string, std::unique_ptr<KibSubscription>> services_ NIMB_GUARDED_BY(mutex_);
    std::map<std::string, std::unique_ptr<KibSubscription>> listeners_ NIMB_GUARDED_BY(mutex_);
    bool registered_ NIMB_GUARDED_BY(mutex_) = false;
    KibAvailability availability_ NIMB_GUARDED_BY(mutex_);
};
