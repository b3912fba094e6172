// SPDX-License-Identifier: MIT
#include "KibJson.h"

#include <cmath>
#include <cstring>
#include <limits>

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>

namespace {

struct Tag {
    const char* name;
    VARTYPE vt;
};

// The tag names of the types that plain JSON cannot say; "var" is the VARIANT
// element type and only appears as "var[]".
constexpr Tag kTags[] = {
    {"empty", VT_EMPTY}, {"null", VT_NULL}, {"i1", VT_I1},    {"i2", VT_I2},
    {"i4", VT_I4},       {"i8", VT_I8},     {"ui1", VT_UI1},  {"ui2", VT_UI2},
    {"ui4", VT_UI4},     {"ui8", VT_UI8},   {"r4", VT_R4},    {"r8", VT_R8},
    {"date", VT_DATE},   {"bool", VT_BOOL}, {"str", VT_BSTR}, {"var", VT_VARIANT},
};

constexpr double kUnixEpochAsOleDate = kDateUnixEpochDay;
constexpr double kMillisecondsPerDay = 86400000.0;
constexpr double kExactIntegerLimit = 9007199254740992.0;  // 2^53

const char* tagName(VARTYPE vt) {
    for (const Tag& tag : kTags) {
        if (tag.vt == vt) return tag.name;
    }
    return nullptr;
}

bool tagType(const QString& name, VARTYPE& vt) {
    for (const Tag& tag : kTags) {
        if (name == QLatin1String(tag.name)) {
            vt = tag.vt;
            return true;
        }
    }
    return false;
}

template <typename T>
void store(void* slot, T value) {
    std::memcpy(slot, &value, sizeof value);
}

template <typename T>
T load(const void* slot) {
    T value;
    std::memcpy(&value, slot, sizeof value);
    return value;
}

bool integerIn(const QJsonValue& json, double min, double max, double& value) {
    if (!json.isDouble()) return false;
    value = json.toDouble();
    return value == std::floor(value) && value >= min && value <= max;
}

template <typename T>
bool storeInteger(const QJsonValue& json, void* slot) {
    if (json.isString()) {  // 64-bit values beyond 2^53 travel as decimal text
        bool ok = false;
        if constexpr (std::is_signed_v<T>) {
            const qlonglong v = json.toString().toLongLong(&ok);
            if (ok && v >= std::numeric_limits<T>::min() && v <= std::numeric_limits<T>::max()) {
                store(slot, static_cast<T>(v));
                return true;
            }
        } else {
            const qulonglong v = json.toString().toULongLong(&ok);
            if (ok && v <= std::numeric_limits<T>::max()) {
                store(slot, static_cast<T>(v));
                return true;
            }
        }
        return false;
    }
    double v = 0;
    if (!integerIn(json, static_cast<double>(std::numeric_limits<T>::min()),
                   static_cast<double>(std::numeric_limits<T>::max()), v)) {
        return false;
    }
    store(slot, static_cast<T>(v));
    return true;
}

bool number(const QJsonValue& json, double& value) {
    if (json.isDouble()) {
        value = json.toDouble();
        return true;
    }
    const QString text = json.toString();
    if (text == QLatin1String("NaN"))
        value = std::numeric_limits<double>::quiet_NaN();
    else if (text == QLatin1String("Infinity"))
        value = std::numeric_limits<double>::infinity();
    else if (text == QLatin1String("-Infinity"))
        value = -std::numeric_limits<double>::infinity();
    else
        return false;
    return true;
}

QJsonValue numberJson(double value) {
    if (std::isnan(value)) return QStringLiteral("NaN");
    if (std::isinf(value))
        return value > 0 ? QStringLiteral("Infinity") : QStringLiteral("-Infinity");
    return value;
}

// One element (or scalar payload) of type `t` into `slot`, which holds zeros.
bool element(const QJsonValue& json, VARTYPE t, void* slot, QString& error) {
    bool ok = false;
    switch (t) {
        case VT_I1:
            ok = storeInteger<std::int8_t>(json, slot);
            break;
        case VT_I2:
            ok = storeInteger<std::int16_t>(json, slot);
            break;
        case VT_I4:
            ok = storeInteger<std::int32_t>(json, slot);
            break;
        case VT_I8:
            ok = storeInteger<std::int64_t>(json, slot);
            break;
        case VT_UI1:
            ok = storeInteger<std::uint8_t>(json, slot);
            break;
        case VT_UI2:
            ok = storeInteger<std::uint16_t>(json, slot);
            break;
        case VT_UI4:
            ok = storeInteger<std::uint32_t>(json, slot);
            break;
        case VT_UI8:
            ok = storeInteger<std::uint64_t>(json, slot);
            break;
        case VT_R4:
        case VT_R8: {
            double d = 0;
            ok = number(json, d);
            if (ok && t == VT_R4) store(slot, static_cast<float>(d));
            if (ok && t == VT_R8) store(slot, d);
            break;
        }
        case VT_DATE: {
            double d = 0;
            ok = json.isDouble() ? (d = json.toDouble(), true)
                                 : KibJson::textToDate(json.toString(), d);
            if (ok) store(slot, d);
            break;
        }
        case VT_BOOL:
            ok = json.isBool();
            if (ok) store(slot, json.toBool() ? VARIANT_TRUE : VARIANT_FALSE);
            break;
        case VT_BSTR:
            ok = json.isString() || json.isNull();
            if (ok && json.isString()) {
                const QByteArray text = json.toString().toUtf8();
                store(slot,
                      SysAllocStringLen(text.constData(), static_cast<unsigned>(text.size())));
            }
            break;
        case VT_VARIANT: {
            KibVariantHolder nested;
            if (!KibJson::toVariant(json, nested, error)) return false;
            store(slot, nested.release());
            return true;
        }
        default:
            break;
    }
    if (!ok) error = QStringLiteral("not a valid %1 value").arg(QLatin1String(tagName(t)));
    return ok;
}

bool typedArray(const QJsonValue& json, VARTYPE t, int lbound, KibVariantHolder& out,
                QString& error) {
    if (!json.isArray()) {
        error = QStringLiteral("%1[] needs a JSON array").arg(QLatin1String(tagName(t)));
        return false;
    }
    const QJsonArray items = json.toArray();
    SAFEARRAY* array = SafeArrayCreateVector(t, lbound, static_cast<std::uint32_t>(items.size()));
    if (array == nullptr) {
        error = QStringLiteral("cannot make an array of that type");
        return false;
    }
    VARIANT v{};
    VariantInit(&v);
    v.vt = static_cast<VARTYPE>(VT_ARRAY | t);
    v.parray = array;
    KibVariantHolder holder = KibVariantHolder::adopt(v);  // releases it on failure
    for (qsizetype i = 0; i < items.size(); ++i) {
        auto* slot = static_cast<char*>(array->pvData) + i * array->cbElements;
        if (!element(items.at(i), t, slot, error)) {
            error = QStringLiteral("element %1: %2").arg(i).arg(error);
            return false;
        }
    }
    out = std::move(holder);
    return true;
}

bool tagged(const QJsonObject& object, KibVariantHolder& out, QString& error) {
    QString key;
    int lbound = 0;
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (it.key() == QLatin1String("lbound") && it.value().isDouble()) {
            lbound = it.value().toInt();
        } else if (key.isEmpty()) {
            key = it.key();
        } else {
            key.clear();
            break;
        }
    }
    const bool isArray = key.endsWith(QLatin1String("[]"));
    VARTYPE t = VT_EMPTY;
    if (key.isEmpty() || !tagType(isArray ? key.chopped(2) : key, t)) {
        error =
            QStringLiteral("an object must have exactly one type tag, such as \"i4\" or \"str[]\"");
        return false;
    }
    const QJsonValue payload = object.value(key);
    if (isArray) return typedArray(payload, t, lbound, out, error);
    VARIANT v{};
    VariantInit(&v);
    if (t == VT_EMPTY || t == VT_NULL) {
        v.vt = t;
    } else if (t == VT_VARIANT) {
        error = QStringLiteral("\"var\" only exists as \"var[]\"");
        return false;
    } else {
        if (!element(payload, t, &v.llVal, error)) return false;
        v.vt = t;
    }
    out = KibVariantHolder::adopt(v);
    return true;
}

