// SPDX-License-Identifier: MIT
// NimbRemoteLogger: the collector module. It keeps one CBBLog per remote log, keyed by
// the log's id, writes the header line of each announced log and appends the text that
// devices deliver. Created by createNimbModuleInstance() and owned by the module host;
// lives on the Qt main thread, where its slots run (queued from the satellite's bus
// threads). The log map is guarded by logMapLock, never held while a logger writes.
// Errors: a device's bad request is thrown as KibInvalidParameterException by the
// satellite's handlers and becomes the error reply; a text that cannot be written is
// answered with an error reply naming the file; nothing a device sends ends the process.
#pragma once

#include <QDateTime>
#include <QString>
#include <map>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "CBBLog.h"
#include "NimbModuleBaseQT.h"
#include "PMutex.h"
#include "StdString.h"

class NimbRemoteLoggerSatellite;

class NimbRemoteLogger : public NimbModuleBaseQT {
    Q_OBJECT

public:
    // Size at which each remote log is rotated into its ".back" file.
    static constexpr long long kRemoteLogSize = 524288;

    NimbRemoteLogger();
    NimbRemoteLogger(const NimbRemoteLogger&) = delete;
    NimbRemoteLogger& operator=(const NimbRemoteLogger&) = delete;
    // Closes, then releases every remote log (each drains its queue into its file).
    ~NimbRemoteLogger() override;

    // Creates the satellite, connects its signals to the slots below and joins the bus.
    // False (logged) when the satellite could not register. Main thread.
    bool init(const std::vector<CStdStr>& args) override;
    // Leaves the bus, then delivers every addLog / appendLog already emitted, so that
    // each acknowledged request reaches its logger. Harmless twice. Main thread.
    void close() override;

    // The MAC address without ":", "-", and the log name's last path component.
    static CStdStr getLogId(const CStdStr& macAddr, const CStdStr& logName);

public slots:
    // A source announced a log: starts a fresh logger for the file deviceId + log id
    // and writes the header that ties the device's clock to the server's.
    void addLog(QString macAddr, QString deviceId, QString satName, QString displayName,
                QDateTime puckTime, QString logName);
    // Queues `content` as it is to the log's file; dropped when the log is unknown.
    void appendLog(QString macAddr, QString logName, QString content);

private:
    NimbRemoteLoggerSatellite* satellite = nullptr;  // Qt child; deleted by close()
    PMutex logMapLock;
    std::map<CStdStr, boost::shared_ptr<CBBLog>> logMap NIMB_GUARDED_BY(logMapLock);
};
