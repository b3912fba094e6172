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

}  // namespace

std::optional<Chunk> read(const std::string& folder, const std::string& file,
                          std::optional<std::uint64_t> before, std::size_t limit) {
    if (!SafeFolder::isPlainName(file)) return std::nullopt;
    limit = std::clamp<std::size_t>(limit, 1, kMaxChunk);
    Chunk chunk;
    chunk.file = file;
    struct stat st {};
    const UniqueFd fd = SafeFolder::openRegular(folder, file, &st);
    if (!fd.valid()) {
        // Between a rotation and the next write only the ".back" exists.
        if (isBack(file) || !SafeFolder::openRegular(folder, file + kBack, nullptr).valid()) {
            return std::nullopt;
        }
        setEarlier(folder, chunk);
        return chunk;
    }
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
    return chunk;
}

}  // namespace LogReader
