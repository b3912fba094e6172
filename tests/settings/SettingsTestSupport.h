// SPDX-License-Identifier: MIT
// Test support for the settings store: a fixture that points XDG_CONFIG_HOME at a
// fresh temporary folder for the length of one test, with helpers for the raw files.
#pragma once

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <cstdlib>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "CSettingsDomain.h"

class TempConfigHome : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(home_.isValid());
        if (const char* old = std::getenv("XDG_CONFIG_HOME")) saved_ = std::string(old);
        setenv("XDG_CONFIG_HOME", home_.path().toUtf8().constData(), 1);
    }
    void TearDown() override {
        if (saved_) {
            setenv("XDG_CONFIG_HOME", saved_->c_str(), 1);
        } else {
            unsetenv("XDG_CONFIG_HOME");
        }
    }

    QString homePath() const { return home_.path(); }
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

private:
    QTemporaryDir home_;
    std::optional<std::string> saved_;
};
