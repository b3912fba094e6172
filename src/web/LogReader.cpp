// SPDX-License-Identifier: MIT
#include "LogReader.h"

#include <algorithm>

#include "SafeFolder.h"

namespace LogReader {

namespace {

const std::string kBack = ".back";

bool isBack(const std::string& file) {
    return file.size() > kBack.size() &&
           file.compare(file.size() - kBack.size(), kBack.size(), kBack) == 0;
}

// Where the text before a file's start continues.
void setEarlier(const std::string& folder, Chunk& chunk) {
    if (chunk.start > 0) {
        chunk.earlierFile = chunk.file;
        chunk.earlierBefore = chunk.start;
        return;
    }
    if (isBack(chunk.file)) return;
    struct stat st {};
    if (SafeFolder::openRegular(folder, chunk.file + kBack, &st).valid() && st.st_size > 0) {
        chunk.earlierFile = chunk.file + kBack;
        chunk.earlierBefore = static_cast<std::uint64_t>(st.st_size);
    }
}

// Where the text after the chunk continues, for a file of `size` bytes.
void setLater(std::uint64_t size, Chunk& chunk) {
    if (chunk.end < size) {
        chunk.laterFile = chunk.file;
        chunk.laterAfter = chunk.end;
    } else if (isBack(chunk.file)) {
        chunk.laterFile = chunk.file.substr(0, chunk.file.size() - kBack.size());
    }
}

// Opens the log file `file` for a chunk into `fd` and `st`. Nothing when it cannot be
// read; when only its ".back" exists (between a rotation and the next write), a chunk
// without text that continues earlier, with `fd` left closed.
std::optional<Chunk> openFile(const std::string& folder, const std::string& file, UniqueFd& fd,
                              struct stat& st) {
    if (!SafeFolder::isPlainName(file)) return std::nullopt;
    Chunk chunk;
    chunk.file = file;
    fd = SafeFolder::openRegular(folder, file, &st);
    if (!fd.valid()) {
        if (isBack(file) || !SafeFolder::openRegular(folder, file + kBack, nullptr).valid()) {
            return std::nullopt;
        }
        setEarlier(folder, chunk);  // its live end: nothing later
    }
    return chunk;
}

}  // namespace

std::optional<Chunk> read(const std::string& folder, const std::string& file,
                          std::optional<std::uint64_t> before, std::size_t limit) {
    limit = std::clamp<std::size_t>(limit, 1, kMaxChunk);
    UniqueFd fd;
    struct stat st {};
    std::optional<Chunk> opened = openFile(folder, file, fd, st);
    if (!opened || !fd.valid()) return opened;
    Chunk& chunk = *opened;
    const auto size = static_cast<std::uint64_t>(st.st_size);
    chunk.inode = static_cast<std::uint64_t>(st.st_ino);
    chunk.end = std::min(before.value_or(size), size);
    chunk.start = chunk.end > limit ? chunk.end - limit : 0;
    if (!SafeFolder::readAt(fd.get(), chunk.start, chunk.end - chunk.start, chunk.text)) {
        return std::nullopt;
    }
    chunk.end = chunk.start + chunk.text.size();
    if (chunk.start > 0) {
        // Begin at a line start unless the whole piece is one line.
        const std::size_t nl = chunk.text.find('\n');
        if (nl != std::string::npos && nl + 1 < chunk.text.size()) {
            chunk.text.erase(0, nl + 1);
            chunk.start += nl + 1;
        }
    }
    setEarlier(folder, chunk);
    setLater(size, chunk);
    return opened;
}

std::optional<Chunk> readAfter(const std::string& folder, const std::string& file,
                               std::uint64_t after, std::size_t limit) {
    limit = std::clamp<std::size_t>(limit, 1, kMaxChunk);
    UniqueFd fd;
    struct stat st {};
    std::optional<Chunk> opened = openFile(folder, file, fd, st);
    if (!opened || !fd.valid()) return opened;
    Chunk& chunk = *opened;
    const auto size = static_cast<std::uint64_t>(st.st_size);
    chunk.inode = static_cast<std::uint64_t>(st.st_ino);
    chunk.start = std::min(after, size);
    const std::uint64_t want = std::min<std::uint64_t>(limit, size - chunk.start);
    if (!SafeFolder::readAt(fd.get(), chunk.start, want, chunk.text)) return std::nullopt;
    chunk.end = chunk.start + chunk.text.size();
    if (chunk.end < size) {
        // End at a line end unless the whole piece is one line.
        const std::size_t nl = chunk.text.rfind('\n');
        if (nl != std::string::npos) {
            chunk.text.resize(nl + 1);
            chunk.end = chunk.start + chunk.text.size();
        }
    }
    setEarlier(folder, chunk);
    setLater(size, chunk);
    return opened;
}

}  // namespace LogReader
