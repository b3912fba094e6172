// SPDX-License-Identifier: MIT
#include "NimbRemoteLoggerSatellite.h"

#include <cassert>
#include <chrono>
#include <cmath>
#include <ctime>
#include <thread>
#include <vector>

#include <boost/format.hpp>

#include "CBBLog.h"
#include "CRegistry.h"
#include "CollectorStats.h"
#include "DeviceLogConverter.h"
#include "DeviceLogNames.h"
#include "KibVariantHolder.h"
#include "NimbBusSettings.h"
#include "NimbSettingsKeys.h"
#include "Utf8Text.h"
#include "VUtil.h"

namespace {

using NimbSettings::kConfigKey;
const char* const kSatelliteName = "RemoteLogger";
// The start-up check for another collector: how long one has to answer a ping, and how
// many answers in a row, 500 ms apart, mean it is alive (a collector that was just killed
// may answer once more before the server notices its connection is gone).
constexpr int kInstanceCheckMs = 1000;
constexpr int kInstanceCheckAnswers = 3;
constexpr auto kInstanceCheckPause = std::chrono::milliseconds(500);

// Device times accepted, in seconds since 1970: years 1 to 9999. Keeps the clock
// arithmetic of the conversion far from overflow.
constexpr long kEarliestTime = -62135596800L;
constexpr long kLatestTime = 253402300799L;

// Element `index` of `in`, checked to be a string, with every byte it holds (NUL bytes
// included); null reads as "".
CStdStr stringElement(const tagVARIANT& in, int index, const char* context) {
    KibVariantHolder element;
    VUtil::GetElement(in, index, element.edit());
    VUtil::CheckType(element.get(), VT_BSTR, context);
    const BSTR text = element.get().bstrVal;
    return text != nullptr ? CStdStr(text, SysStringLen(text)) : CStdStr();
}

QString fromUtf8(const CStdStr& text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

// Whether `text` holds a C0 control character or DEL (NUL included).
bool hasControlCharacter(const QString& text) {
    for (const QChar c : text) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f) return true;
    }
    return false;
}

// `text` with its control characters written as escapes (\n, \r, \t, \0, \xHH), so that a
// remote string shown inside a header line can never break or forge that line.
QString escapeControlCharacters(const QString& text) {
    if (!hasControlCharacter(text)) return text;
    QString result;
    result.reserve(text.size() + 8);
    for (const QChar c : text) {
        switch (c.unicode()) {
            case '\n':
                result += QStringLiteral("\\n");
                break;
            case '\r':
                result += QStringLiteral("\\r");
                break;
            case '\t':
                result += QStringLiteral("\\t");
                break;
            case 0:
                result += QStringLiteral("\\0");
                break;
            default:
                if (c.unicode() < 0x20 || c.unicode() == 0x7f) {
                    result += QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
                } else {
                    result += c;
                }
        }
    }
    return result;
}

// The bytes that a string reaches the module with: decoded as UTF-8 into the signal's
// QString, encoded again (malformed sequences become U+FFFD, three bytes each).
CStdStr asDelivered(const QString& text) { return CStdStr(text); }

// The same for bytes that have not been decoded: well-formed UTF-8 without NUL comes
// back as it is, without the round trip.
CStdStr asDelivered(CStdStr bytes) {
    if (Utf8Text::isWellFormed(bytes.data(), bytes.size())) return bytes;
    return asDelivered(fromUtf8(bytes));
}

// `content` as the bytes it is written as: UTF-8, with every NUL byte replaced by U+FFFD
// like the bytes that are not UTF-8 (the decoding replaces those), so nothing after a
// NUL is lost. Well-formed text is taken as it is.
CStdStr deliveredBytes(CStdStr content) {
    if (Utf8Text::isWellFormed(content.data(), content.size())) return content;
    content.Replace(std::string_view("\0", 1), "\xEF\xBF\xBD");
    return asDelivered(fromUtf8(content));
}

void checkTime(long seconds, const char* context) {
    if (seconds < kEarliestTime || seconds > kLatestTime) {
        throw KibInvalidParameterException(
            (CStdStr(context) + ": date outside the years 1 to 9999").c_str());
    }
}

