// SPDX-License-Identifier: MIT
#include "SyslogSettings.h"

#include "CBBLog.h"
#include "CRegistry.h"

namespace {

void readInt(CRegistry& registry, const char* name, int low, int high, int& value) {
    int read = value;
    if (!registry.ReadSettingImpl(SyslogSettings::kKey, name, read)) return;
    if (read < low || read > high) {
        const int bounded = read < low ? low : high;
        CBBLog::error("Syslog: setting %s is %d, outside %d to %d; using %d", name, read, low, high,
                      bounded);
        read = bounded;
    }
    value = read;
}

void readString(CRegistry& registry, const char* name, std::string& value) {
    CStdStr read;
    if (registry.ReadSettingImpl(SyslogSettings::kKey, name, read) && !read.empty()) value = read;
}

}  // namespace

SyslogSettings SyslogSettings::read() {
    SyslogSettings settings;
    const auto registry = CRegistry::getInstance();
    if (!registry) return settings;
    readInt(*registry, "UdpPort", 0, 65535, settings.udpPort);
    readInt(*registry, "TcpPort", 0, 65535, settings.tcpPort);
    readInt(*registry, "TlsPort", 0, 65535, settings.tlsPort);
    readString(*registry, "Address", settings.address);
    readString(*registry, "CertFile", settings.certFile);
    readString(*registry, "KeyFile", settings.keyFile);
    readString(*registry, "ClientCaFile", settings.clientCaFile);
    readString(*registry, "ClientsFile", settings.clientsFile);
    registry->ReadSettingImpl(kKey, "RequireClientCert", settings.requireClientCert);
    readInt(*registry, "MaxMessageSize", 480, 1048576, settings.maxMessageSize);
    readInt(*registry, "ClockThreshold", 0, 86400, settings.clockThreshold);
    readInt(*registry, "MaxLinesPerSecond", 0, 10000000, settings.maxLinesPerSecond);
    readInt(*registry, "MaxConnections", 1, 4096, settings.maxConnections);
    readInt(*registry, "MaxConnectionsPerAddress", 1, 4096, settings.maxConnectionsPerAddress);
    readInt(*registry, "MaxSenders", 1, 4096, settings.maxSenders);
    readInt(*registry, "MaxAppsPerSender", 1, 1024, settings.maxAppsPerSender);
    return settings;
}
