// SPDX-License-Identifier: MIT
// The history store: taking stock at start, the move into the history and the
// compression thread. Retention is in DeviceLogHistoryRetention.cpp, list() and read()
// in DeviceLogHistoryRead.cpp, the compressed format in DeviceLogHistoryFrames.
#include "DeviceLogHistory.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CBBLog.h"
#include "CRegistry.h"
#include "DeviceLogHistoryFiles.h"
#include "DeviceLogHistoryFrames.h"
#include "DeviceLogNames.h"
#include "NimbSettingsKeys.h"
#include "PThread.h"
#include "PThreadDelegate.h"
#include "RotatingLogFile.h"

using namespace DeviceLogHistoryFiles;

namespace {

constexpr const char* kThreadName = "nimb-history";
constexpr mode_t kFolderMode = 0775;  // as the logs folder is made
// A file that keeps growing while it is compressed is compressed again at most this often.
constexpr int kCompressAttempts = 3;

// Options within their bounds.
DeviceLogHistory::Options normalized(DeviceLogHistory::Options options) {
    options.frameBytes = std::clamp(options.frameBytes, DeviceLogHistory::kMinFrameBytes,
                                    DeviceLogHistory::kMaxFrameBytes);
    options.maxBytes = std::max(options.maxBytes, 0LL);
    options.maxAgeDays = std::max(options.maxAgeDays, 0);
    options.minFreePercent = std::clamp(options.minFreePercent, 0, 100);
    return options;
}

}  // namespace

// ---- Life ----

DeviceLogHistory::DeviceLogHistory(Options options)
    : options_(normalized(std::move(options))), historyDir_(options_.logsDir + "/" + kFolderName) {
    {
        PMutexLocker lock(mutex_);
        openFolder();
        if (historyFd_ < 0) {
            CBBLog::error("History: cannot open '%s': %s", historyDir_.c_str(),
                          errnoText(errno).c_str());
        } else {
            takeStock();
        }
    }
    try {
        thread_ = std::make_unique<PThread>(
            PThreadDelegateMember<DeviceLogHistory>(this, &DeviceLogHistory::run), nullptr,
            kThreadName);
    } catch (const std::exception&) {
        PMutexLocker lock(mutex_);
        if (historyFd_ >= 0) close(historyFd_);
        throw;
    }
}

DeviceLogHistory::~DeviceLogHistory() {
    {
        PMutexLocker lock(mutex_);
        stopping_ = true;
        mutex_.broadcast();
    }
    thread_->join();
    PMutexLocker lock(mutex_);
    if (historyFd_ >= 0) close(historyFd_);
    historyFd_ = -1;
}

void DeviceLogHistory::openFolder() {
    if (historyFd_ >= 0) close(historyFd_);
    mkdir(options_.logsDir.c_str(), kFolderMode);
    mkdir(historyDir_.c_str(), kFolderMode);
    historyFd_ = open(historyDir_.c_str(), kDirFlags);
}

int DeviceLogHistory::openLogFolder(const std::string& fileName) const {
    PMutexLocker lock(mutex_);
    return historyFd_ < 0 ? -1 : openat(historyFd_, fileName.c_str(), kDirFlags);
}

std::string DeviceLogHistory::generationName(long long movedAt, std::uint64_t seq) {
    const time_t time = static_cast<time_t>(movedAt);
    tm parts{};
    gmtime_r(&time, &parts);
    char name[64];
    const std::size_t length = strftime(name, sizeof(name), "%Y%m%dT%H%M%SZ-", &parts);
    snprintf(name + length, sizeof(name) - length, "%06llu", static_cast<unsigned long long>(seq));
    return name;
}

