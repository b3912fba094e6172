// SPDX-License-Identifier: MIT
#include "NimbRemoteLogger.h"

#include <algorithm>
#include <cerrno>

#include <QCoreApplication>
#include <QTimer>

#include "CRegistry.h"
#include "CollectorStats.h"
#include "DeviceLogNames.h"
#include "KibReplyBatch.h"
#include "NimbRemoteLoggerSatellite.h"
#include "NimbSettingsKeys.h"
#include "RemoteLogReply.h"
#include "SyslogServer.h"

namespace {
const char* const kTimeFormat = "yyyy/MM/dd hh:mm:ss";
}

NimbRemoteLogger::NimbRemoteLogger() : NimbModuleBaseQT("NimbRemoteLogger") {}

NimbRemoteLogger::~NimbRemoteLogger() {
    close();
    releaseLogs();
    writer.reset();   // writes what the loggers handed it
    history.reset();  // finishes the compression under way
    index.reset();    // commits what the writer recorded
}

const std::shared_ptr<DeviceLogWriter>& NimbRemoteLogger::deviceLogWriter() {
    if (writer) return writer;
    const boost::shared_ptr<CRegistry> registry = CRegistry::getInstance();
    DeviceLogWriter::Options options;
    options.logsDir = CBBLog::getLogsDirectory();
    options.rotateSize = kRemoteLogSize;
    int maxOpenFiles = static_cast<int>(DeviceLogWriter::kDefaultMaxOpenFiles);
    int indexEnabled = 1;
    if (registry) {
        registry->ReadSettingImpl(NimbSettings::kConfigKey, NimbSettings::kWriterThreads,
                                  options.threads);
        registry->ReadSettingImpl(NimbSettings::kConfigKey, NimbSettings::kMaxOpenLogFiles,
                                  maxOpenFiles);
        registry->ReadSettingImpl(NimbSettings::kConfigKey, NimbSettings::kIndexEnabled,
                                  indexEnabled);
    }
    options.maxOpenFiles = static_cast<std::size_t>(std::max(maxOpenFiles, 1));
    std::string error;
    if (indexEnabled != 0) {
        index = DeviceLogIndex::openForWriting(options.logsDir, error);
        if (!index) CBBLog::error("Index: %s; logs are written without it", error.c_str());
    }
    options.index = index;
    history =
        std::make_shared<DeviceLogHistory>(DeviceLogHistory::optionsFromSettings(options.logsDir));
    options.history = history;
    // The replies of one written round leave together (KibConnectOptions::batchReplies).
    options.completionScope = [](const std::function<void()>& complete) {
        const KibReplyBatch batch;
        complete();
    };
    writer = std::make_shared<DeviceLogWriter>(std::move(options));
    return writer;
}

bool NimbRemoteLogger::init(const std::vector<CStdStr>&) {
    CBBLog::info("Starting");
    deviceLogWriter();
    satellite = new NimbRemoteLoggerSatellite(this);
    satellite->setStores({history, index});
    satellite->setDirectAppend(
        [this](const CStdStr& id, CStdStr text, const std::shared_ptr<RemoteLogReply>& reply,
               const LogTextInfo& info) { writeText(id, std::move(text), reply, info); });
    if (!connect(satellite, &NimbRemoteLoggerSatellite::addLog, this, &NimbRemoteLogger::addLog,
                 Qt::AutoConnection)) {
        CBBLog::error("Failed to connect addLog signal");
    }
    if (!connect(satellite, &NimbRemoteLoggerSatellite::appendLog, this,
                 &NimbRemoteLogger::appendLog, Qt::AutoConnection)) {
        CBBLog::error("Failed to connect appendLog signal");
    }
    connect(satellite, &NimbRemoteLoggerSatellite::closeLog, this, &NimbRemoteLogger::closeLog,
            Qt::AutoConnection);
    const int status = satellite->connect();
    if (status != 0) {
        CBBLog::error("Failed to register 0x%x", static_cast<unsigned>(status));
        return false;
    }
    CBBLog::debug("Registered");
    startSyslog();
    startSeries();
    return true;
}

void NimbRemoteLogger::startSeries() {
    if (!index) return;
    int seconds = 60;
    if (const boost::shared_ptr<CRegistry> registry = CRegistry::getInstance())
        registry->ReadSettingImpl(NimbSettings::kConfigKey, NimbSettings::kHealthSampleSeconds,
                                  seconds);
    seriesSeconds = CollectorSeries::interval(seconds);
    seriesTimer = new QTimer(this);
    seriesTimer->setSingleShot(true);
    seriesTimer->setTimerType(Qt::PreciseTimer);
    connect(seriesTimer, &QTimer::timeout, this, [this] {
        const long long due = seriesDueMs;
        // Not before its time (a timer may fire a little early): the reading closes the
        // interval that ends at `due`.
        if (QDateTime::currentMSecsSinceEpoch() < due) {
            scheduleSeries();
            return;
        }
        sampleSeries(CollectorSeries::minuteClosedBy(due));
        seriesDueMs = 0;
        scheduleSeries();
    });
    scheduleSeries();
}

void NimbRemoteLogger::scheduleSeries() {
    const long long now = QDateTime::currentMSecsSinceEpoch();
    // Again from now when none is due, or when the clock was set back past an interval.
    if (seriesDueMs == 0 || seriesDueMs - now > seriesSeconds * 1000LL)
        seriesDueMs = CollectorSeries::nextReading(now, seriesSeconds);
    seriesTimer->start(static_cast<int>(std::max(0LL, seriesDueMs - now)));
}

void NimbRemoteLogger::sampleSeries(long long minute) {
    if (!index || satellite == nullptr) return;
    index->recordSample(series.sample(minute, satellite->counters()));
}

