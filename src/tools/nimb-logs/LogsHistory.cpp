// SPDX-License-Identifier: MIT
#include "LogsHistory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kDirFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kReadFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr const char* kFolderName = "history";
constexpr const char* kCompressed = ".zst";
constexpr const char* kCompressing = ".zst.tmp";

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::string errorText(int error) {
    char buffer[256];
    return strerror_r(error, buffer, sizeof(buffer));
}

// "YYYYMMDDThhmmssZ-" and a sequence of at least six digits, nothing else.
bool parseGeneration(const std::string& name, long long& movedAt, std::uint64_t& seq) {
    if (name.size() < 23 || name[8] != 'T' || name[15] != 'Z' || name[16] != '-') return false;
    int fields[6] = {};
    const int starts[6] = {0, 4, 6, 9, 11, 13};
    const int lengths[6] = {4, 2, 2, 2, 2, 2};
    for (int f = 0; f < 6; ++f) {
        for (int i = 0; i < lengths[f]; ++i) {
            const char c = name[static_cast<std::size_t>(starts[f] + i)];
            if (c < '0' || c > '9') return false;
            fields[f] = fields[f] * 10 + (c - '0');
        }
    }
    seq = 0;
    for (std::size_t i = 17; i < name.size(); ++i) {
        if (name[i] < '0' || name[i] > '9' || seq > (UINT64_MAX - 9) / 10) return false;
        seq = seq * 10 + static_cast<std::uint64_t>(name[i] - '0');
    }
    tm parts{};
    parts.tm_year = fields[0] - 1900;
    parts.tm_mon = fields[1] - 1;
    parts.tm_mday = fields[2];
    parts.tm_hour = fields[3];
    parts.tm_min = fields[4];
    parts.tm_sec = fields[5];
    movedAt = timegm(&parts);
    return true;
}

// The regular file `name` of the folder `dirFd`, open for reading; -1 with errno set.
int openRegular(int dirFd, const std::string& name, struct stat& info) {
    const int fd = openat(dirFd, name.c_str(), kReadFlags);
    if (fd < 0) return -1;
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        close(fd);
        errno = EINVAL;
        return -1;
    }
    return fd;
}

// The sizes of the compressed generation `name` of `dirFd`; false with `error` set.
bool compressedSizes(int dirFd, const std::string& name, std::uint64_t& rawBytes,
                     std::uint64_t& compressedBytes, std::string& error) {
    struct stat info {};
    const int fd = openRegular(dirFd, name, info);
    if (fd < 0) {
        error = errorText(errno);
        return false;
    }
    std::vector<DeviceLogHistoryFrames::Frame> frames;
    const bool ok = DeviceLogHistoryFrames::readIndex(fd, static_cast<std::uint64_t>(info.st_size),
                                                      frames, error);
    close(fd);
    if (!ok) return false;
    rawBytes = DeviceLogHistoryFrames::rawSize(frames);
    compressedBytes = static_cast<std::uint64_t>(info.st_size);
    return true;
}

void listLog(int historyFd, const std::string& historyDir, const std::string& fileName,
             std::vector<LogsHistory::Generation>& generations,
             std::vector<std::string>& problems) {
    const int dirFd = openat(historyFd, fileName.c_str(), kDirFlags);
    if (dirFd < 0) return;  // not a log's folder (the index's database, for one)
    const int listFd = dup(dirFd);
    DIR* files = listFd < 0 ? nullptr : fdopendir(listFd);
    if (files == nullptr) {
        if (listFd >= 0) close(listFd);
        problems.push_back(historyDir + "/" + fileName + ": " + errorText(errno));
        close(dirFd);
        return;
    }
    std::map<std::uint64_t, std::pair<std::string, int>> found;  // name, 1 plain | 2 .zst
    while (const dirent* entry = readdir(files)) {
        std::string name = entry->d_name;
        if (endsWith(name, kCompressing)) continue;
        int kind = 1;
        if (endsWith(name, kCompressed)) {
            name.resize(name.size() - std::strlen(kCompressed));
            kind = 2;
        }
        long long movedAt = 0;
        std::uint64_t seq = 0;
        if (!parseGeneration(name, movedAt, seq)) continue;
        found[seq].first = name;
        found[seq].second |= kind;
    }
    closedir(files);
    for (const auto& [seq, file] : found) {
        LogsHistory::Generation generation;
        generation.fileName = fileName;
        generation.seq = seq;
        std::uint64_t sameSeq = 0;
        parseGeneration(file.first, generation.movedAt, sameSeq);
        const std::string folder = historyDir + "/" + fileName + "/";
        std::string error;
        // A complete .zst counts; its plain file is then about to be removed.
        if ((file.second & 2) != 0 &&
            compressedSizes(dirFd, file.first + kCompressed, generation.rawBytes,
                            generation.compressedBytes, error)) {
            generation.path = folder + file.first + kCompressed;
            generations.push_back(std::move(generation));
            continue;
        }
        struct stat info {};
        if ((file.second & 1) != 0 &&
            fstatat(dirFd, file.first.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(info.st_mode)) {
            generation.path = folder + file.first;
            generation.rawBytes = static_cast<std::uint64_t>(info.st_size);
            generations.push_back(std::move(generation));
            continue;
        }
        if (error.empty()) error = (file.second & 1) != 0 ? "not a regular file" : "gone";
        problems.push_back(folder + file.first + ": " + error);
    }
    close(dirFd);
}

}  // namespace

