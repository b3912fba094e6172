// SPDX-License-Identifier: MIT
// NimbRemoteLoggerSatellite: the collector's presence on the component bus, as the
// satellite "RemoteLogger" with the services "SetLogSource" and "AppendLog". The
// handlers check a request, convert device timestamps and queue addLog / appendLog calls,
// which the main thread emits in order, a whole batch per wake-up (deliverQueuedCalls);
// they never touch a log file. Each request's reply is deferred until its texts are written:
// the handler queues a RemoteLogReply next to each emitted call, in emission order, and
// the module's slot takes it (takeReply) and hands it to the logger. Owned by NimbRemoteLogger (its
// Qt parent), which deletes it in close(). Constructed and connected on the main thread; the
// handlers run on the bus library's threads, and the destructor waits for running handlers before
// it returns.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <QDateTime>
#include <QObject>
#include <QString>

#include "CBBLogSink.h"
#include "KibSatellite.h"
#include "PMutex.h"
#include "RemoteLogBacklog.h"
#include "RemoteLogBindings.h"
#include "RemoteLogDeviceQuota.h"
#include "RemoteLogRefusals.h"
#include "RemoteLogReply.h"
#include "RemoteLogSources.h"
#include "StdString.h"

class DeviceLogHistory;
class DeviceLogIndex;

class NimbRemoteLoggerSatellite : public QObject, public KibSatellite {
    Q_OBJECT

public:
    // How many logs (distinct log ids) may be announced when the "MaxLogSources" setting
    // is absent. A log costs a few hundred bytes; its file is open only while the
    // writer's file cache keeps it.
    static constexpr int kDefaultMaxLogSources = 16384;
    // What may wait: announcements not yet delivered to the main thread, and texts not
    // yet written (counted in calls, and in UTF-8 bytes of text). A handler waits up to
    // kBacklogWaitMs for room, then refuses the request as busy (exception code
    // kBusyCode).
    static constexpr std::size_t kMaxQueuedCalls = 1024;
    static constexpr std::size_t kMaxQueuedBytes = 32 * 1024 * 1024;
    static constexpr int kBacklogWaitMs = 2000;
    static constexpr std::int32_t kBusyCode = 2;
    // One device's share of that backlog; past it the device is answered busy at once,
    // without waiting, so that a flooding device cannot starve the others.
    static constexpr std::size_t kMaxQueuedCallsPerDevice = 64;
    static constexpr std::size_t kMaxQueuedBytesPerDevice = 4 * 1024 * 1024;
    // Exception code of AppendLog for a log that gave up its slot to another: the device
    // announces it again with SetLogSource and resends.
    static constexpr std::int32_t kLogClosedCode = 4;
    // Exception codes of a request refused for the caller's identity (bus with accounts):
    // the source is bound to another device account, or not to this one.
    static constexpr std::int32_t kSourceRefusedCode = 5;  // SetLogSource
    static constexpr std::int32_t kAppendRefusedCode = 6;  // AppendLog

    // Where AppendLog hands a text whose log has no call waiting for the main thread:
    // the log's id, the text as it is written (UTF-8, NUL bytes replaced), the request's
    // reply, which the receiver completes once the text is written (or at once, as
    // unknown source, when the log is not open), and what is known of the text (receive
    // time, device time and clock offset). Called on a bus thread under the
    // emission lock, so that it keeps its place among the queued calls.
    using DirectAppend =
        std::function<void(const CStdStr& logId, CStdStr text,
                           const std::shared_ptr<RemoteLogReply>& reply, const LogTextInfo& info)>;

    // Constructs both parts; connects nothing. Main thread.
    explicit NimbRemoteLoggerSatellite(QObject* parent);
    NimbRemoteLoggerSatellite(const NimbRemoteLoggerSatellite&) = delete;
    NimbRemoteLoggerSatellite& operator=(const NimbRemoteLoggerSatellite&) = delete;
    // Refuses further requests as busy and leaves the bus, waiting for running handlers,
    // so that nothing is emitted from a half-destroyed object. Main thread.
    ~NimbRemoteLoggerSatellite() override;

