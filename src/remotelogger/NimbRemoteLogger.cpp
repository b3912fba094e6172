// SPDX-License-Identifier: MIT
#include "NimbRemoteLogger.h"

#include <QCoreApplication>

#include "NimbRemoteLoggerSatellite.h"
#include "RemoteLogNames.h"

namespace {
const char* const kTimeFormat = "yyyy/MM/dd hh:mm:ss";
}

NimbRemoteLogger::NimbRemoteLogger() : NimbModuleBaseQT("NimbRemoteLogger") {}

NimbRemoteLogger::~NimbRemoteLogger() {
    close();
    const PMutexLocker lock(logMapLock);
    logMap.clear();
}

bool NimbRemoteLogger::init(const std::vector<CStdStr>&) {
    CBBLog::info("Starting");
    satellite = new NimbRemoteLoggerSatellite(this);
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
    return true;
}

void NimbRemoteLogger::close() {
    if (satellite == nullptr) return;
    // The satellite leaves the bus and waits for its running handlers, so nothing is
    // emitted after this. A device's request is acknowledged as soon as its handler
    // returned, maybe before the queued slot ran: deliver those calls now, while the
    // loggers still exist.
    delete satellite;
    satellite = nullptr;
    QCoreApplication::sendPostedEvents(this, QEvent::MetaCall);
}

CStdStr NimbRemoteLogger::getLogId(const CStdStr& macAddr, const CStdStr& logName) {
    return RemoteLogNames::logId(macAddr, logName);
}

void NimbRemoteLogger::addLog(QString macAddr, QString deviceId, QString satName,
                              QString displayName, QDateTime puckTime, QString logName) {
    const CStdStr mac(macAddr);
    const CStdStr id = getLogId(mac, CStdStr(logName));
    const CStdStr fileName = RemoteLogNames::fileName(CStdStr(deviceId), id);
    // The satellite refuses such names already; a direct caller of this slot must not
    // reach outside the logs folder either.
    if (!RemoteLogNames::isPlainFileName(fileName)) {
        CBBLog::error("Refused log file name %s", fileName.c_str());
        return;
    }
    {
        const PMutexLocker lock(logMapLock);
        // Looked up under the raw MAC address, not the id, on purpose: this normally
        // finds nothing (leaving a null entry), so every announcement starts a fresh
        // logger for its file.
        if (!logMap[mac]) {
            boost::shared_ptr<CBBLog> log(new CBBLog(fileName, false, kRemoteLogSize));
            logMap[id] = log;
        }
    }
    const QString header =
        QStringLiteral("\n===== ") + displayName + QStringLiteral(" - ") + satName +
        QStringLiteral(" === ") + puckTime.toString(kTimeFormat) + QStringLiteral(" <-> ") +
        QDateTime::currentDateTime().toString(kTimeFormat) + QStringLiteral(" =====\n");
    appendLog(macAddr, logName, header);
}

void NimbRemoteLogger::appendLog(QString macAddr, QString logName, QString content) {
    const CStdStr id = getLogId(CStdStr(macAddr), CStdStr(logName));
    boost::shared_ptr<CBBLog> log;
    {
        const PMutexLocker lock(logMapLock);
        // find, not operator[]: text for an unknown log leaves no trace in the map.
        const auto found = logMap.find(id);
        if (found != logMap.end()) log = found->second;
    }
    if (!log) return;
    log->AddRawLog(CStdStr(content).c_str());
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
