// SPDX-License-Identifier: MIT
// CRegistryImpl: the settings store over per-user preferences domains. Each key path
// maps to one domain (createKey), each value name to a value in that domain's typed
// store file. Holds no state: every call opens the domain, synchronises it with its
// file and closes it again, so any thread may call, and other processes see each
// write once the call returns true. Owned through CRegistry::getInstance().
#pragma once

#include "CRegistry.h"

class CRegistryImpl : public CRegistry {
public:
    CRegistryImpl() = default;
    ~CRegistryImpl() override = default;

    bool WriteSettingImpl(const CStdStr& key, const CStdStr& name, const CStdStr& value) override;
    bool WriteSettingImpl(const CStdStr& key, const CStdStr& name, int value) override;
    bool ReadSettingImpl(const CStdStr& key, const CStdStr& name, CStdStr& value) override;
    bool ReadSettingImpl(const CStdStr& key, const CStdStr& name, int& value) override;
    // Adds every integer and string value of the key's domain to `values`
    // (overwriting entries of the same name). An integer lands as a one-character
    // string holding its low byte, not as decimal text; other types are skipped. When
    // the domain cannot be synchronised or has no values, says so on standard output
    // and leaves `values` as it was.
    void ReadAllSettingsImpl(const CStdStr& key, std::map<CStdStr, CStdStr>& values) override;
    // The key is the domain name itself: it is not mapped through createKey.
    bool ReadSettingImpl(const CStdStr& key, const CStdStr& name, bool& value) override;

    // The domain name of a key path: lower-cased, the product prefix
    // "software\pellix\nimb" replaced by "com.pellix.nimb", backslashes replaced by
    // full stops. "Software\Pellix\Nimb\Config" gives "com.pellix.nimb.config".
    CStdStr createKey(const CStdStr& key);
};
