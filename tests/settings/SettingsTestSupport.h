// SPDX-License-Identifier: MIT
// Test support for the settings store: the shared fixture that gives each test its own
// settings home (XDG_CONFIG_HOME), with helpers for the raw store files.
#pragma once

#include <string>

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include "CSettingsDomain.h"
#include "NimbTestSupport.h"

class TempConfigHome : public nimbtest::ConfigHomeTest {
protected:
    QString homePath() const { return QString::fromStdString(dir_ / "config"); }
    static QString storeFile(const char* domain) {
        return CSettingsDomain(domain).filePath().toQString();
    }
    static QByteArray readStoreFile(const char* domain) {
        QFile file(storeFile(domain));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    static void writeStoreFile(const char* domain, const QByteArray& bytes) {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(storeFile(domain)).path()));
        QFile file(storeFile(domain));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ASSERT_EQ(file.write(bytes), bytes.size());
    }
    // Makes the store folder impossible to create by putting a file in its place.
    void blockStoreFolder() const {
        QFile blocker(QDir(homePath()).filePath("pellix"));
        ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    }
};
