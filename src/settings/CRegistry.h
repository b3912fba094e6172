// SPDX-License-Identifier: MIT
// CRegistry: the process-wide settings interface. Settings are addressed the
// registry way, a key path ("Software\Pellix\Nimb\Config") plus a value name; the
// implementation maps each key path to one typed store per domain. Reached through
// the lazily created singleton getInstance(); make the first call before other
// threads use the store. Reads return true only when the value exists and leave the
// output untouched otherwise, so the caller's variable holds the default.
// Errors: reads and writes return bool (false: missing, unreadable or not stored) and
// do not throw; only an unusable domain name is refused by the same false result.
#pragma once

#include <map>

#include <boost/shared_ptr.hpp>

#include "StdString.h"

class CRegistry {
public:
    CRegistry() = default;
    CRegistry(const CRegistry&) = delete;
    CRegistry& operator=(const CRegistry&) = delete;
    virtual ~CRegistry() = default;

    virtual bool WriteSettingImpl(const CStdStr& key, const CStdStr& name,
                                  const CStdStr& value) = 0;
    virtual bool WriteSettingImpl(const CStdStr& key, const CStdStr& name, int value) = 0;
    virtual bool ReadSettingImpl(const CStdStr& key, const CStdStr& name, CStdStr& value) = 0;
    virtual bool ReadSettingImpl(const CStdStr& key, const CStdStr& name, int& value) = 0;
    virtual void ReadAllSettingsImpl(const CStdStr& key, std::map<CStdStr, CStdStr>& values) = 0;
    // Note: the key is used verbatim as the domain name (already in domain form).
    virtual bool ReadSettingImpl(const CStdStr& key, const CStdStr& name, bool& value) = 0;

    // The shared store, created on first use.
    static boost::shared_ptr<CRegistry> getInstance();

    static boost::shared_ptr<CRegistry> instance;
};
