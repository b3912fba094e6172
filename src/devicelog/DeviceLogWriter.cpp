// SPDX-License-Identifier: MIT
// DeviceLogWriter and its handles; the work is DeviceLogWriterCore's
// (DeviceLogWriterCore.cpp).
#include "DeviceLogWriter.h"

#include <algorithm>
#include <thread>

#include "DeviceLogWriterCore.h"

namespace {

// A handle on one log: keeps the log (and the core) alive and queues its texts.
class DeviceLogHandle : public CBBLogSink {
public:
    DeviceLogHandle(std::shared_ptr<DeviceLogWriterCore> core, DeviceLogState* log)
        : core_(std::move(core)), log_(log) {}
    ~DeviceLogHandle() override { core_->release(log_); }

    bool append(CStdStr text, std::shared_ptr<LogWriteListener> listener,
                const LogTextInfo& info) override {
        return core_->append(*log_, {std::move(text), std::move(listener), info, nullptr});
    }
    const CStdStr& path() const override { return log_->path; }

private:
    const std::shared_ptr<DeviceLogWriterCore> core_;
    DeviceLogState* const log_;
};

}  // namespace

DeviceLogWriter::DeviceLogWriter(Options options)
    : core_(std::make_shared<DeviceLogWriterCore>(std::move(options))) {
    core_->start();
}

DeviceLogWriter::~DeviceLogWriter() { core_->stop(); }

std::shared_ptr<CBBLogSink> DeviceLogWriter::open(const std::string& fileName) {
    return std::make_shared<DeviceLogHandle>(core_, core_->acquire(fileName));
}

void DeviceLogWriter::setIdentity(const std::string& fileName,
                                  const DeviceLogIndex::Identity& identity) {
    DeviceLogState* log = core_->acquire(fileName);
    DeviceLogItem item;
    item.identity = std::make_shared<const DeviceLogIndex::Identity>(identity);
    core_->append(*log, std::move(item));
    core_->release(log);
}

void DeviceLogWriter::drain() { core_->drain(); }

DeviceLogWriter::Stats DeviceLogWriter::stats() const { return core_->stats(); }

int DeviceLogWriter::threadCount(int requested) {
    const int cores = std::max(1, static_cast<int>(std::thread::hardware_concurrency()));
    if (requested <= 0) return std::min(cores, kMaxDefaultThreads);
    return std::min(requested, cores);
}