// Server time minus the device time in element `index` of `in`, rounded to whole seconds
// from both clocks read to the millisecond. (Rounding the device time and cutting the
// server time separately would move the stamps of a device whose clock equals the
// server's back a second whenever its milliseconds are 500 or more.)
long clockOffset(const tagVARIANT& in, int index) {
    KibVariantHolder element;
    VUtil::GetElement(in, index, element.edit());
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const long long serverMs = static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
    const long long deviceMs = VUtil::DateToMilliseconds(element.get().date);
    return static_cast<long>(std::llround(static_cast<double>(serverMs - deviceMs) / 1000.0));
}

// One part of a file name made from remote input: no separator and no control character
// (a NUL would silently cut the name, a line break or escape would reach listings and
// terminals).
void checkNamePart(const QString& part, const char* context) {
    if (DeviceLogNames::hasSeparator(asDelivered(part)))
        throw KibInvalidParameterException((CStdStr(context) + ": holds \"/\" or \"\\\"").c_str());
    if (hasControlCharacter(part))
        throw KibInvalidParameterException(
            (CStdStr(context) + ": holds a control character").c_str());
}

// The file names a request may produce must stay single, visible components of the logs
// folder.
void checkLogNames(const QString& macAddr, const QString& deviceId,
                   const std::vector<QString>& logNames) {
    checkNamePart(macAddr, "SetLogSource: invalid addr");
    checkNamePart(deviceId, "SetLogSource: invalid device id");
    const CStdStr mac = asDelivered(macAddr);
    const CStdStr device = asDelivered(deviceId);
    const CStdStr tooLong =
        boost::str(boost::format("file name longer than %1% bytes") % DeviceLogNames::kMaxFileName);
    const CStdStr shortest = DeviceLogNames::logId(mac, "");
    if (shortest.size() > DeviceLogNames::kMaxFileName)
        throw KibInvalidParameterException(("SetLogSource: invalid addr: " + tooLong).c_str());
    const CStdStr prefix = DeviceLogNames::fileName(device, shortest);
    if (prefix.size() > DeviceLogNames::kMaxFileName) {
        throw KibInvalidParameterException(("SetLogSource: invalid device id: " + tooLong).c_str());
    }
    // The file name starts with the device id, or with the MAC address when the id is empty.
    if (prefix[0] == '.') {
        throw KibInvalidParameterException(
            device.empty() ? "SetLogSource: invalid addr: starts with \".\""
                           : "SetLogSource: invalid device id: starts with \".\"");
    }
    for (const QString& logName : logNames) {
        if (hasControlCharacter(logName)) {
            throw KibInvalidParameterException(
                "SetLogSource: invalid log name: holds a control character");
        }
        const CStdStr name =
            DeviceLogNames::fileName(device, DeviceLogNames::logId(mac, asDelivered(logName)));
        if (!DeviceLogNames::isPlainFileName(name)) {
            throw KibInvalidParameterException(
                ("SetLogSource: invalid log name: " + tooLong).c_str());
        }
    }
}

}  // namespace

NimbRemoteLoggerSatellite::NimbRemoteLoggerSatellite(QObject* parent) : QObject(parent) {
    // An announcement's calls are emitted on the main thread, so their room comes back
    // when the main thread reaches them (the device's share right after the emission, see
    // KibServiceSetLogSource); an AppendLog's room comes back with its reply.
    QObject::connect(this, &NimbRemoteLoggerSatellite::addLog, this,
                     [room = backlog] { room->release(0); });
}

NimbRemoteLoggerSatellite::~NimbRemoteLoggerSatellite() {
    backlog->stop();
    Disconnect();
}

void NimbRemoteLoggerSatellite::leaveBus() {
    backlog->stopBounding();
    UnregisterServices(false);
}

std::shared_ptr<RemoteLogReply> NimbRemoteLoggerSatellite::takeReply() {
    const PMutexLocker lock(emitLock);
    if (pendingReplies.empty()) return nullptr;
    std::shared_ptr<RemoteLogReply> reply = std::move(pendingReplies.front());
    pendingReplies.pop_front();
    return reply;
}