QJsonValue elementJson(VARTYPE t, const void* slot) {
    switch (t) {
        case VT_I1:
            return load<std::int8_t>(slot);
        case VT_I2:
            return load<std::int16_t>(slot);
        case VT_I4:
            return load<std::int32_t>(slot);
        case VT_UI1:
            return load<std::uint8_t>(slot);
        case VT_UI2:
            return load<std::uint16_t>(slot);
        case VT_UI4:
            return static_cast<double>(load<std::uint32_t>(slot));
        case VT_I8: {
            const auto v = load<std::int64_t>(slot);
            if (std::fabs(static_cast<double>(v)) < kExactIntegerLimit)
                return static_cast<double>(v);
            return QString::number(v);
        }
        case VT_UI8: {
            const auto v = load<std::uint64_t>(slot);
            if (static_cast<double>(v) < kExactIntegerLimit) return static_cast<double>(v);
            return QString::number(v);
        }
        case VT_R4:
            return numberJson(load<float>(slot));
        case VT_R8:
            return numberJson(load<double>(slot));
        case VT_DATE:
            return KibJson::dateToText(load<double>(slot));
        case VT_BOOL:
            return load<VARIANT_BOOL>(slot) != 0;
        case VT_BSTR: {
            const BSTR text = load<BSTR>(slot);
            if (text == nullptr) return QJsonValue(QJsonValue::Null);
            return QString::fromUtf8(text, static_cast<qsizetype>(SysStringLen(text)));
        }
        case VT_VARIANT:
            return KibJson::fromVariant(*static_cast<const VARIANT*>(slot));
        default:
            return QJsonValue(QJsonValue::Null);
    }
}

