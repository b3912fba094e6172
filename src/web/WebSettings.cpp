// SPDX-License-Identifier: MIT
#include "WebSettings.h"

#include <algorithm>
#include <cstdlib>

#include "CFileTools.h"
#include "CRegistry.h"
#include "StdString.h"

namespace {

QString readString(const char* key, const char* name, const QString& fallback) {
    CStdStr value;
    if (!CRegistry::getInstance()->ReadSettingImpl(key, name, value)) return fallback;
    return QString::fromStdString(value);
}

// Reads an integer setting into `value` (unchanged when absent), held to [low, high].
void readInt(const char* name, int low, int high, int& value) {
    int read = value;
    if (!CRegistry::getInstance()->ReadSettingImpl(WebSettings::kKey, name, read)) return;
    value = std::clamp(read, low, high);
}

void readLimits(HttpLimits& limits) {
    constexpr int kHour = 3600;
    int headerSeconds = limits.headerTimeoutMs / 1000;
    int bodySeconds = limits.bodyTimeoutMs / 1000;
    readInt("HeaderTimeout", 1, kHour, headerSeconds);
    readInt("BodyTimeout", 1, kHour, bodySeconds);
    limits.headerTimeoutMs = headerSeconds * 1000;
    limits.bodyTimeoutMs = bodySeconds * 1000;
    int maxBody = static_cast<int>(limits.maxBodyBytes);
    readInt("MaxBodySize", 0, 1 << 30, maxBody);
    limits.maxBodyBytes = maxBody;
    readInt("MaxConnections", 1, 1000000, limits.maxConnections);
    readInt("MaxConnectionsPerAddress", 1, 1000000, limits.maxConnectionsPerAddress);
    readInt("LoginDelay", 0, kHour * 1000, limits.loginDelayMs);
    readInt("LoginDelayMax", 0, kHour * 1000, limits.loginDelayMaxMs);
}

}  // namespace

WebSettings WebSettings::load() {
    WebSettings settings;
    QString error;
    const QString listen = readString(kKey, "Listen", QString::fromLatin1(kDefaultListen));
    if (!settings.setListen(listen, error)) settings.problem = error;
    settings.tokenHash = readString(kKey, "TokenHash", {});
    settings.user = readString(kKey, "User", {});
    settings.passwordHash = readString(kKey, "PasswordHash", {});
    readLimits(settings.limits);
    readInt("SilentAfterMinutes", 1, 7 * 24 * 60, settings.silentAfterMinutes);
    settings.bus = NimbBusSettings::read();
    // Its own bus account when it has one: the suite's credentials file is the
    // collector's where both read the same settings home (the packaged services).
    const QString busCreds = readString(kKey, "BusCredsFile", {});
    if (!busCreds.isEmpty()) settings.bus.connection.credentialsFile = busCreds.toStdString();
    settings.logsDir = CFileTools::GetLogsDirectory();
    const char* tmp = std::getenv("TMPDIR");
    settings.dumpDir = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
    return settings;
}

bool WebSettings::setListen(const QString& text, QString& error) {
    const qsizetype colon = text.lastIndexOf(QLatin1Char(':'));
    QString address = colon > 0 ? text.left(colon) : QString();
    if (address.startsWith(QLatin1Char('[')) && address.endsWith(QLatin1Char(']'))) {
        address = address.mid(1, address.size() - 2);
    }
    bool ok = false;
    const uint value = colon > 0 ? text.mid(colon + 1).toUInt(&ok) : 0;
    QHostAddress parsed;
    if (!ok || value == 0 || value > 65535 || !parsed.setAddress(address)) {
        error = QStringLiteral("invalid listen address \"%1\" (expected ADDR:PORT, e.g. %2)")
                    .arg(text, QString::fromLatin1(kDefaultListen));
        return false;
    }
    listen = text;
    host = parsed;
    port = static_cast<quint16>(value);
    return true;
}