    // Reads the bus settings (NimbBusSettings), "MaxLogSources" and "MaxLogsPerDevice" under
    // "Software\Pellix\Nimb\Config", connects to that bus directory as "RemoteLogger" and
    // registers the services. Returns 0, or the bus library's non-zero status (logged);
    // KIB_E_ALREADY_CONNECTED when another collector already answers as "RemoteLogger" on
    // that bus (one collector per bus: the announced logs live in its memory).
    // Main thread; blocks for at most a few seconds.
    int connect();

    // Leaves the bus in order: stops bounding the backlog (the main thread is busy here
    // and cannot make room, while the requests already routed here are still served),
    // then unregisters the services, which serves every request already received and
    // waits for the handlers. Afterwards nothing more is emitted, and the connection
    // stays open for the replies still to come. Main thread.
    void leaveBus();
    // The reply of the oldest emitted call whose slot has not taken it yet; the module's
    // slots call it once per call they receive from this satellite. Null when none is
    // waiting. Main thread.
    std::shared_ptr<RemoteLogReply> takeReply();
    // Emits, in the order the handlers queued them, the calls queued so far. The first
    // call queued after a delivery posts one delivery to the main thread for everything
    // that arrives until it runs, so a busy bus costs the main thread one event per batch
    // rather than one per request. Main thread.
    Q_INVOKABLE void deliverQueuedCalls();

    // From now on AppendLog hands its texts to `append` instead of emitting appendLog
    // whenever no call for the same log waits for the main thread (the emitted calls
    // keep their order: a text for a log with a call waiting is queued behind it). The
    // signal and its slot keep working for every other caller. Main thread, before
    // connect().
    void setDirectAppend(DirectAppend append);

    // What GetStats reports of the history and the index (null: zeros). Set once, on the
    // main thread, before connect(); read by the handlers afterwards.
    struct Stores {
        std::shared_ptr<DeviceLogHistory> history;
        std::shared_ptr<DeviceLogIndex> index;
    };
    void setStores(Stores storesToReport) { stores = std::move(storesToReport); }

    // Adds "SetLogSource" and "AppendLog" (empty descriptions); the status of the second.
    int CreateServices() override;

    // [MAC address, (device id,) name, device time, log names]: queues addLog once per
    // log name, in order, and returns 0; the reply leaves once every header is written
    // (at once for an empty list). Throws KibInvalidParameterException for a bad
    // request, before anything is queued. Bus thread.
    int KibServiceSetLogSource(const char* caller, const tagVARIANT& in, tagVARIANT* out);
    // [MAC address, log name, content (, device time)]: queues appendLog once, with the
    // content's timestamps moved into server time when the device time is given, and
    // returns 0; the reply leaves once the text is written. The content is taken whole:
    // a NUL byte becomes U+FFFD like any other byte that is not UTF-8 text. Throws
    // KibInvalidParameterException for a bad request. Bus thread.
    int KibServiceAppendLog(const char* caller, const tagVARIANT& in, tagVARIANT* out);
    // The collector's counters as name/value pairs (CollectorStats; 64-bit integers):
    // requests, linesWritten, bytesWritten, errors.<kind>, queueDepth, queueBytes,
    // connected. Bus thread.
    int KibServiceGetStats(const char* caller, const tagVARIANT& in, tagVARIANT* out);
    // The counters GetStats answers with (the refusals apart), by name. Any thread.
    std::vector<std::pair<std::string, std::uint64_t>> counters() const;

    // Counts each SetLogSource / AppendLog request refused by an exception (by kind),
    // then lets the exception through; answered requests are counted by their
    // RemoteLogReply. Bus thread.
    int OnServiceRequested(int requestId, const char* caller, const char* service, tagVARIANT in,
                           tagVARIANT* out, int* result) override;
    // Keeps the "connected" counter current. Bus thread.
    void OnStatusChange(int reason, KIBSTATUS status) override;
    // Counts and keeps a request left unanswered for its reply subject. Bus thread.
    void OnRequestRefused(const char* service, const char* user, const char* reason) override;
    // Whether the collector connected with an account, so that each request's account
    // (the server-pinned last token of its subject) decides what it may write. Set while
    // connecting (CreateServices), before any request arrives.
    bool hasAccounts() const { return bindings != nullptr; }
    // The device account `mac` is bound to ("" on an open bus, or for none). Any thread.
    std::string accountOfMac(const CStdStr& mac) const;
    // The requests refused for identity, for GetStats.
    const RemoteLogRefusals& identityRefusals() const { return refusals; }

