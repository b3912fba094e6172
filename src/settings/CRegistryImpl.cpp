// SPDX-License-Identifier: MIT
#include "CRegistryImpl.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include <QVariant>

#include "CSettingsDomain.h"

bool CRegistryImpl::WriteSettingImpl(const CStdStr& key, const CStdStr& name,
                                     const CStdStr& value) {
    CSettingsDomain domain(createKey(key));
    return domain.setValue(name, QVariant(value.toQString()));
}

bool CRegistryImpl::WriteSettingImpl(const CStdStr& key, const CStdStr& name, int value) {
    CSettingsDomain domain(createKey(key));
    return domain.setValue(name, QVariant(value));
}

// Type mismatches are not checked: a value of another type reads as Qt converts it
// (a number as its decimal text, a boolean as "true"/"false").
bool CRegistryImpl::ReadSettingImpl(const CStdStr& key, const CStdStr& name, CStdStr& value) {
    CSettingsDomain domain(createKey(key));
    if (!domain.synchronize()) return false;
    const std::optional<QVariant> stored = domain.value(name);
    if (!stored) return false;
    value = CStdStr::fromQString(stored->toString());
    return true;
}

// As for strings, the type is not checked: a string holding a number reads as that
// number, other text as 0; a boolean as 0 or 1.
bool CRegistryImpl::ReadSettingImpl(const CStdStr& key, const CStdStr& name, int& value) {
    CSettingsDomain domain(createKey(key));
    if (!domain.synchronize()) return false;
    const std::optional<QVariant> stored = domain.value(name);
    if (!stored) return false;
    value = stored->toInt();
    return true;
}

bool CRegistryImpl::ReadSettingImpl(const CStdStr& key, const CStdStr& name, bool& value) {
    CSettingsDomain domain(key);
    if (!domain.synchronize()) return false;
    const std::optional<QVariant> stored = domain.value(name);
    if (!stored) return false;
    value = stored->toBool();
    return true;
}

void CRegistryImpl::ReadAllSettingsImpl(const CStdStr& key, std::map<CStdStr, CStdStr>& values) {
    CSettingsDomain domain(createKey(key));
    if (!domain.synchronize()) {
        printf("synchronization failed for %s\n", domain.domain().c_str());
        return;
    }
    const QStringList names = domain.names();
    if (names.isEmpty()) {
        printf("no keys for %s\n", domain.domain().c_str());
        return;
    }
    for (const QString& name : names) {
        const QVariant stored = domain.value(CStdStr::fromQString(name)).value_or(QVariant());
        if (stored.typeId() == QMetaType::Int) {
            values[CStdStr::fromQString(name)] = CStdStr(1, static_cast<char>(stored.toInt()));
        } else if (stored.typeId() == QMetaType::QString) {
            values[CStdStr::fromQString(name)] = CStdStr::fromQString(stored.toString());
        }
    }
}

CStdStr CRegistryImpl::createKey(const CStdStr& key) {
    CStdStr domain(key);
    std::transform(domain.begin(), domain.end(), domain.begin(), [](char c) {
        return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    });
    domain.Replace("software\\pellix\\nimb", "com.pellix.nimb");
    std::replace(domain.begin(), domain.end(), '\\', '.');
    return domain;
}
