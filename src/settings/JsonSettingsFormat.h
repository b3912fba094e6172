// SPDX-License-Identifier: MIT
// JsonSettingsFormat: the QSettings file format of the settings store. A store file
// is one flat JSON object, value name to value; 32-bit integers, strings and booleans
// keep their types, anything else found in a file (arrays, objects, wider or
// fractional numbers, null) is kept as it is and written back unchanged. Stateless;
// the format is registered once per process, from any thread.
#pragma once

#include <QSettings>

namespace JsonSettingsFormat {

// The QSettings format handle, registered on first use. Thread-safe.
QSettings::Format format();

// Parses a store file's bytes into `map`. An empty document is an empty store.
// Returns false when the bytes are not a JSON object; `map` is then left partly
// filled and must not be used.
bool parse(const QByteArray& bytes, QSettings::SettingsMap& map);

// Serialises `map` as an indented JSON object. Returns false when a value has no
// JSON form.
bool serialise(const QSettings::SettingsMap& map, QByteArray& bytes);

}  // namespace JsonSettingsFormat