void NimbRemoteLoggerSatellite::queueReplyLocked(const std::shared_ptr<RemoteLogReply>& reply) {
    pendingReplies.push_back(reply);
}

void NimbRemoteLoggerSatellite::queueCallLocked(const CStdStr& logId, std::function<void()> call) {
    ++waitingCalls[logId];
    queuedCalls.push_back({logId, std::move(call)});
    if (queuedCalls.size() == 1) {
        // Invoked by name: nothing of ours travels inside Qt's event, so everything the
        // main thread reads of this hand-off passes through emitLock.
        QMetaObject::invokeMethod(this, "deliverQueuedCalls", Qt::QueuedConnection);
    }
}

void NimbRemoteLoggerSatellite::deliverQueuedCalls() {
    std::vector<QueuedCall> calls;
    {
        const PMutexLocker lock(emitLock);
        calls.swap(queuedCalls);
    }
    // Emitted without the lock: the slots take their replies (takeReply).
    for (const QueuedCall& queued : calls) queued.call();
    // Only now may texts for these logs bypass the main thread: what the slots queued
    // is ahead of them.
    const PMutexLocker lock(emitLock);
    for (const QueuedCall& call : calls) {
        const auto waiting = waitingCalls.find(call.logId);
        if (waiting != waitingCalls.end() && --waiting->second <= 0) waitingCalls.erase(waiting);
    }
}

int NimbRemoteLoggerSatellite::connect() {
    const boost::shared_ptr<CRegistry> registry = CRegistry::getInstance();
    assert(registry);
    NimbBusSettings bus = NimbBusSettings::read();
    // Its own account when it has one: the suite's kibDirectory.credsFile is what the
    // device tools sharing these settings would connect with.
    CStdStr ownCreds;
    if (registry->ReadSettingImpl(kConfigKey, NimbSettings::kCollectorCredsFile, ownCreds) &&
        !ownCreds.empty()) {
        bus.connection.credentialsFile = ownCreds;
    }
    // The writer completes the replies of each round together: on an open bus they leave
    // in one write, over a second connection. A bus with accounts lets a connection answer
    // only the requests it received itself, so there they leave one by one.
    bus.connection.batchReplies =
        bus.connection.credentialsFile.empty() && bus.host.find('@') == std::string::npos;
    int maxSources = kDefaultMaxLogSources;
    int perDevice = static_cast<int>(RemoteLogSources::kDefaultMaxPerDevice);
    registry->ReadSettingImpl(kConfigKey, NimbSettings::kMaxLogSources, maxSources);
    registry->ReadSettingImpl(kConfigKey, NimbSettings::kMaxLogsPerDevice, perDevice);
    setMaxLogSources(maxSources, perDevice);
    registry->ReadSettingImpl(kConfigKey, NimbSettings::kBusBindingsFile, bindingsFile);

    const std::string shown = bus.displayHost();
    CBBLog::info("Connecting to %s", shown.c_str());
    setConnectOptions(bus.connection);
    // The announced sources live in this process's memory: a second collector on the same
    // bus would take half the requests of devices it never saw announce, and drop them.
    KIBSTATUS other = KIBSTATUS_CONNECTED;
    int pinged = KIB_OK;
    for (int i = 0; i < kInstanceCheckAnswers && other == KIBSTATUS_CONNECTED; ++i) {
        if (i > 0) std::this_thread::sleep_for(kInstanceCheckPause);
        pinged =
            DirectoryPingSatellite(bus.host.c_str(), kSatelliteName, 0, kInstanceCheckMs, &other);
    }
    if (other == KIBSTATUS_CONNECTED) {
        CBBLog::error(boost::format("Another collector already serves %1% on %2%; this one "
                                    "does not start (only one collector per bus)") %
                      kSatelliteName % shown);
        return KIB_E_ALREADY_CONNECTED;
    }
    // A server that refused the check's connection refuses the real one too: report it once.
    const bool refused = pinged == KIB_E_CONNECT_FAILED || pinged == KIB_E_NOT_PERMITTED;
    const int status = refused ? pinged : bus.connect(*this, kSatelliteName);
    if (status != 0) {
        CBBLog::error(boost::format("Failed to register: %1$d (0x%1$x)") % status);
        return status;
    }
    // Written at error level on purpose, so that every start shows in the log.
    CBBLog::error("connected");
    CollectorStats::global().setConnected(true);
    return 0;
}

