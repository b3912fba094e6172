// SPDX-License-Identifier: MIT
// The history's retention: what goes when (age, fair share of the budget, free space),
// the removal of the files and its report in the process's log.
#include <algorithm>
#include <cerrno>
#include <ctime>
#include <map>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "CBBLog.h"
#include "DeviceLogHistory.h"
#include "DeviceLogHistoryFiles.h"
#include "DeviceLogNames.h"

using namespace DeviceLogHistoryFiles;

struct DeviceLogHistory::Removal {
    std::string fileName;
    std::string name;  // the file's name in its log's folder
    std::uint64_t bytes = 0;
    const char* reason = "";
};

std::uint64_t DeviceLogHistory::budget() const { return budgetOf(options_); }

std::uint64_t DeviceLogHistory::budgetOf(const Options& options) {
    if (options.maxBytes > 0) return static_cast<std::uint64_t>(options.maxBytes);
    struct statvfs fs {};
    const auto cap = static_cast<std::uint64_t>(kDefaultMaxBytes);
    const std::string folder = options.logsDir + "/" + kFolderName;
    // Before the history folder exists, the logs folder's file system.
    if (statvfs(folder.c_str(), &fs) != 0 && statvfs(options.logsDir.c_str(), &fs) != 0) return cap;
    const std::uint64_t size = static_cast<std::uint64_t>(fs.f_blocks) * fs.f_frsize;
    return std::min(cap, size / 100 * kDefaultBudgetPercent);
}

// Bytes the file system lacks to have minFreePercent free.
std::uint64_t DeviceLogHistory::freeShortfall() const {
    struct statvfs fs {};
    if (options_.minFreePercent == 0 || statvfs(historyDir_.c_str(), &fs) != 0) return 0;
    const std::uint64_t size = static_cast<std::uint64_t>(fs.f_blocks) * fs.f_frsize;
    const std::uint64_t free = static_cast<std::uint64_t>(fs.f_bavail) * fs.f_frsize;
    const std::uint64_t wanted = size / 100 * static_cast<std::uint64_t>(options_.minFreePercent);
    return wanted > free ? wanted - free : 0;
}

void DeviceLogHistory::trim() {
    PMutexLocker pass(trimMutex_);
    const std::uint64_t budget = this->budget();
    const std::uint64_t shortfall = freeShortfall();
    std::vector<Removal> removals;
    {
        PMutexLocker lock(mutex_);
        chooseRemovals(budget, shortfall, removals);
    }
    // The first few removals (and failures) one line each, the rest summed up.
    int logged = 0;
    std::size_t removedUnlogged = 0;
    std::size_t failedUnlogged = 0;
    std::uint64_t unloggedBytes = 0;
    for (const Removal& removal : removals) {
        const int dirFd = openLogFolder(removal.fileName);
        const std::string path = historyDir_ + "/" + removal.fileName + "/" + removal.name;
        const bool removed =
            dirFd >= 0 && (unlinkat(dirFd, removal.name.c_str(), 0) == 0 || errno == ENOENT);
        const int error = errno;
        if (dirFd >= 0) close(dirFd);
        if (logged < kLoggedRemovalsPerPass) {
            ++logged;
            if (removed) {
                CBBLog::info("History: removed %s (%llu bytes, %s)", path.c_str(),
                             static_cast<unsigned long long>(removal.bytes), removal.reason);
            } else {
                CBBLog::error("History: cannot remove %s (%s): %s", path.c_str(), removal.reason,
                              errnoText(error).c_str());
            }
        } else if (removed) {
            ++removedUnlogged;
            unloggedBytes += removal.bytes;
        } else {
            ++failedUnlogged;
        }
    }
    if (removedUnlogged > 0) {
        CBBLog::info("History: removed %zu more files (%llu bytes) in this pass", removedUnlogged,
                     static_cast<unsigned long long>(unloggedBytes));
    }
    if (failedUnlogged > 0) {
        CBBLog::error("History: cannot remove %zu more files in this pass", failedUnlogged);
    }
    PMutexLocker lock(mutex_);
    for (const Removal& removal : removals) {
        // The folder of a log without history goes too (a keep() since then refills it).
        if (historyFd_ >= 0 && logs_.count(removal.fileName) == 0) {
            unlinkat(historyFd_, removal.fileName.c_str(), AT_REMOVEDIR);
        }
    }
}