void NimbRemoteLogger::startSyslog() {
    const SyslogSettings settings = SyslogSettings::read();
    if (!settings.isEnabled()) return;
    syslog = std::make_unique<SyslogServer>(settings, CollectorStats::global().syslog(),
                                            deviceLogWriter());
    if (!syslog->start()) syslog.reset();
}

void NimbRemoteLogger::close() {
    // Stopped first: its lines reach their loggers, which write them when released.
    syslog.reset();
    if (satellite == nullptr) return;
    // A request is answered once its text is in the file, so the stop goes in this order:
    // no request arrives any more and those received were handled; their calls reach the
    // loggers; the loggers write everything and complete the replies while the bus
    // connection still carries them; only then does the satellite disconnect.
    satellite->leaveBus();
    satellite->deliverQueuedCalls();
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
    releaseLogs();
    if (writer) writer->drain();
    if (seriesTimer != nullptr) {
        // What was counted since the last reading, in the minute under way.
        seriesTimer->stop();
        sampleSeries(QDateTime::currentMSecsSinceEpoch() / 60000);
    }
    delete satellite;
    satellite = nullptr;
}

void NimbRemoteLogger::releaseLogs() {
    std::map<CStdStr, boost::shared_ptr<CBBLog>> released;
    {
        const PMutexLocker lock(logMapLock);
        released.swap(logMap);
    }
    released.clear();  // outside the lock: the writer still writes what they handed it
}

CStdStr NimbRemoteLogger::getLogId(const CStdStr& macAddr, const CStdStr& logName) {
    return DeviceLogNames::logId(macAddr, logName);
}

void NimbRemoteLogger::addLog(QString macAddr, QString deviceId, QString satName,
                              QString displayName, QDateTime puckTime, QString logName) {
    const std::shared_ptr<RemoteLogReply> reply = replyOfCall();
    const CStdStr mac(macAddr);
    const CStdStr id = getLogId(mac, CStdStr(logName));
    const CStdStr fileName = DeviceLogNames::fileName(CStdStr(deviceId), id);
    // The satellite refuses such names already; a direct caller of this slot must not
    // reach outside the logs folder either.
    if (!DeviceLogNames::isPlainFileName(fileName)) {
        CBBLog::error("Refused log file name %s", fileName.c_str());
        if (reply) reply->partDone(EINVAL, "refused log file name " + fileName);
        return;
    }
    {
        const PMutexLocker lock(logMapLock);
        // Looked up under the raw MAC address, not the id, on purpose: this normally
        // finds nothing (leaving a null entry), so every announcement starts a fresh
        // logger for its file.
        if (!logMap[mac]) {
            boost::shared_ptr<CBBLog> log(
                new CBBLog(fileName, false, kRemoteLogSize, deviceLogWriter()->open(fileName)));
            logMap[id] = log;
        }
    }
    const QString header =
        QStringLiteral("\n===== ") + displayName + QStringLiteral(" - ") + satName +
        QStringLiteral(" === ") + puckTime.toString(kTimeFormat) + QStringLiteral(" <-> ") +
        QDateTime::currentDateTime().toString(kTimeFormat) + QStringLiteral(" =====\n");
    // The index learns the source in the log's order: texts queued before keep theirs.
    DeviceLogIndex::Identity identity;
    identity.deviceId = CStdStr(deviceId);
    identity.mac = mac;
    identity.displayName = CStdStr(displayName);
    identity.caller = CStdStr(satName);
    // On a bus with accounts the MAC address is bound to the account that announced it.
    if (satellite != nullptr) identity.account = satellite->accountOfMac(mac);
    deviceLogWriter()->setIdentity(fileName, identity);
    LogTextInfo info;
    info.header = true;
    info.hasDeviceTime = true;
    info.deviceTime = puckTime.toSecsSinceEpoch();
    info.receivedMs = QDateTime::currentMSecsSinceEpoch();
    info.clockOffset = info.receivedMs / 1000 - info.deviceTime;
    writeText(id, CStdStr(header), reply, info);
}

void NimbRemoteLogger::appendLog(QString macAddr, QString logName, QString content) {
    const std::shared_ptr<RemoteLogReply> reply = replyOfCall();
    writeText(getLogId(CStdStr(macAddr), CStdStr(logName)), CStdStr(content), reply);
}

std::shared_ptr<RemoteLogReply> NimbRemoteLogger::replyOfCall() {
    if (satellite == nullptr || sender() != satellite) return nullptr;
    return satellite->takeReply();
}

void NimbRemoteLogger::writeText(const CStdStr& id, CStdStr text,
                                 const std::shared_ptr<RemoteLogReply>& reply,
                                 const LogTextInfo& info) {
    boost::shared_ptr<CBBLog> log;
    {
        const PMutexLocker lock(logMapLock);
        // find, not operator[]: text for an unknown log leaves no trace in the map.
        const auto found = logMap.find(id);
        if (found != logMap.end()) log = found->second;
    }
    if (!log) {
        if (reply) reply->unknownSource();
        return;
    }
    CollectorStats::global().countWritten(text.c_str(), text.size());
    log->AddRawLog(std::move(text), reply ? reply->nextPartListener() : nullptr, info);
}

void NimbRemoteLogger::closeLog(QString logId) {
    boost::shared_ptr<CBBLog> log;
    {
        const PMutexLocker lock(logMapLock);
        const auto found = logMap.find(CStdStr(logId));
        if (found == logMap.end()) return;
        log = found->second;
        logMap.erase(found);
    }
    // Released outside the lock: the logger drains its queue as it goes.
}
