// SPDX-License-Identifier: MIT
// LogCatalog: what the logs folder holds, grouped by device: one device per device id
// + MAC address (the text of a file name before its log id's "-"), or per syslog
// sender (the name in its header lines, which its file names start with), with its
// logs, sizes, last write, the newest header line (display name and clock tie) and the
// lines written per 10 minutes over the last 24 hours. File summaries are cached and
// extended incrementally as files grow; a rotated or replaced file is read again.
// Thread-safe: any thread may call devices() and deviceFiles().
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "LogIndexView.h"
#include "LogText.h"
#include "PMutex.h"
#include "SafeFolder.h"

class LogCatalog {
public:
    static constexpr int kBinMinutes = 10;
    static constexpr int kBins = 24 * 60 / kBinMinutes;
    using Activity = std::array<std::uint32_t, kBins>;

    // How a file name splits; see splitFileName.
    struct NameParts {
        std::string key;       // device id + MAC address, as in the name
        std::string deviceId;  // may be empty when the MAC address cannot be told apart
        std::string mac;       // as in the name (no colons)
        std::string logName;   // after the log id's "-", without ".back"
        bool back = false;     // the rotated generation
    };

    struct LogInfo {
        std::string file;  // current file name (which may not exist yet after a rotation)
        std::string logName;
        std::uint64_t size = 0;  // current + .back
        std::int64_t lastWrite = 0;
        bool hasBack = false;
    };

    struct Device {
        std::string key, deviceId, mac;
        LogText::Header header;  // the newest header line of any of its files
        bool hasHeader = false;
        std::vector<LogInfo> logs;
        std::uint64_t size = 0;
        std::int64_t lastWrite = 0;
        Activity activity{};  // bin kBins-1 ends at activityEnd
        // With the index: every line, split into errors, warnings and the rest (their
        // sum is `activity`), and the header only from the collector's own header lines.
        bool indexed = false;
        LogIndexView::Activity bySeverity{};
        std::string sourceName;  // the display name the index knows (syslog: sender)
    };

    explicit LogCatalog(std::string folder);
    LogCatalog(const LogCatalog&) = delete;
    LogCatalog& operator=(const LogCatalog&) = delete;

    // Every device with at least one log file, by key. `now` ends the activity window.
    std::vector<Device> devices(std::int64_t now);
    // The end of the activity window for `now` (the end of its 10-minute bin).
    static std::int64_t activityEnd(std::int64_t now);

    // Every device file (current and ".back") of the device with this key, grouped as
    // devices() groups them; empty for an unknown key.
    std::vector<std::string> deviceFiles(const std::string& key, std::int64_t now);

    // Splits a device log's file name "<device id><MAC>-<log name>[.back]". The MAC
    // address is the 12 hex digits before the first "-" they precede. A name without
    // them ends its front at the first of `senders` (sender names, as syslog files
    // are "<sender>-<application>" and both may hold "-") that it starts with followed
    // by "-", else at its first "-"; that front stands as the MAC address. False for
    // names without "-" (the suite's own logs: the collector's log, errors.log).
    static bool splitFileName(const std::string& name, NameParts& parts,
                              const std::vector<std::string_view>& senders = {});

    const std::string& folder() const { return folder_; }
    // The collector's index of the folder (unavailable for an old logs folder).
    LogIndexView& index() { return index_; }

private:
    // What has been read of one file.
    struct Summary {
        std::uint64_t inode = 0;
        std::uint64_t scanned = 0;   // bytes read, up to the last complete line
        std::int64_t lastStamp = 0;  // time of the last stamped line read
        std::int64_t end = 0;        // activityEnd when the bins were last moved
        Activity bins{};
        LogText::Header header;
        bool hasHeader = false;
    };

    // A device file with how it splits and what has been read of it.
    struct Named {
        SafeFolder::Entry entry;
        NameParts parts;
        const Summary* summary = nullptr;
    };

    // Every device file of the folder, sorted by name, split with the sender names that
    // its own header lines and those of the folder's other files give; brings their
    // summaries up to date and forgets those of files that went away.
    std::vector<Named> classify(std::int64_t end) NIMB_REQUIRES(mutex_);
    // Brings `summary` up to date with the file (reads only what was added).
    void refresh(const std::string& name, std::uint64_t inode, std::uint64_t size, std::int64_t end,
                 Summary& summary);
    static void scan(const std::string& text, std::int64_t end, Summary& summary);
    static void shiftBins(Summary& summary, std::int64_t end);

    const std::string folder_;
    LogIndexView index_;
    PMutex mutex_;
    std::map<std::string, Summary> summaries_ NIMB_GUARDED_BY(mutex_);  // by file name
};
