// SPDX-License-Identifier: MIT
// LogReader: pieces of one log file for the page: the last part of a file, or the part
// before an offset, cut at line starts, and where the text before it continues (the
// same file further back, or its ".back"); or the part after an offset, cut at a line
// end, and where the text after it continues (the same file further on, or after a
// ".back" its current file). Stateless; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace LogReader {

constexpr std::size_t kDefaultChunk = 256 * 1024;
constexpr std::size_t kMaxChunk = 4 * 1024 * 1024;

struct Chunk {
    std::string file;
    std::string text;         // raw bytes, starting at a line start where one was found
    std::uint64_t start = 0;  // offset of text in the file
    std::uint64_t end = 0;    // offset after text (the file size when read to the end)
    std::uint64_t inode = 0;  // identifies this generation of the file across a rotation
    // Where "load earlier" continues: this file before `start`, else its ".back" from
    // its end. Empty when there is nothing earlier.
    std::string earlierFile;
    std::uint64_t earlierBefore = 0;
    // Where "load later" continues: this file from `end`, else after
    // a ".back" its current file from its start. Empty at the end of the current file,
    // the live end.
    std::string laterFile;
    std::uint64_t laterAfter = 0;
};

// Reads up to `limit` bytes of `file` in `folder` ending at `before` (the end of the
// file when absent or past it). A missing current file (just rotated) reads as empty
// with its ".back" as what comes earlier. Nothing when the name is not a plain
// regular file in the folder.
std::optional<Chunk> read(const std::string& folder, const std::string& file,
                          std::optional<std::uint64_t> before, std::size_t limit);

// Reads up to `limit` bytes of `file` in `folder` from `after` (clamped to the file's
// size). The text ends at a line end unless it reaches the file's end (then it holds
// everything, an unfinished last line too) or is all one line. A missing current file
// (just rotated, not written since) reads as empty at its live end. Nothing when the
// name is not a plain regular file in the folder.
std::optional<Chunk> readAfter(const std::string& folder, const std::string& file,
                               std::uint64_t after, std::size_t limit);

}  // namespace LogReader
