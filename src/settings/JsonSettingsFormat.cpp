// SPDX-License-Identifier: MIT
#include "JsonSettingsFormat.h"

#include <cmath>
#include <cstdint>
#include <limits>

#include <QFile>
#include <QFileDevice>
#include <QIODevice>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QJsonValue>

namespace {

// JSON has a single number type; an integral value that fits 32 bits is the store's
// integer, a wider integral value stays a 64-bit integer, anything else a double.
QVariant numberToVariant(double number) {
    if (std::trunc(number) == number) {
        if (number >= std::numeric_limits<int32_t>::min() &&
            number <= std::numeric_limits<int32_t>::max()) {
            return QVariant(static_cast<int>(number));
        }
        if (std::fabs(number) <= 9007199254740992.0) {  // 2^53: exact in a double
            return QVariant(static_cast<qlonglong>(number));
        }
    }
    return QVariant(number);
}

QVariant jsonToVariant(const QJsonValue& value) {
    switch (value.type()) {
        case QJsonValue::Bool:
            return QVariant(value.toBool());
        case QJsonValue::Double:
            return numberToVariant(value.toDouble());
        case QJsonValue::String:
            return QVariant(value.toString());
        default:
            return value.toVariant();
    }
}

QJsonValue variantToJson(const QVariant& value) {
    switch (value.typeId()) {
        case QMetaType::Bool:
            return QJsonValue(value.toBool());
        case QMetaType::Int:
        case QMetaType::UInt:
        case QMetaType::LongLong:
        case QMetaType::Short:
        case QMetaType::UShort:
            return QJsonValue(value.toLongLong());
        case QMetaType::QString:
            return QJsonValue(value.toString());
        default:
            return QJsonValue::fromVariant(value);
    }
}

// True when the file at `path` is missing, empty or a valid store. Called with the
// store's lock held, just before the file is replaced.
bool existingFileIsValid(const QString& path) {
    QFile file(path);
    if (!file.exists()) return true;
    if (!file.open(QIODevice::ReadOnly)) return false;
    QSettings::SettingsMap ignored;
    return JsonSettingsFormat::parse(file.readAll(), ignored);
}

bool readStore(QIODevice& device, QSettings::SettingsMap& map) {
    return JsonSettingsFormat::parse(device.readAll(), map);
}

// QSettings replaces the file with what it parsed before plus this process's
// changes. When the file it read could not be parsed, that is an empty map, so the
// replacement would wipe the user's settings: refuse, and the write fails instead.
bool writeStore(QIODevice& device, const QSettings::SettingsMap& map) {
    const auto* file = qobject_cast<const QFileDevice*>(&device);
    if (file != nullptr && !existingFileIsValid(file->fileName())) return false;
    QByteArray bytes;
    if (!JsonSettingsFormat::serialise(map, bytes)) return false;
    return device.write(bytes) == bytes.size();
}

}  // namespace

namespace JsonSettingsFormat {

QSettings::Format format() {
    static const QSettings::Format kFormat =
        QSettings::registerFormat(QStringLiteral("json"), readStore, writeStore, Qt::CaseSensitive);
    return kFormat;
}

bool parse(const QByteArray& bytes, QSettings::SettingsMap& map) {
    if (bytes.trimmed().isEmpty()) return true;
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) return false;
    const QJsonObject object = document.object();
    for (auto it = object.begin(); it != object.end(); ++it) {
        map.insert(it.key(), jsonToVariant(it.value()));
    }
    return true;
}

bool serialise(const QSettings::SettingsMap& map, QByteArray& bytes) {
    QJsonObject object;
    for (auto it = map.begin(); it != map.end(); ++it) {
        const QJsonValue value = variantToJson(it.value());
        if (value.isUndefined()) return false;
        object.insert(it.key(), value);
    }
    bytes = QJsonDocument(object).toJson(QJsonDocument::Indented);
    return true;
}

}  // namespace JsonSettingsFormat
