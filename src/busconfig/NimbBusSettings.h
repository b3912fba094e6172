// SPDX-License-Identifier: MIT
// NimbBusSettings: where and how every program of the suite reaches the bus: the
// server list, the certificate authority and the credentials file, read from the
// settings under "Software\Pellix\Nimb\Config" and, in the tools, replaced by their
// --host, --ca and --creds options. Secrets stay in the files named here: nothing in
// this struct is secret except a password a URL of `host` may carry, which
// displayHost() hides. Plain data; read on the thread that connects. The keys are rows
// of the settings table (NimbSettingsKeys.h).
// Errors: a setting that is missing or empty leaves the default; a file that cannot be
// read shows when connecting, as the bus library's status and lastConnectError().
#pragma once

#include <string>

#include <QCommandLineOption>
#include <QList>

#include "KibConnectOptions.h"

class KibSatellite;
class QCommandLineParser;

struct NimbBusSettings {
    // Comma-separated servers: "host", "host:port" or URLs ("tls://host:4222").
    std::string host = "127.0.0.1";
    KibConnectOptions connection;

    // The settings, with 127.0.0.1 and no TLS or credentials for what is not set.
    static NimbBusSettings read();
    // The options a tool offers for them: -H/--host, --ca, --creds.
    static QList<QCommandLineOption> commandLineOptions();
    // read(), with the options of commandLineOptions() given on `parser` taking precedence.
    static NimbBusSettings fromCommandLine(const QCommandLineParser& parser);

    // A warning for the user when the credentials file may be read by its group or by
    // others ("credentials file F is readable by group or others (chmod 600 F)"); "" when
    // it is private, missing or not set. The tools print it once, before connecting.
    std::string credentialsWarning() const;
    // `host` with the user names and passwords that its URLs may carry replaced by "***".
    std::string displayHost() const;
    // Hands the connection options to `satellite` and connects it as `name` (see
    // KibSatellite::Connect). On failure, satellite.lastConnectError() says why.
    int connect(KibSatellite& satellite, const char* name) const;
};