namespace LogsHistory {

bool list(const std::string& logsDir, std::vector<Generation>& generations,
          std::vector<std::string>& problems, std::string& error) {
    const std::string historyDir = logsDir + "/" + kFolderName;
    const int historyFd = open(historyDir.c_str(), kDirFlags);
    if (historyFd < 0) {
        if (errno == ENOENT) return true;
        error = "cannot read the history " + historyDir + ": " + errorText(errno);
        return false;
    }
    const int listFd = dup(historyFd);
    DIR* folders = listFd < 0 ? nullptr : fdopendir(listFd);
    if (folders == nullptr) {
        error = "cannot read the history " + historyDir + ": " + errorText(errno);
        if (listFd >= 0) close(listFd);
        close(historyFd);
        return false;
    }
    std::vector<std::string> names;
    while (const dirent* entry = readdir(folders)) {
        if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    closedir(folders);
    for (const std::string& name : names) {
        listLog(historyFd, historyDir, name, generations, problems);
    }
    close(historyFd);
    std::sort(generations.begin(), generations.end(),
              [](const Generation& a, const Generation& b) { return a.seq < b.seq; });
    return true;
}

Reader::Reader(std::string logsDir) : historyDir_(std::move(logsDir) + "/" + kFolderName) {}

Reader::~Reader() {
    for (auto& [path, file] : files_) close(file.fd);
}

bool Reader::isHistoryPath(const std::string& path) const {
    return path.compare(0, historyDir_.size() + 1, historyDir_ + "/") == 0;
}

Reader::Result Reader::open(const std::string& path, Open& file, std::string& error) const {
    // "<history folder>/<log>/<generation>[.zst]", nothing else.
    const std::size_t start = historyDir_.size() + 1;
    const std::size_t slash = path.find('/', start);
    std::string name = slash == std::string::npos ? "" : path.substr(slash + 1);
    if (endsWith(name, kCompressed)) name.resize(name.size() - std::strlen(kCompressed));
    const std::string fileName =
        slash == std::string::npos ? "" : path.substr(start, slash - start);
    long long movedAt = 0;
    std::uint64_t seq = 0;
    if (!isHistoryPath(path) || fileName.empty() || fileName[0] == '.' ||
        !parseGeneration(name, movedAt, seq)) {
        error = "not a history file: " + path;
        return Result::Failed;
    }
    const int historyFd = ::open(historyDir_.c_str(), kDirFlags);
    const int dirFd = historyFd < 0 ? -1 : openat(historyFd, fileName.c_str(), kDirFlags);
    int openError = errno;
    if (historyFd >= 0) close(historyFd);
    struct stat info {};
    // The plain file first: it is removed only once its .zst is complete.
    file.fd = dirFd < 0 ? -1 : openRegular(dirFd, name, info);
    if (dirFd >= 0) openError = errno;
    if (file.fd < 0 && openError == ENOENT && dirFd >= 0) {
        file.fd = openRegular(dirFd, name + kCompressed, info);
        file.compressed = true;
        openError = errno;
    }
    if (dirFd >= 0) close(dirFd);
    if (file.fd < 0) {
        if (openError == ENOENT) return Result::Gone;
        error = "cannot open " + path + ": " + errorText(openError);
        return Result::Failed;
    }
    file.size = static_cast<std::uint64_t>(info.st_size);
    if (file.compressed &&
        !DeviceLogHistoryFrames::readIndex(file.fd, file.size, file.frames, error)) {
        error = path + ": " + error;
        close(file.fd);
        file.fd = -1;
        return Result::Failed;
    }
    return Result::Read;
}

Reader::Result Reader::read(const std::string& path, std::uint64_t offset, std::size_t length,
                            std::string& out, std::string& error) {
    auto found = files_.find(path);
    if (found == files_.end()) {
        Open file;
        const Result result = open(path, file, error);
        if (result != Result::Read) return result;
        found = files_.emplace(path, std::move(file)).first;
    }
    const Open& file = found->second;
    if (file.compressed) {
        if (DeviceLogHistoryFrames::readRange(file.fd, file.frames, offset, length, out, error))
            return Result::Read;
        error = path + ": " + error;
        return Result::Failed;
    }
    const std::size_t wanted =
        offset >= file.size
            ? 0
            : static_cast<std::size_t>(std::min<std::uint64_t>(length, file.size - offset));
    const std::size_t begin = out.size();
    out.resize(begin + wanted);
    std::size_t got = 0;
    while (got < wanted) {
        const ssize_t n = pread(file.fd, out.data() + begin + got, wanted - got,
                                static_cast<off_t>(offset + got));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = "cannot read " + path + ": " + errorText(errno);
            out.resize(begin + got);
            return Result::Failed;
        }
        if (n == 0) break;
        got += static_cast<std::size_t>(n);
    }
    out.resize(begin + got);
    return Result::Read;
}

}  // namespace LogsHistory
