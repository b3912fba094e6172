// SPDX-License-Identifier: MIT
// A device log written the way the collector writes it, for the console's tests: the real
// writer with the index and, given a rotate size, a history that compresses the older
// generations. Each append is one write, drained and indexed before it returns (so a log
// rotates as it fills, and readers of the index see it at once).
#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "DeviceLogHistory.h"
#include "DeviceLogIndex.h"
#include "DeviceLogWriter.h"

class IndexedLogWriter {
public:
    IndexedLogWriter(const std::string& logsDir, std::string file, long long rotateSize = 0)
        : file_(std::move(file)) {
        std::string error;
        index_ = DeviceLogIndex::openForWriting(logsDir, error);
        EXPECT_TRUE(index_) << error;
        if (!index_) return;
        DeviceLogWriter::Options options;
        options.logsDir = logsDir;
        options.index = index_;
        if (rotateSize > 0) {
            DeviceLogHistory::Options historyOptions;
            historyOptions.logsDir = logsDir;
            historyOptions.maxAgeDays = 0;
            historyOptions.minFreePercent = 0;
            history_ = std::make_shared<DeviceLogHistory>(historyOptions);
            options.rotateSize = rotateSize;
            options.history = history_;
        }
        writer_ = std::make_unique<DeviceLogWriter>(options);
        DeviceLogIndex::Identity identity;
        identity.deviceId = "puck-7";
        identity.mac = "00:11:22:33:44:55";
        identity.displayName = "Kitchen Camera";
        identity.caller = "sat1";
        writer_->setIdentity(file_, identity);
    }

    bool ok() const { return writer_ != nullptr; }
    void append(const std::string& text, bool header, long long receivedMs) {
        ASSERT_TRUE(writer_);
        LogTextInfo info;
        info.header = header;
        info.receivedMs = receivedMs;
        ASSERT_TRUE(writer_->open(file_)->append(text, nullptr, info));
        writer_->drain();
        if (history_) history_->drain();
        index_->flush();
    }
    DeviceLogHistory* history() const { return history_.get(); }

private:
    const std::string file_;
    std::shared_ptr<DeviceLogIndex> index_;
    std::shared_ptr<DeviceLogHistory> history_;
    std::unique_ptr<DeviceLogWriter> writer_;
};