// Every log folder and generation already there. A folder or file that is a link, or
// whose name is not one the store gives, is left alone and not counted.
void DeviceLogHistory::takeStock() {
    const int listFd = dup(historyFd_);
    DIR* folders = listFd < 0 ? nullptr : fdopendir(listFd);
    if (folders == nullptr) {
        if (listFd >= 0) close(listFd);
        return;
    }
    std::uint64_t lastSeq = 0;
    while (const dirent* folder = readdir(folders)) {
        const std::string fileName = folder->d_name;
        if (!DeviceLogNames::isPlainFileName(fileName)) continue;
        const int dirFd = openat(historyFd_, fileName.c_str(), kDirFlags);
        DIR* files = dirFd < 0 ? nullptr : fdopendir(dirFd);
        if (files == nullptr) {
            if (dirFd >= 0) close(dirFd);
            continue;
        }
        std::map<std::uint64_t, std::pair<std::string, int>> found;  // name, 1 plain | 2 .zst
        while (const dirent* file = readdir(files)) {
            std::string name = file->d_name;
            int kind = 1;
            if (endsWith(name, kTempSuffix)) {
                unlinkat(dirFd, name.c_str(), 0);  // a compression that was cut short
                continue;
            }
            if (endsWith(name, kCompressedSuffix)) {
                name.resize(name.size() - strlen(kCompressedSuffix));
                kind = 2;
            }
            long long movedAt = 0;
            std::uint64_t seq = 0;
            if (!parseGeneration(name, movedAt, seq)) continue;
            found[seq].first = name;
            found[seq].second |= kind;
        }
        for (const auto& [seq, file] : found) {
            Generation generation;
            generation.name = file.first;
            std::uint64_t sameSeq = 0;
            parseGeneration(file.first, generation.movedAt, sameSeq);
            struct stat info {};
            bool plain = (file.second & 1) != 0;
            if ((file.second & 2) != 0) {
                const std::string packed = file.first + kCompressedSuffix;
                const int fd = openRegular(dirFd, packed, info);
                std::vector<DeviceLogHistoryFrames::Frame> frames;
                std::string error;
                if (fd >= 0 && DeviceLogHistoryFrames::readIndex(
                                   fd, static_cast<std::uint64_t>(info.st_size), frames, error)) {
                    // Complete: the plain file only waited for its removal.
                    if (plain) unlinkat(dirFd, file.first.c_str(), 0);
                    plain = false;
                    generation.rawBytes = DeviceLogHistoryFrames::rawSize(frames);
                    generation.compressedBytes = static_cast<std::uint64_t>(info.st_size);
                } else if (plain) {
                    unlinkat(dirFd, packed.c_str(), 0);  // the plain file is the whole text
                } else if (fd >= 0) {
                    // Damaged past reading; counted so that retention removes it in time.
                    generation.compressedBytes = static_cast<std::uint64_t>(info.st_size);
                }
                if (fd >= 0) close(fd);
                if (!plain && generation.compressedBytes == 0) continue;
            }
            if (plain) {
                if (fstatat(dirFd, file.first.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 ||
                    !S_ISREG(info.st_mode)) {
                    continue;
                }
                generation.rawBytes = static_cast<std::uint64_t>(info.st_size);
                generation.pending = true;
                queue_.push_back({fileName, seq});
                ++jobsQueued_;
            }
            LogHistory& log = logs_[fileName];
            log.bytes += generation.diskBytes();
            log.generations.emplace(seq, std::move(generation));
            lastSeq = std::max(lastSeq, seq);
        }
        closedir(files);
    }
    closedir(folders);
    nextSeq_ = lastSeq + 1;
}

// ---- The move ----

std::string DeviceLogHistory::keep(const std::string& fileName, const std::string& backupPath) {
    struct stat info {};
    if (!DeviceLogNames::isPlainFileName(fileName) || lstat(backupPath.c_str(), &info) != 0 ||
        !S_ISREG(info.st_mode)) {
        return "";
    }
    PMutexLocker lock(mutex_);
    int dirFd = -1;
    // A second attempt after opening the folder again: it may have been removed.
    for (int attempt = 0; attempt < 2 && dirFd < 0; ++attempt) {
        if (historyFd_ < 0 || attempt > 0) openFolder();
        if (historyFd_ < 0) return "";
        mkdirat(historyFd_, fileName.c_str(), kFolderMode);
        dirFd = openat(historyFd_, fileName.c_str(), kDirFlags);
    }
    if (dirFd < 0) return "";
    const std::uint64_t seq = nextSeq_++;
    Generation generation;
    generation.movedAt = time(nullptr);
    generation.name = generationName(generation.movedAt, seq);
    generation.rawBytes = static_cast<std::uint64_t>(info.st_size);
    generation.pending = true;
    int result =
        renameat2(AT_FDCWD, backupPath.c_str(), dirFd, generation.name.c_str(), RENAME_NOREPLACE);
    if (result != 0 && errno == EINVAL) {
        // A file system without RENAME_NOREPLACE; the name is new to the folder anyway.
        result = renameat(AT_FDCWD, backupPath.c_str(), dirFd, generation.name.c_str());
    }
    close(dirFd);
    if (result != 0) return "";
    const std::string path = historyDir_ + "/" + fileName + "/" + generation.name;
    LogHistory& log = logs_[fileName];
    log.bytes += generation.rawBytes;
    log.generations.emplace(seq, std::move(generation));
    queue_.push_back({fileName, seq});
    ++jobsQueued_;
    mutex_.broadcast();
    return path;
}

// ---- The thread ----

void* DeviceLogHistory::run(void*) {
    try {
        auto nextTrim =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(kTrimIntervalMs);
        for (;;) {
            Job job;
            bool haveJob = false;
            {
                PMutexLocker lock(mutex_);
                while (!stopping_ && queue_.empty() && mutex_.waitUntil(nextTrim)) {
                }
                if (stopping_) break;
                if (!queue_.empty()) {
                    job = std::move(queue_.front());
                    queue_.pop_front();
                    haveJob = true;
                }
            }
            if (haveJob) compress(job);
            trim();
            nextTrim =
                std::chrono::steady_clock::now() + std::chrono::milliseconds(kTrimIntervalMs);
        }
    } catch (const std::exception& e) {
        fprintf(stderr, "%s: history thread failed: %s\n", kThreadName, e.what());
        std::abort();
    }
    return nullptr;
}

void DeviceLogHistory::compress(const Job& job) {
    std::string name;
    {
        PMutexLocker lock(mutex_);
        const auto log = logs_.find(job.fileName);
        if (log == logs_.end() || log->second.generations.count(job.seq) == 0) {
            ++jobsDone_;  // removed before its turn
            mutex_.broadcast();
            return;
        }
        Generation& generation = log->second.generations[job.seq];
        generation.busy = true;
        name = generation.name;
    }
    std::uint64_t rawBytes = 0;
    std::uint64_t compressedBytes = 0;
    std::string error;
    const int dirFd = openLogFolder(job.fileName);
    const bool done = dirFd >= 0 && compressFile(dirFd, name, rawBytes, compressedBytes, error);
    if (dirFd < 0) error = errnoText(errno);
    if (dirFd >= 0) close(dirFd);
    if (!done) {
        CBBLog::error("History: cannot compress '%s/%s/%s': %s", historyDir_.c_str(),
                      job.fileName.c_str(), name.c_str(), error.c_str());
    }
    PMutexLocker lock(mutex_);
    // Retention leaves a busy generation alone, so it is still there.
    LogHistory& log = logs_[job.fileName];
    Generation& generation = log.generations[job.seq];
    generation.busy = false;
    generation.pending = false;
    if (done) {
        log.bytes -= generation.diskBytes();
        generation.rawBytes = rawBytes;
        generation.compressedBytes = compressedBytes;
        log.bytes += generation.diskBytes();
        ++stats_.compressedFiles;
    }
    ++jobsDone_;
    mutex_.broadcast();
}

// Compresses `name` into a temporary file, syncs it, renames it to `name`.zst and only
// then removes `name`: at any moment either the plain file or a complete .zst exists.
bool DeviceLogHistory::compressFile(int dirFd, const std::string& name, std::uint64_t& rawBytes,
                                    std::uint64_t& compressedBytes, std::string& error) const {
    struct stat info {};
    const int in = openRegular(dirFd, name, info);
    if (in < 0) {
        error = errnoText(errno);
        return false;
    }
    const std::string temp = name + kTempSuffix;
    unlinkat(dirFd, temp.c_str(), 0);
    const int out =
        openat(dirFd, temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
               RotatingLogFile::kFileMode);
    if (out < 0) {
        error = "cannot create " + temp + ": " + errnoText(errno);
        close(in);
        return false;
    }
    // The log's mode and group, whatever the umask made of the mode.
    fchmod(out, RotatingLogFile::kFileMode);
    if (fchown(out, static_cast<uid_t>(-1), info.st_gid) != 0) {
        // Not a member of that group: the file keeps the process's group.
    }
    bool done = false;
    // A writer of another process may still append to the generation until it notices
    // the rotation; what it added while the text was read is compressed again.
    for (int attempt = 0; attempt < kCompressAttempts && !done; ++attempt) {
        if (attempt > 0 && (ftruncate(out, 0) != 0 || lseek(out, 0, SEEK_SET) != 0)) break;
        if (!DeviceLogHistoryFrames::compress(in, out, options_.frameBytes,
                                              DeviceLogHistoryFrames::kLevel, rawBytes,
                                              compressedBytes, error)) {
            break;
        }
        done = fstat(in, &info) == 0 && static_cast<std::uint64_t>(info.st_size) == rawBytes;
        if (!done) error = "the file kept growing";
    }
    close(in);
    if (done && fsync(out) != 0) {
        error = "cannot sync " + temp + ": " + errnoText(errno);
        done = false;
    }
    close(out);
    const std::string packed = name + kCompressedSuffix;
    if (done && renameat(dirFd, temp.c_str(), dirFd, packed.c_str()) != 0) {
        error = "cannot rename " + temp + ": " + errnoText(errno);
        done = false;
    }
    if (!done) {
        unlinkat(dirFd, temp.c_str(), 0);
        return false;
    }
    fsync(dirFd);  // the new name is durable before the plain file goes
    unlinkat(dirFd, name.c_str(), 0);
    return true;
}

// ---- Queries ----

DeviceLogHistory::Stats DeviceLogHistory::stats() const {
    PMutexLocker lock(mutex_);
    Stats result = stats_;
    for (const auto& [fileName, log] : logs_) {
        result.bytes += log.bytes;
        result.files += log.generations.size();
    }
    return result;
}

void DeviceLogHistory::drain() {
    PMutexLocker lock(mutex_);
    const std::uint64_t target = jobsQueued_;
    while (!stopping_ && jobsDone_ < target) mutex_.wait();
}

// ---- Settings ----

DeviceLogHistory::Options DeviceLogHistory::optionsFromSettings(const std::string& logsDir) {
    Options options;
    options.logsDir = logsDir;
    int maxMiB = 0;
    const boost::shared_ptr<CRegistry> registry = CRegistry::getInstance();
    if (registry) {
        registry->ReadSettingImpl(NimbSettings::kConfigKey, NimbSettings::kHistoryMaxMiB, maxMiB);
        registry->ReadSettingImpl(NimbSettings::kConfigKey, NimbSettings::kHistoryMaxAgeDays,
                                  options.maxAgeDays);
        registry->ReadSettingImpl(NimbSettings::kConfigKey, NimbSettings::kHistoryMinFreePercent,
                                  options.minFreePercent);
    }
    options.maxBytes = maxMiB > 0 ? static_cast<long long>(maxMiB) << 20 : 0;
    return options;
}
