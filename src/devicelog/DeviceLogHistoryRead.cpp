// SPDX-License-Identifier: MIT
// What the history holds and reading a generation, compressed or not.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

#include "DeviceLogHistory.h"
#include "DeviceLogHistoryFiles.h"
#include "DeviceLogHistoryFrames.h"
#include "DeviceLogNames.h"

using namespace DeviceLogHistoryFiles;

std::vector<DeviceLogHistory::Entry> DeviceLogHistory::list(const std::string& fileName) const {
    std::vector<std::pair<std::uint64_t, Entry>> found;
    {
        PMutexLocker lock(mutex_);
        for (const auto& [name, log] : logs_) {
            if (!fileName.empty() && name != fileName) continue;
            for (const auto& [seq, generation] : log.generations) {
                Entry entry;
                entry.path = historyDir_ + "/" + name + "/" + generation.name +
                             (generation.compressedBytes != 0 ? kCompressedSuffix : "");
                entry.fileName = name;
                entry.rawBytes = generation.rawBytes;
                entry.compressedBytes = generation.compressedBytes;
                entry.movedAt = generation.movedAt;
                found.emplace_back(seq, std::move(entry));
            }
        }
    }
    std::sort(found.begin(), found.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<Entry> entries;
    entries.reserve(found.size());
    for (auto& [seq, entry] : found) entries.push_back(std::move(entry));
    return entries;
}

bool DeviceLogHistory::read(const std::string& historyPath, std::uint64_t offset,
                            std::size_t length, std::string& out, std::string& error) const {
    // "<history folder>/<log>/<generation>[.zst]", nothing else.
    const std::string prefix = historyDir_ + "/";
    const std::size_t slash = historyPath.find('/', prefix.size());
    std::string fileName;
    std::string name;
    if (historyPath.compare(0, prefix.size(), prefix) == 0 && slash != std::string::npos) {
        fileName = historyPath.substr(prefix.size(), slash - prefix.size());
        name = historyPath.substr(slash + 1);
        if (endsWith(name, kCompressedSuffix)) name.resize(name.size() - strlen(kCompressedSuffix));
    }
    long long movedAt = 0;
    std::uint64_t seq = 0;
    if (!DeviceLogNames::isPlainFileName(fileName) || !parseGeneration(name, movedAt, seq)) {
        error = "not a history file: " + historyPath;
        return false;
    }
    const int dirFd = openLogFolder(fileName);
    struct stat info {};
    // The plain file first: it is removed only once its .zst is complete.
    int fd = dirFd < 0 ? -1 : openRegular(dirFd, name, info);
    bool compressed = false;
    if (fd < 0 && errno == ENOENT) {
        fd = openRegular(dirFd, name + kCompressedSuffix, info);
        compressed = true;
    }
    const int openError = errno;
    if (dirFd >= 0) close(dirFd);
    if (fd < 0) {
        error = "cannot open " + historyPath + ": " + errnoText(openError);
        return false;
    }
    bool done = true;
    if (compressed) {
        std::vector<DeviceLogHistoryFrames::Frame> frames;
        done = DeviceLogHistoryFrames::readIndex(fd, static_cast<std::uint64_t>(info.st_size),
                                                 frames, error) &&
               DeviceLogHistoryFrames::readRange(fd, frames, offset, length, out, error);
        if (!done) error = historyPath + ": " + error;
    } else {
        const std::uint64_t size = static_cast<std::uint64_t>(info.st_size);
        const std::size_t wanted =
            offset >= size
                ? 0
                : static_cast<std::size_t>(std::min<std::uint64_t>(length, size - offset));
        const std::size_t start = out.size();
        out.resize(start + wanted);
        std::size_t got = 0;
        while (got < wanted) {
            const ssize_t n =
                pread(fd, out.data() + start + got, wanted - got, static_cast<off_t>(offset + got));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                error = "cannot read " + historyPath + ": " + errnoText(errno);
                done = false;
            }
            if (n <= 0) break;
            got += static_cast<std::size_t>(n);
        }
        out.resize(start + got);
    }
    close(fd);
    return done;
}
