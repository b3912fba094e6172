// SPDX-License-Identifier: MIT
// LogsHistory: the history folder as nimb-logs reads it, without the store's thread and
// without changing anything (the collector's store may be compressing or trimming at the
// same time). The layout it relies on (docs/history.md):
//   <logs folder>/history/<log file name>/<YYYYMMDDThhmmssZ>-<sequence>[.zst]
// where the time is the UTC time of the move, the sequence (at least six digits) orders
// the generations of every log, "<name>" is a plain generation waiting for compression,
// "<name>.zst" a compressed one (zstd frames ending in a frame index) and
// "<name>.zst.tmp" a compression under way, which is ignored. Folders and files are
// opened relative to the history folder and never through a symbolic link; only regular
// files are read. One thread.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "DeviceLogHistoryFrames.h"

namespace LogsHistory {

struct Generation {
    std::string fileName;  // the log it belonged to
    std::string path;      // its file now
    std::uint64_t seq = 0;
    long long movedAt = 0;              // UTC seconds
    std::uint64_t rawBytes = 0;         // uncompressed size
    std::uint64_t compressedBytes = 0;  // 0 while plain
};

// The generations in the history of `logsDir`, oldest first (by sequence). A folder
// without history gives none. Generations that cannot be read are left out, each named
// in `problems`. False with `error` set when the history folder exists but cannot be
// read.
bool list(const std::string& logsDir, std::vector<Generation>& generations,
          std::vector<std::string>& problems, std::string& error);

// Reads ranges of generations, keeping each file it opened (and its frame index) until
// destroyed.
class Reader {
public:
    enum class Result { Read, Gone, Failed };
    explicit Reader(std::string logsDir);
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;
    ~Reader();

    // Whether `path` names a generation of this history (either name of it).
    bool isHistoryPath(const std::string& path) const;
    // Appends to `out` the uncompressed bytes [offset, offset + length) of the generation
    // `path` (its plain or compressed name: whichever exists now), fewer when it ends
    // first. Gone when the generation is no longer there (retention removed it); Failed
    // with `error` set when it cannot be read.
    Result read(const std::string& path, std::uint64_t offset, std::size_t length, std::string& out,
                std::string& error);

private:
    struct Open {
        int fd = -1;
        bool compressed = false;
        std::uint64_t size = 0;
        std::vector<DeviceLogHistoryFrames::Frame> frames;
    };
    Result open(const std::string& path, Open& file, std::string& error) const;

    const std::string historyDir_;
    std::map<std::string, Open> files_;  // by the path asked for
};

}  // namespace LogsHistory
