// SPDX-License-Identifier: MIT
// KibJson: the JSON notation of bus values used by kib-call (see docs/kib-call.md).
// Plain JSON strings, 32-bit integers, other numbers, booleans, null and arrays map
// to VT_BSTR, VT_I4, VT_R8, VT_BOOL, VT_NULL and arrays of VARIANTs; every other type
// is an object with one tag key, such as {"date":"2026-11-22T10:00:00Z"} or
// {"i4[]":[1,2]}. Stateless; any thread.
#pragma once

#include <QJsonValue>
#include <QString>

#include "KibVariantHolder.h"

class KibJson {
public:
    // Builds the value that `json` denotes into `out`; false with `error` set (and
    // `out` empty) when the JSON does not denote a bus value.
    static bool toVariant(const QJsonValue& json, KibVariantHolder& out, QString& error);
    // The JSON notation of `value`; toVariant gives the same value back.
    static QJsonValue fromVariant(const VARIANT& value);

    // OLE date <-> ISO 8601 UTC text ("2026-11-22T10:00:00Z", milliseconds when set).
    static QString dateToText(double date);
    static bool textToDate(const QString& text, double& date);
};
