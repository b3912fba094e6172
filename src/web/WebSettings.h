// SPDX-License-Identifier: MIT
// WebSettings: what nimb-web runs with: the address to listen on, the logs and dump
// folders, the credentials and the bus directory. Read from the settings store (key
// "Software\Pellix\Nimb\Web", plus the suite's logs folder and bus settings), then
// overridden by command-line options. A plain value; main thread.
#pragma once

#include <string>

#include <QHostAddress>
#include <QString>

#include "HttpLimits.h"
#include "NimbBusSettings.h"

struct WebSettings {
    static constexpr const char* kKey = "Software\\Pellix\\Nimb\\Web";
    static constexpr const char* kDefaultListen = "127.0.0.1:8470";

    QString listen = QString::fromLatin1(kDefaultListen);
    QHostAddress host{QHostAddress::LocalHost};
    quint16 port = 8470;
    std::string logsDir;
    std::string dumpDir;
    QString tokenHash;
    QString user;
    QString passwordHash;
    // Where the collector's counters are read: the suite's bus settings (server, TLS),
    // with BusCredsFile, when set, as the credentials file.
    NimbBusSettings bus;
    // Timeouts, body size, connection caps and the slowdown after failed logins.
    HttpLimits limits;
    // A device quiet this long (after sending within the last week) is listed as gone
    // silent on the Health page.
    int silentAfterMinutes = 60;
    // Why a stored setting could not be used (the program refuses to start); "" if none.
    QString problem;

    // Reads the stored settings: Listen, TokenHash, User, PasswordHash, BusCredsFile
    // and the bounds (HeaderTimeout, BodyTimeout, MaxBodySize, MaxConnections,
    // MaxConnectionsPerAddress, LoginDelay, LoginDelayMax, SilentAfterMinutes; a value out
    // of its range is taken as the nearest end) under kKey; the logs folder (CFileTools); the bus
    // settings; the dump folder ($TMPDIR, else /tmp).
    static WebSettings load();

    // Sets listen/host/port from "ADDR:PORT" (IPv6 as "[ADDR]:PORT"); false with
    // `error` set when it is not a numeric address and a port 1-65535.
    bool setListen(const QString& text, QString& error);
    // Whether the listening address is a loopback address.
    bool loopbackOnly() const { return host.isLoopback(); }
    bool hasCredentials() const { return !tokenHash.isEmpty() || !passwordHash.isEmpty(); }
};
