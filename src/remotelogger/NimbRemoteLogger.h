// SPDX-License-Identifier: MIT
// NimbRemoteLogger: the collector module. It keeps one CBBLog per remote log, keyed by
// the log's id, writes the header line of each announced log and appends the text that
// devices deliver. The loggers hand their texts to one DeviceLogWriter, which writes
// every device log (the bus's and syslog's) with a few threads and a bounded number of
// open files; texts for a log with no call waiting on the main thread reach its logger
// straight from the bus thread (NimbRemoteLoggerSatellite::setDirectAppend). Created by
// createNimbModuleInstance() and owned by the module host; lives on the Qt main thread, where its
// slots run (queued from the satellite's bus threads). The log map is guarded by logMapLock, never
// held while a logger writes. A call that came from the satellite carries its request's reply along
// to the logger, which completes it once the text is in the file. Errors: a device's bad request is
// thrown as KibInvalidParameterException by the satellite's handlers and becomes the error reply; a
// text that cannot be written is answered with an error reply naming the file; nothing a device
// sends ends the process.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include <QDateTime>
#include <QString>

#include <boost/shared_ptr.hpp>

#include "CBBLog.h"
#include "CollectorSeries.h"
#include "DeviceLogHistory.h"
#include "DeviceLogIndex.h"
#include "DeviceLogWriter.h"
#include "NimbModuleBaseQT.h"
#include "PMutex.h"
#include "StdString.h"

class NimbRemoteLoggerSatellite;
class QTimer;
class RemoteLogReply;
class SyslogServer;

class NimbRemoteLogger : public NimbModuleBaseQT {
    Q_OBJECT

public:
    // Size at which each remote log is rotated into its ".back" file.
    static constexpr long long kRemoteLogSize = DeviceLogWriter::kRotateSize;

    NimbRemoteLogger();
    NimbRemoteLogger(const NimbRemoteLogger&) = delete;
    NimbRemoteLogger& operator=(const NimbRemoteLogger&) = delete;
    // Closes, then releases every remote log (each drains its queue into its file).
    ~NimbRemoteLogger() override;

    // Starts the device-log writer (the "WriterThreads" and "MaxOpenLogFiles" settings),
    // creates the satellite, connects its signals to the slots below and joins the bus;
    // then starts the syslog listeners when the settings enable them (a listener that
    // cannot start is logged and the bus path runs on), and the readings of the counters
    // into the index's series. False (logged) when the satellite could not register.
    // Main thread.
    bool init(const std::vector<CStdStr>& args) override;
    // Leaves the bus (serving every request already received), delivers every addLog /
    // appendLog already emitted, releases the loggers and waits until the writer wrote
    // everything it was given and completed those requests' replies, takes a last reading
    // of the counters for the series, then disconnects. Harmless twice. Main thread.
    void close() override;

    // The MAC address without ":", "-", and the log name's last path component.
    static CStdStr getLogId(const CStdStr& macAddr, const CStdStr& logName);

public slots:
    // A source announced a log: starts a fresh logger for the file deviceId + log id
    // and writes the header that ties the device's clock to the server's.
    void addLog(QString macAddr, QString deviceId, QString satName, QString displayName,
                QDateTime puckTime, QString logName);
    // Queues `content` as it is to the log's file. For a log that is unknown the text
    // is dropped (a request from the satellite is answered "unknown source").
    void appendLog(QString macAddr, QString logName, QString content);
    // The log gave up its slot: releases its logger, which writes out what it holds and
    // closes the file. Later text for it is dropped until it is announced again.
    void closeLog(QString logId);

private:
    // Starts the syslog listeners when the settings enable them.
    void startSyslog();
    // Reads the counters into the index's series every HealthSampleSeconds (with the
    // index only). Main thread.
    void startSeries();
    void scheduleSeries();
    // Hands the index the sample of the counters now, for `minute`.
    void sampleSeries(long long minute);
    // The reply that came with the call being delivered, when it came from the satellite.
    std::shared_ptr<RemoteLogReply> replyOfCall();
    // Queues `text` for the log `id`; `reply` (may be null) learns how it went. Any thread.
    void writeText(const CStdStr& id, CStdStr text, const std::shared_ptr<RemoteLogReply>& reply,
                   const LogTextInfo& info = LogTextInfo());
    // The writer of every device log, started on first use. Main thread.
    const std::shared_ptr<DeviceLogWriter>& deviceLogWriter();
    // Empties the map; the loggers write what they hold as they go.
    void releaseLogs();

    NimbRemoteLoggerSatellite* satellite = nullptr;  // Qt child; deleted by close()
    // The syslog listeners, when enabled; started once the satellite registered, stopped
    // by close() before the satellite leaves.
    std::unique_ptr<SyslogServer> syslog;
    // The counters' readings for the series: their timer (a Qt child), their interval,
    // the time the next reading is due (ms since 1970 UTC).
    CollectorSeries series;
    QTimer* seriesTimer = nullptr;
    int seriesSeconds = 60;
    long long seriesDueMs = 0;
    // Where the writer records what it wrote (null when it cannot be opened), and where
    // rotated backups go; both outlive the writer.
    std::shared_ptr<DeviceLogIndex> index;
    std::shared_ptr<DeviceLogHistory> history;
    // Shared with the loggers' handles and the syslog listeners; outlives the map.
    std::shared_ptr<DeviceLogWriter> writer;
    PMutex logMapLock;
    std::map<CStdStr, boost::shared_ptr<CBBLog>> logMap NIMB_GUARDED_BY(logMapLock);
};