    // Timestamp rewriting of device log text; see DeviceLogConverter. Any thread.
    CStdStr convertLog(const CStdStr& content, long deviceTime, long serverTime);

    // The bounds on open logs, in all and per device; connect() sets them from the
    // settings. Any thread.
    void setMaxLogSources(int limit, int perDevice = RemoteLogSources::kDefaultMaxPerDevice);

signals:
    void addLog(QString macAddr, QString deviceId, QString satName, QString displayName,
                QDateTime puckTime, QString logName);
    void appendLog(QString macAddr, QString logName, QString content);
    // The log gave up its slot to another one: close its file. Emitted before the
    // addLog that took the slot.
    void closeLog(QString logId);

private:
    // The account of the request being served on a bus with accounts; "" on an open bus.
    // Throws (refused) when a bus with accounts brings a request without one.
    std::string callerAccount(const char* service);
    // Counts, logs and keeps the refusal, then throws it with the service's code.
    [[noreturn]] void refuse(const char* service, const std::string& account,
                             const RemoteLogBindings::Check& check);
    // Admits the log ids of device `mac` against the bounds and queues closeLog for the
    // logs that gave up their slot. Throws, admitting none, when they cannot all be open,
    // or when the request's list (`listLength` names, repeats included) is itself longer
    // than the bound.
    // On a bus with accounts `mac` is the account, and a log id that another account has
    // open is refused (its log id names it).
    void admitLogIds(const CStdStr& mac, const std::set<CStdStr>& ids, size_t listLength);
    // Takes the device's share, then waits for room in the backlog, for `calls` calls
    // with `bytes` of text; throws "<service>: busy".
    void reserveBacklog(const char* service, const CStdStr& mac, std::size_t calls,
                        std::size_t bytes);
    // Queues `reply` for the next call to be emitted; the caller holds emitLock.
    void queueReplyLocked(const std::shared_ptr<RemoteLogReply>& reply) NIMB_REQUIRES(emitLock);
    // Queues the emission `call`, which concerns the log `logId`, for the main thread;
    // the caller holds emitLock.
    void queueCallLocked(const CStdStr& logId, std::function<void()> call) NIMB_REQUIRES(emitLock);
    // Queues the reply and the appendLog call of one AppendLog request; emitLock held.
    void queueAppendLocked(const CStdStr& logId, const CStdStr& macAddr, const CStdStr& logName,
                           CStdStr text, const std::shared_ptr<RemoteLogReply>& reply)
        NIMB_REQUIRES(emitLock);

    // Shared with the connections that release it on the main thread.
    const std::shared_ptr<RemoteLogBacklog> backlog =
        std::make_shared<RemoteLogBacklog>(kMaxQueuedCalls, kMaxQueuedBytes);

    const std::shared_ptr<RemoteLogDeviceQuota> quota =
        std::make_shared<RemoteLogDeviceQuota>(kMaxQueuedCallsPerDevice, kMaxQueuedBytesPerDevice);
    // The open logs and their slots.
    RemoteLogSources sources{kDefaultMaxLogSources, RemoteLogSources::kDefaultMaxPerDevice};

    // Held while a handler queues its replies and calls, so that a reply and its call
    // share one place in the order the calls reach the main thread.
    PMutex emitLock;
    std::deque<std::shared_ptr<RemoteLogReply>> pendingReplies NIMB_GUARDED_BY(emitLock);
    struct QueuedCall {
        CStdStr logId;
        std::function<void()> call;
    };
    std::vector<QueuedCall> queuedCalls NIMB_GUARDED_BY(emitLock);
    // Calls queued or being delivered, per log id (absent: none).
    std::unordered_map<std::string, int> waitingCalls NIMB_GUARDED_BY(emitLock);
    // Set before connect(); read by the handlers.
    DirectAppend directAppend NIMB_GUARDED_BY(emitLock);
    Stores stores;  // set before connect(), read-only afterwards
    // Read from the settings by connect(); the bindings exist (CreateServices) only when
    // the collector connected with an account, and live until destruction.
    CStdStr bindingsFile;
    std::unique_ptr<RemoteLogBindings> bindings;
    RemoteLogRefusals refusals;
};