void DeviceLogHistory::chooseRemovals(std::uint64_t budget, std::uint64_t shortfall,
                                      std::vector<Removal>& removals) {
    if (options_.maxAgeDays > 0) {
        const long long cutoff = static_cast<long long>(time(nullptr)) -
                                 static_cast<long long>(options_.maxAgeDays) * 86400;
        std::vector<std::pair<std::string, std::uint64_t>> old;
        for (const auto& [fileName, log] : logs_) {
            for (const auto& [seq, generation] : log.generations) {
                if (!generation.busy && generation.movedAt < cutoff)
                    old.emplace_back(fileName, seq);
            }
        }
        for (const auto& [fileName, seq] : old) {
            removeLocked(fileName, seq, "older than the age limit", removals);
        }
    }
    // The budget counts settled generations (compressed, or whose compression failed):
    // a burst of rotations waiting at their plain size must not push out history that
    // fits once they are compressed, and a trim follows each compression. The free-space
    // floor counts every file, as the disk does.
    std::map<std::string, std::uint64_t> settled;
    std::uint64_t total = 0;
    for (const auto& [fileName, log] : logs_) {
        for (const auto& [seq, generation] : log.generations) {
            if (generation.pending) continue;
            settled[fileName] += generation.diskBytes();
            total += generation.diskBytes();
        }
    }
    for (const Removal& removal : removals) shortfall -= std::min(shortfall, removal.bytes);
    // The oldest generation of the device holding the most, one at a time, so that a
    // chatty device never pushes out a quiet device's history while it holds more itself,
    // however many logs it spreads its text over.
    std::map<std::string, std::string> deviceOf;
    std::map<std::string, std::uint64_t> deviceSettled;
    std::map<std::string, std::uint64_t> deviceBytes;
    for (const auto& [fileName, log] : logs_) {
        const std::string device = DeviceLogNames::deviceOfFile(fileName);
        deviceOf[fileName] = device;
        deviceSettled[device] += settled[fileName];
        deviceBytes[device] += log.bytes;
    }
    struct Candidate {
        std::string fileName;
        std::uint64_t seq = 0;
    };
    std::size_t limit = removals.size();
    for (const auto& entry : logs_) limit += entry.second.generations.size();
    while ((total > budget || shortfall > 0) && removals.size() < limit) {
        const bool overBudget = total > budget;
        // Each device's oldest generation that may go (sequence numbers grow over all logs).
        std::map<std::string, Candidate> oldest;
        for (const auto& [fileName, log] : logs_) {
            for (const auto& [number, generation] : log.generations) {
                if (generation.busy || (overBudget && generation.pending)) continue;
                auto [entry, added] =
                    oldest.try_emplace(deviceOf[fileName], Candidate{fileName, number});
                if (!added && number < entry->second.seq) entry->second = {fileName, number};
                break;
            }
        }
        const std::string* fullest = nullptr;
        std::uint64_t most = 0;
        for (const auto& [device, candidate] : oldest) {
            const std::uint64_t held = overBudget ? deviceSettled[device] : deviceBytes[device];
            if (fullest != nullptr && held <= most) continue;
            fullest = &device;
            most = held;
        }
        if (fullest == nullptr) break;
        const std::string device = *fullest;
        const Candidate pick = oldest[device];
        const Generation& generation = logs_[pick.fileName].generations[pick.seq];
        const std::uint64_t bytes = generation.diskBytes();
        if (!generation.pending) {
            deviceSettled[device] -= std::min(deviceSettled[device], bytes);
            total -= std::min(total, bytes);
        }
        deviceBytes[device] -= std::min(deviceBytes[device], bytes);
        shortfall -= std::min(shortfall, bytes);
        removeLocked(pick.fileName, pick.seq,
                     overBudget ? "over the byte budget" : "low free space", removals);
    }
}

void DeviceLogHistory::removeLocked(const std::string& fileName, std::uint64_t seq,
                                    const char* reason, std::vector<Removal>& removals) {
    auto log = logs_.find(fileName);
    if (log == logs_.end()) return;
    auto generation = log->second.generations.find(seq);
    if (generation == log->second.generations.end()) return;
    const std::uint64_t bytes = generation->second.diskBytes();
    removals.push_back({fileName,
                        generation->second.name +
                            (generation->second.compressedBytes != 0 ? kCompressedSuffix : ""),
                        bytes, reason});
    log->second.bytes -= std::min(log->second.bytes, bytes);
    log->second.generations.erase(generation);
    ++stats_.removedFiles;
    stats_.removedBytes += bytes;
    if (log->second.generations.empty()) logs_.erase(log);
}
