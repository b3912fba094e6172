// SPDX-License-Identifier: MIT
// Every setting the suite reads, in one table: key path, value name, type, default and
// a one-line meaning. Programs take their key paths and value names from here,
// `nimb-defaults --help` prints the table, and a test checks the docs' settings tables
// against it. A new setting adds its row here first. Plain constants: any thread.
#pragma once

namespace NimbSettings {

// Key paths.
constexpr const char* kSuiteKey = "Software\\Pellix\\Nimb";
constexpr const char* kConfigKey = "Software\\Pellix\\Nimb\\Config";
constexpr const char* kSyslogKey = "Software\\Pellix\\Nimb\\Syslog";
constexpr const char* kWebKey = "Software\\Pellix\\Nimb\\Web";
constexpr const char* kAlertsKey = "Software\\Pellix\\Nimb\\Alerts";

// Value names under kConfigKey.
constexpr const char* kBusHost = "kibDirectory.host";
constexpr const char* kBusCaFile = "kibDirectory.caFile";
constexpr const char* kBusCredsFile = "kibDirectory.credsFile";
constexpr const char* kCollectorCredsFile = "CollectorCredsFile";
constexpr const char* kBusBindingsFile = "BusBindingsFile";
constexpr const char* kMaxLogSources = "MaxLogSources";
constexpr const char* kMaxLogsPerDevice = "MaxLogsPerDevice";
constexpr const char* kWriterThreads = "WriterThreads";
constexpr const char* kMaxOpenLogFiles = "MaxOpenLogFiles";
constexpr const char* kIndexEnabled = "IndexEnabled";
constexpr const char* kHistoryMaxMiB = "HistoryMaxMiB";
constexpr const char* kHistoryMaxAgeDays = "HistoryMaxAgeDays";
constexpr const char* kHistoryMinFreePercent = "HistoryMinFreePercent";
constexpr const char* kHealthSampleSeconds = "HealthSampleSeconds";
// Value names under kSuiteKey.
constexpr const char* kLogLevel = "LogLevel";
constexpr const char* kLogsDir = "LogsDir";
constexpr const char* kDataDir = "DataDir";
constexpr const char* kInstallDir = "InstallDir";
constexpr const char* kCrashDumpsKept = "CrashDumpsKept";

struct Key {
    const char* keyPath;
    const char* name;
    const char* type;  // "int", "string" or "bool"
    const char* defaultText;
    const char* meaning;
};

constexpr Key kKeys[] = {
    {kConfigKey, kBusHost, "string", "127.0.0.1",
     "bus directory: host, host:port or URL; comma-separated: cluster"},
    {kConfigKey, kBusCaFile, "string", "none", "CA file (PEM): connect with TLS"},
    {kConfigKey, kBusCredsFile, "string", "none", "bus credentials file (mode 0600)"},
    {kConfigKey, kCollectorCredsFile, "string", "kibDirectory.credsFile",
     "the collector's own bus credentials file"},
    {kConfigKey, kBusBindingsFile, "string", "none",
     "device accounts' bound sources (nimb-bus-setup's bindings.conf)"},
    {kConfigKey, kMaxLogSources, "int", "16384", "device logs the collector keeps announced"},
    {kConfigKey, kMaxLogsPerDevice, "int", "1024", "announced logs of one device"},
    {kConfigKey, kWriterThreads, "int", "0",
     "device-log writer threads (0: one per core, at most 4)"},
    {kConfigKey, kMaxOpenLogFiles, "int", "1024", "device-log files kept open at once"},
    {kConfigKey, kIndexEnabled, "int", "1", "keep the index of what is written (0: none)"},
    {kConfigKey, kHistoryMaxMiB, "int", "0",
     "device-log history budget in MiB (0: 10 % of the file system, at most 8 GiB)"},
    {kConfigKey, kHistoryMaxAgeDays, "int", "90",
     "device-log history kept this many days (0: no limit)"},
    {kConfigKey, kHistoryMinFreePercent, "int", "5",
     "device-log history is trimmed while less of its file system is free"},
    {kConfigKey, kHealthSampleSeconds, "int", "60",
     "seconds between the collector's readings of its counters for the Health series"},
    {kSuiteKey, kLogLevel, "int", "1", "own log level: 0 FATAL, 1 ERROR ... 4 DEBUG"},
    {kSuiteKey, kLogsDir, "string", "/var/log/pellix", "logs folder"},
    {kSuiteKey, kDataDir, "string", "/var/lib/pellix", "data folder"},
    {kSuiteKey, kInstallDir, "string", "/opt/pellix/nimb", "install folder"},
    {kSuiteKey, kCrashDumpsKept, "int", "10", "crash dumps and reports kept"},
    {kSyslogKey, "UdpPort", "int", "0", "syslog over UDP on this port (0: off)"},
    {kSyslogKey, "TcpPort", "int", "0", "syslog over TCP on this port (0: off)"},
    {kSyslogKey, "TlsPort", "int", "0", "syslog over TLS on this port (0: off)"},
    {kSyslogKey, "Address", "string", "127.0.0.1", "address the syslog ports listen on"},
    {kSyslogKey, "CertFile", "string", "none", "TLS certificate chain (PEM)"},
    {kSyslogKey, "KeyFile", "string", "none", "TLS private key (PEM)"},
    {kSyslogKey, "ClientCaFile", "string", "none", "CA of senders' TLS client certificates"},
    {kSyslogKey, "ClientsFile", "string", "none", "allowed client certificate holders"},
    {kSyslogKey, "RequireClientCert", "bool", "false", "refuse TLS senders without one"},
    {kSyslogKey, "MaxMessageSize", "int", "8192", "longer messages are cut"},
    {kSyslogKey, "ClockThreshold", "int", "2", "seconds a sender's clock may be off"},
    {kSyslogKey, "MaxLinesPerSecond", "int", "5000", "per sender address (0: none)"},
    {kSyslogKey, "MaxConnections", "int", "64", "open syslog connections"},
    {kSyslogKey, "MaxConnectionsPerAddress", "int", "16",
     "open syslog connections from one address"},
    {kSyslogKey, "MaxSenders", "int", "64", "senders with files"},
    {kSyslogKey, "MaxAppsPerSender", "int", "16", "files per sender"},
    {kWebKey, "Listen", "string", "127.0.0.1:8470", "nimb-web address, ADDR:PORT"},
    {kWebKey, "TokenHash", "string", "none", "nimb-web bearer token (nimb-web --hash-secret)"},
    {kWebKey, "User", "string", "none", "nimb-web user name for its password"},
    {kWebKey, "PasswordHash", "string", "none", "nimb-web password (nimb-web --hash-secret)"},
    {kWebKey, "BusCredsFile", "string", "kibDirectory.credsFile",
     "nimb-web's own bus credentials file"},
    {kWebKey, "HeaderTimeout", "int", "10", "seconds for a request's head"},
    {kWebKey, "BodyTimeout", "int", "30", "seconds for a request's body"},
    {kWebKey, "MaxBodySize", "int", "65536", "longest request body (bytes); more: 413"},
    {kWebKey, "MaxConnections", "int", "1024", "open nimb-web connections"},
    {kWebKey, "MaxConnectionsPerAddress", "int", "64", "open nimb-web connections per address"},
    {kWebKey, "LoginDelay", "int", "1000", "ms an address waits after a failed login"},
    {kWebKey, "LoginDelayMax", "int", "30000", "ms, the longest such wait (doubling)"},
    {kAlertsKey, "Rules", "string", "[]", "alert rules (JSON; edited in the console)"},
    {kAlertsKey, "Channels", "string", "[]", "where alerts go (JSON; edited in the console)"},
    {kAlertsKey, "ConsoleUrl", "string", "http://<Listen>/",
     "the console's address as links in notifications give it"},
    {kAlertsKey, "SecretsFile", "string", "<config>/pellix/alert-secrets",
     "channel tokens and passwords (mode 0600)"},
    {kAlertsKey, "StateFile", "string", "<state>/pellix/nimb-web-alerts.sqlite",
     "what alerts have read, fired and sent"},
    {kWebKey, "SilentAfterMinutes", "int", "60",
     "a device quiet this long is listed as gone silent on the Health page"},
};

}  // namespace NimbSettings
