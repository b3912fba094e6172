// SPDX-License-Identifier: MIT
#include "NimbBusSettings.h"

#include <sys/stat.h>

#include <QCommandLineParser>

#include "CRegistry.h"
#include "KibSatellite.h"
#include "NimbSettingsKeys.h"

namespace {

using NimbSettings::kBusCaFile;
using NimbSettings::kBusCredsFile;
using NimbSettings::kBusHost;
using NimbSettings::kConfigKey;

QString q(const char* text) { return QString::fromUtf8(text); }

void readString(const char* name, std::string& value) {
    CStdStr text;
    if (CRegistry::getInstance()->ReadSettingImpl(kConfigKey, name, text) && !text.empty())
        value = text;
}

void takeOption(const QCommandLineParser& parser, const char* name, std::string& value) {
    if (parser.isSet(q(name))) value = parser.value(q(name)).toStdString();
}

}  // namespace

NimbBusSettings NimbBusSettings::read() {
    NimbBusSettings settings;
    readString(kBusHost, settings.host);
    readString(kBusCaFile, settings.connection.caFile);
    readString(kBusCredsFile, settings.connection.credentialsFile);
    return settings;
}

QList<QCommandLineOption> NimbBusSettings::commandLineOptions() {
    return {
        {{q("H"), q("host")},
         q("Bus directory as host, host:port or URL; a comma-separated list for a cluster "
           "(default: the kibDirectory.host setting, else 127.0.0.1)."),
         q("host")},
        {q("ca"),
         q("Certificate authority (PEM) that the bus server's certificate must chain to; "
           "connects with TLS (default: the kibDirectory.caFile setting)."),
         q("file")},
        {q("creds"),
         q("Credentials file of this device (default: the kibDirectory.credsFile setting)."),
         q("file")},
    };
}

NimbBusSettings NimbBusSettings::fromCommandLine(const QCommandLineParser& parser) {
    NimbBusSettings settings = read();
    takeOption(parser, "host", settings.host);
    takeOption(parser, "ca", settings.connection.caFile);
    takeOption(parser, "creds", settings.connection.credentialsFile);
    return settings;
}

std::string NimbBusSettings::credentialsWarning() const {
    const std::string& file = connection.credentialsFile;
    struct stat info {};
    if (file.empty() || ::stat(file.c_str(), &info) != 0) return {};
    if ((info.st_mode & (S_IRWXG | S_IRWXO)) == 0) return {};
    return "credentials file " + file + " is readable by group or others (chmod 600 " + file + ")";
}

std::string NimbBusSettings::displayHost() const { return KibDisplayHost(host); }

int NimbBusSettings::connect(KibSatellite& satellite, const char* name) const {
    satellite.setConnectOptions(connection);
    return satellite.Connect(host.c_str(), name);
}