int NimbRemoteLoggerSatellite::CreateServices() {
    // Connected with an account: each request's account decides what it may write. Made
    // here, on the connecting thread, before the services take requests; kept across
    // reconnections.
    if (!connectedUser().empty() && !bindings) {
        bindings = std::make_unique<RemoteLogBindings>(
            bindingsFile, CBBLog::getLogsDirectory() + "/.bus-bindings-learned");
        CBBLog::info("Device accounts: bound sources from %s",
                     bindingsFile.empty() ? "first announcements only" : bindingsFile.c_str());
    }
    using Delegate = KibSatelliteDelegateMember<NimbRemoteLoggerSatellite>;
    AddService("GetStats", "", new Delegate(this, &NimbRemoteLoggerSatellite::KibServiceGetStats));
    AddService("SetLogSource", "",
               new Delegate(this, &NimbRemoteLoggerSatellite::KibServiceSetLogSource));
    return AddService("AppendLog", "",
                      new Delegate(this, &NimbRemoteLoggerSatellite::KibServiceAppendLog));
}

int NimbRemoteLoggerSatellite::KibServiceSetLogSource(const char* caller, const tagVARIANT& in,
                                                      tagVARIANT*) {
    // Shown in the header line: a caller or display name cannot break or forge that line.
    const QString satName =
        escapeControlCharacters(QString::fromUtf8(caller != nullptr ? caller : ""));
    VUtil::CheckArrayType(in, VT_VARIANT, 4, true, "SetLogSource: invalid parameter");
    const QString macAddr = fromUtf8(stringElement(in, 0, "SetLogSource: invalid addr"));
    QString deviceId = QStringLiteral("puck");
    int next = 1;
    if (VUtil::GetArrayLength(in) > 4) {
        deviceId = fromUtf8(stringElement(in, 1, "SetLogSource: invalid device id"));
        next = 2;
    }
    const QString displayName =
        escapeControlCharacters(fromUtf8(stringElement(in, next, "SetLogSource: invalid name")));

    KibVariantHolder element;
    VUtil::GetElement(in, next + 1, element.edit());
    VUtil::CheckType(element.get(), VT_DATE, "SetLogSource: invalid time");
    const long deviceTime = VUtil::DateToTime(element.get().date);
    checkTime(deviceTime, "SetLogSource: invalid time");
    const QDateTime puckTime = QDateTime::fromSecsSinceEpoch(deviceTime, Qt::UTC);

    VUtil::GetElement(in, next + 2, element.edit());
    VUtil::CheckArrayType(element.get(), VT_BSTR, 0, true, "SetLogSource: invalid log list");
    std::vector<QString> logNames;
    for (int i = 0; i < VUtil::GetArrayLength(element.get()); ++i) {
        CStdStr logName;
        VUtil::GetElement(element.get(), i, logName);
        logNames.push_back(fromUtf8(logName));
    }

    // Everything is checked before the first signal, so a request is taken whole or not
    // at all.
    checkLogNames(macAddr, deviceId, logNames);
    const std::string account = callerAccount("SetLogSource");
    if (!account.empty()) {
        // The device id of the short form is everyone's "puck": only the MAC tells apart.
        const std::string id = asDelivered(deviceId);
        const RemoteLogBindings::Check check =
            bindings->announce(account, asDelivered(macAddr), next == 2 ? &id : nullptr);
        if (!check.allowed()) refuse("SetLogSource", account, check);
    }
    // The device whose bounds the request counts against: its account when known.
    const CStdStr owner = account.empty() ? asDelivered(macAddr) : CStdStr(account);
    std::set<CStdStr> ids;
    for (const QString& logName : logNames)
        ids.insert(DeviceLogNames::logId(asDelivered(macAddr), asDelivered(logName)));
    admitLogIds(owner, ids, logNames.size());
    reserveBacklog("SetLogSource", owner, logNames.size(), 0);
    if (logNames.empty()) {
        CollectorStats::global().countRequest();  // answered at once: nothing to write
        return 0;
    }

    const auto reply = std::make_shared<RemoteLogReply>(DeferReply(), "SetLogSource",
                                                        static_cast<int>(logNames.size()));
    const PMutexLocker lock(emitLock);
    for (const QString& logName : logNames) {
        queueReplyLocked(reply);
        queueCallLocked(DeviceLogNames::logId(asDelivered(macAddr), asDelivered(logName)),
                        [this, macAddr, deviceId, satName, displayName, puckTime, logName, owner] {
                            emit addLog(macAddr, deviceId, satName, displayName, puckTime, logName);
                            quota->release(owner, 0);
                        });
    }
    return 0;
}

