// SPDX-License-Identifier: MIT
// WebApiParts: small helpers shared by the API's source files (WebApi.cpp, WebLogApi.cpp):
// bytes as JSON text, the 404 answer, numbers, times and severities in query values,
// ".back" names, devices' display names, attachments streamed from a file. Internal
// to nimb_web; stateless, any thread.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>

#include <QDateTime>
#include <QFile>
#include <QString>

#include "DeviceLogSeverity.h"
#include "LogCatalog.h"
#include "WebReply.h"

namespace WebApiParts {

inline const std::string kBack = ".back";

// UTF-8 bytes as a QString (bytes that are not UTF-8 become U+FFFD).
inline QString text(const std::string& bytes) {
    return QString::fromUtf8(bytes.data(), static_cast<qsizetype>(bytes.size()));
}

inline WebReply notFound() { return WebReply::error(404, QStringLiteral("not found")); }

// Decimal digits only, at most 19 of them; false for anything else.
inline bool number(const std::string& value, std::uint64_t& out) {
    if (value.empty() || value.size() > 19 ||
        !std::all_of(value.begin(), value.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return false;
    }
    out = std::stoull(value);
    return true;
}

// A reply that streams `file` (written, not yet rewound) as the attachment `name`.
inline WebReply attachment(std::shared_ptr<QFile> file, const QByteArray& type,
                           const std::string& name) {
    file->seek(0);
    WebReply reply;
    reply.contentType = type;
    reply.file = std::move(file);
    reply.headers.emplace_back("Content-Disposition",
                               "attachment; filename=\"" + QByteArray::fromStdString(name) + "\"");
    return reply;
}

// "2026-11-22T10:00" or with seconds: server local time, or the zone it names
// ("2026-11-22T09:00:00Z", "...+01:00"); false when malformed.
inline bool parseTime(const std::string& value, std::int64_t& seconds) {
    const QDateTime when = QDateTime::fromString(text(value), Qt::ISODate);
    if (!when.isValid()) return false;
    seconds = when.toSecsSinceEpoch();
    return true;
}

// "warning" and the like: the least severe level a filter keeps; false when unknown.
inline bool parseLevel(const std::string& value, DeviceLogSeverity::Level& level) {
    return DeviceLogSeverity::parse(value, level) && level != DeviceLogSeverity::Level::Unknown;
}

// Lines of levels 0 to `level` (the more severe ones), as index severity bits.
inline std::uint16_t maskUpTo(DeviceLogSeverity::Level level) {
    return static_cast<std::uint16_t>((2u << static_cast<unsigned>(level)) - 1);
}

// The name a device is shown by: its announced display name, else the one the index
// knows (a syslog sender's), else its key.
inline std::string displayName(const LogCatalog::Device& device) {
    if (device.hasHeader && !device.header.displayName.empty()) return device.header.displayName;
    return device.sourceName.empty() ? device.key : device.sourceName;
}

inline bool isBackName(const std::string& file) {
    return file.size() > kBack.size() &&
           file.compare(file.size() - kBack.size(), kBack.size(), kBack) == 0;
}

}  // namespace WebApiParts