QJsonValue wrap(const char* tag, const QJsonValue& payload) {
    QJsonObject object;
    object.insert(QLatin1String(tag), payload);
    return object;
}

QJsonValue arrayJson(const VARIANT& value) {
    const VARTYPE t = static_cast<VARTYPE>(value.vt & ~VT_ARRAY);
    const SAFEARRAY* array = value.parray;
    QJsonArray items;
    if (array != nullptr) {
        for (std::uint32_t i = 0; i < array->rgsabound[0].cElements; ++i) {
            items.append(elementJson(t, static_cast<const char*>(array->pvData) +
                                            static_cast<std::size_t>(i) * array->cbElements));
        }
    }
    const std::int32_t lbound = array != nullptr ? array->rgsabound[0].lLbound : 0;
    if (t == VT_VARIANT && lbound == 0) return items;
    const char* name = tagName(t);
    QJsonObject object;
    object.insert(QString::fromLatin1(name != nullptr ? name : "unknown") + QLatin1String("[]"),
                  items);
    if (lbound != 0) object.insert(QLatin1String("lbound"), lbound);
    return object;
}

}  // namespace

bool KibJson::toVariant(const QJsonValue& json, KibVariantHolder& out, QString& error) {
    out.reset();
    VARIANT v{};
    VariantInit(&v);
    switch (json.type()) {
        case QJsonValue::Null:
            v.vt = VT_NULL;
            break;
        case QJsonValue::Bool:
            v.vt = VT_BOOL;
            v.boolVal = json.toBool() ? VARIANT_TRUE : VARIANT_FALSE;
            break;
        case QJsonValue::Double: {
            double d = 0;
            if (integerIn(json, std::numeric_limits<std::int32_t>::min(),
                          std::numeric_limits<std::int32_t>::max(), d)) {
                v.vt = VT_I4;
                v.lVal = static_cast<std::int32_t>(d);
            } else {
                v.vt = VT_R8;
                v.dblVal = json.toDouble();
            }
            break;
        }
        case QJsonValue::String: {
            const QByteArray text = json.toString().toUtf8();
            v.vt = VT_BSTR;
            v.bstrVal = SysAllocStringLen(text.constData(), static_cast<unsigned>(text.size()));
            break;
        }
        case QJsonValue::Array: {
            QJsonObject object;
            object.insert(QLatin1String("var[]"), json);
            return tagged(object, out, error);
        }
        case QJsonValue::Object:
            return tagged(json.toObject(), out, error);
        default:
            error = QStringLiteral("not a JSON value");
            return false;
    }
    out = KibVariantHolder::adopt(v);
    return true;
}

QJsonValue KibJson::fromVariant(const VARIANT& value) {
    if (value.vt & VT_ARRAY) return arrayJson(value);
    switch (value.vt) {
        case VT_EMPTY:
            return wrap("empty", QJsonValue(QJsonValue::Null));
        case VT_NULL:
            return QJsonValue(QJsonValue::Null);
        case VT_I4:
            return value.lVal;
        case VT_BOOL:
            return value.boolVal != 0;
        case VT_BSTR:
            if (value.bstrVal == nullptr) return wrap("str", QJsonValue(QJsonValue::Null));
            return elementJson(VT_BSTR, &value.bstrVal);
        case VT_R8:
            if (std::isfinite(value.dblVal) && value.dblVal != std::floor(value.dblVal)) {
                return value.dblVal;
            }
            return wrap("r8", numberJson(value.dblVal));
        default: {
            const char* name = tagName(value.vt);
            if (name == nullptr) return wrap("unknown", static_cast<int>(value.vt));
            return wrap(name, elementJson(value.vt, &value.llVal));
        }
    }
}

QString KibJson::dateToText(double date) {
    const double ms = std::round((date - kUnixEpochAsOleDate) * kMillisecondsPerDay);
    // A time converted with toUTC() is written with the "Z" suffix in ISO 8601.
    const QDateTime time = QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(ms)).toUTC();
    return time.toString(time.time().msec() != 0 ? Qt::ISODateWithMs : Qt::ISODate);
}

bool KibJson::textToDate(const QString& text, double& date) {
    QDateTime time = QDateTime::fromString(text, Qt::ISODateWithMs);
    if (!time.isValid()) return false;
    if (time.timeSpec() == Qt::LocalTime) time.setTimeSpec(Qt::UTC);  // no zone given: UTC
    date =
        static_cast<double>(time.toMSecsSinceEpoch()) / kMillisecondsPerDay + kUnixEpochAsOleDate;
    return true;
}