// The caller's satellite name is not part of what AppendLog writes. The text stays bytes
// from the request to the file: decoded and encoded again only when it is not
// well-formed UTF-8 (or holds a NUL), and converted in one pass when stamps move.
int NimbRemoteLoggerSatellite::KibServiceAppendLog(const char*, const tagVARIANT& in, tagVARIANT*) {
    const std::string account = callerAccount("AppendLog");
    VUtil::CheckArrayType(in, VT_VARIANT, 3, true, "AppendLog: invalid parameter");
    CStdStr macAddr = stringElement(in, 0, "AppendLog: invalid addr");
    CStdStr logName = stringElement(in, 1, "AppendLog: invalid log");
    CStdStr content = stringElement(in, 2, "AppendLog: invalid content");
    LogTextInfo info;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    info.receivedMs = static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
    if (VUtil::GetArrayLength(in) > 3) {
        const long deviceTime = VUtil::GetDateElement(in, 3);
        checkTime(deviceTime, "AppendLog: invalid time");
        const long offset = clockOffset(in, 3);
        content = convertLog(content, deviceTime, deviceTime + offset);
        info.hasDeviceTime = true;
        info.deviceTime = deviceTime;
        info.clockOffset = offset;
    }
    const CStdStr mac = asDelivered(macAddr);
    const CStdStr id = DeviceLogNames::logId(mac, asDelivered(logName));
    if (!account.empty()) {
        const RemoteLogBindings::Check check = bindings->append(account, mac);
        if (!check.allowed()) refuse("AppendLog", account, check);
    }
    const CStdStr owner = account.empty() ? mac : CStdStr(account);
    const RemoteLogSources::State state =
        account.empty() ? sources.touch(id) : sources.touch(id, owner);
    if (state == RemoteLogSources::State::Foreign)
        refuse("AppendLog", account, {RemoteLogBindings::Verdict::OtherAccount, id});
    if (state == RemoteLogSources::State::Closed) {
        throw KibException("AppendLog: log closed to make room for other logs: announce it again",
                           kLogClosedCode);
    }
    CStdStr text = deliveredBytes(std::move(content));
    reserveBacklog("AppendLog", owner, 1, text.size());
    const auto reply = std::make_shared<RemoteLogReply>(DeferReply(), "AppendLog", 1);
    // The room is given back once the text is written (or refused).
    reply->holdRoom(backlog, quota, owner, text.size());
    const PMutexLocker lock(emitLock);
    if (directAppend && waitingCalls.find(id) == waitingCalls.end()) {
        directAppend(id, std::move(text), reply, info);
        return 0;
    }
    queueAppendLocked(id, macAddr, logName, std::move(text), reply);
    return 0;
}

void NimbRemoteLoggerSatellite::queueAppendLocked(const CStdStr& logId, const CStdStr& macAddr,
                                                  const CStdStr& logName, CStdStr text,
                                                  const std::shared_ptr<RemoteLogReply>& reply) {
    queueReplyLocked(reply);
    queueCallLocked(logId, [this, macAddr, logName, text = std::move(text)] {
        emit appendLog(fromUtf8(macAddr), fromUtf8(logName), fromUtf8(text));
    });
}

