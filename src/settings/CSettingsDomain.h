// SPDX-License-Identifier: MIT
// CSettingsDomain: one preferences domain of the settings store, the typed file
// "<config home>/pellix/<domain>.json" (config home: $XDG_CONFIG_HOME, or ~/.config
// when that is unset, empty or relative; read at each construction). Opening reads
// the file; every change is written back at once under the store's lock file with an
// atomic replace, so several processes may share a domain. A short-lived value object
// owned by its creator; one object must not be shared between threads.
#pragma once

#include <memory>
#include <optional>

#include <QSettings>
#include <QStringList>
#include <QVariant>

#include "StdString.h"

class CSettingsDomain {
public:
    // Opens the domain and reads its file. Never fails here: a bad domain name or an
    // unreadable file shows in synchronize().
    explicit CSettingsDomain(const CStdStr& domain);
    CSettingsDomain(const CSettingsDomain&) = delete;
    CSettingsDomain& operator=(const CSettingsDomain&) = delete;
    ~CSettingsDomain();

    // The folder that holds every domain's file, without a trailing "/".
    static CStdStr storeDirectory();
    // A domain name is usable when it is a single, non-empty file name component.
    static bool isUsableName(const CStdStr& domain);

    const CStdStr& domain() const { return domain_; }
    // The domain's file; empty for an unusable domain name.
    CStdStr filePath() const;

    // Brings the domain and its file in line (reading changes made by other
    // processes). Returns false when the name is unusable or the file cannot be read,
    // parsed or written.
    bool synchronize();

    // The stored value, or nothing when the name is not set. Does not synchronise.
    std::optional<QVariant> value(const CStdStr& name) const;
    // The value names, sorted.
    QStringList names() const;

    // Sets (or removes) one value and synchronises. Returns false, and leaves the
    // file as it was, when the domain is failed, the name is empty or the file cannot
    // be written.
    bool setValue(const CStdStr& name, const QVariant& value);
    bool remove(const CStdStr& name);
    // Removes every value of the domain (the file stays, empty) and synchronises.
    bool clear();

    // Why the last synchronisation failed, as one English sentence naming the domain
    // or file; empty when nothing failed.
    CStdStr failureReason() const;

private:
    // True when the last reading found the file usable (missing counts as empty).
    bool isHealthy() const;

    // Immutable after construction.
    CStdStr domain_;
    std::unique_ptr<QSettings> settings_;  // null for an unusable name
};