void NimbRemoteLoggerSatellite::setDirectAppend(DirectAppend append) {
    const PMutexLocker lock(emitLock);
    directAppend = std::move(append);
}

CStdStr NimbRemoteLoggerSatellite::convertLog(const CStdStr& content, long deviceTime,
                                              long serverTime) {
    return DeviceLogConverter::convertLog(content, deviceTime, serverTime);
}

void NimbRemoteLoggerSatellite::setMaxLogSources(int limit, int perDevice) {
    sources.setLimits(static_cast<std::size_t>(std::max(limit, 0)),
                      static_cast<std::size_t>(std::max(perDevice, 0)));
}

void NimbRemoteLoggerSatellite::admitLogIds(const CStdStr& mac, const std::set<CStdStr>& ids,
                                            size_t listLength) {
    std::vector<CStdStr> closed;
    std::string error;
    CStdStr foreign;
    // A log open for an account that has nothing bound any more (revoked) may be taken.
    const auto isGone = [this](const CStdStr& account) { return !bindings->hasSources(account); };
    if (!sources.admit(mac, ids, listLength, closed, error, hasAccounts() ? &foreign : nullptr,
                       hasAccounts() ? std::function<bool(const CStdStr&)>(isGone) : nullptr)) {
        if (!foreign.empty())
            refuse("SetLogSource", mac, {RemoteLogBindings::Verdict::OtherAccount, foreign});
        throw KibInvalidParameterException(("SetLogSource: " + error).c_str());
    }
    if (closed.empty()) return;
    // Queued with the other calls, so the log is closed before a later call re-announces it.
    const PMutexLocker lock(emitLock);
    for (const CStdStr& id : closed) {
        queueCallLocked(id,
                        [this, logId = QString::fromUtf8(id.c_str())] { emit closeLog(logId); });
    }
}

void NimbRemoteLoggerSatellite::reserveBacklog(const char* service, const CStdStr& mac,
                                               std::size_t calls, std::size_t bytes) {
    if (!quota->tryAcquire(mac, calls, bytes)) {
        throw KibException(
            (CStdStr(service) + ": busy: this device has too much waiting to be written, try again")
                .c_str(),
            kBusyCode);
    }
    if (backlog->acquire(calls, bytes, std::chrono::milliseconds(kBacklogWaitMs))) return;
    for (std::size_t i = 0; i < calls; ++i) quota->release(mac, i == 0 ? bytes : 0);
    throw KibException(
        (CStdStr(service) + ": busy: too much is waiting to be written, try again").c_str(),
        kBusyCode);
}

std::string NimbRemoteLoggerSatellite::callerAccount(const char* service) {
    if (!hasAccounts()) return {};
    std::string account = CallerUser();
    if (account.empty()) {
        // Only an account the server lets publish on the plain subject can send this.
        refusals.record(RemoteLogRefusals::Kind::Identity,
                        {0, "", "", service, "the request names no account"});
        throw KibException(
            (CStdStr(service) +
             ": the request names no device account: send it on "
             "kib.svc.RemoteLogger." +
             service + ".<user>")
                .c_str(),
            std::string(service) == "AppendLog" ? kAppendRefusedCode : kSourceRefusedCode);
    }
    return account;
}

void NimbRemoteLoggerSatellite::refuse(const char* service, const std::string& account,
                                       const RemoteLogBindings::Check& check) {
    const bool other = check.verdict == RemoteLogBindings::Verdict::OtherAccount;
    // The device's own text goes back to it: cut, with its control characters replaced.
    std::string source = check.source.substr(0, 64);
    for (char& c : source) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    }
    const std::string reason =
        other ? "belongs to another device account" : "is not bound to this device account";
    refusals.record(RemoteLogRefusals::Kind::Identity, {0, account, check.source, service, reason});
    throw KibException(
        (std::string(service) + ": source " + source + " " + reason).c_str(),
        std::string(service) == "AppendLog" ? kAppendRefusedCode : kSourceRefusedCode);
}

std::string NimbRemoteLoggerSatellite::accountOfMac(const CStdStr& mac) const {
    return bindings ? bindings->accountOf(mac) : std::string();
}
