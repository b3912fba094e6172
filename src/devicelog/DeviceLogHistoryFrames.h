// SPDX-License-Identifier: MIT
// DeviceLogHistoryFrames: the compressed form of a history file. The text is cut into
// pieces of a fixed uncompressed size, each compressed as an independent zstd frame
// (with its content size and checksum), and the file ends in one zstd skippable frame
// that lists every frame's compressed and uncompressed size:
//   skippable frame = magic 0x184D2A5E (LE32), payload size (LE32), payload
//   payload         = count x { compressed size (LE32), raw size (LE32) },
//                     filter, filter size (LE32), count (LE32), kFilteredIndexMarker (LE32)
// where filter is the DeviceLogTrigrams summary of the whole text (possibly empty).
// Files written before the filter existed end in count, kIndexMarker instead, and are
// read as files without a filter.
// The zstd tool skips that frame, so `zstdcat` prints the whole text; a reader finds it
// from the last twelve bytes and reaches any offset by decompressing only the frames
// that hold it, after asking the filter whether a word can be in the text at all. Used by
// DeviceLogHistory; stateless functions over descriptors the caller owns, any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace DeviceLogHistoryFrames {

// Last four bytes of a history file's index ("NHIX" read as a little-endian word).
constexpr std::uint32_t kIndexMarker = 0x5849484E;
// The same for an index followed by a filter ("NHIF").
constexpr std::uint32_t kFilteredIndexMarker = 0x4649484E;
// Largest filter a reader accepts.
constexpr std::uint32_t kMaxFilterBytes = 1024 * 1024;
// The zstd skippable-frame magic the index is written under.
constexpr std::uint32_t kSkippableMagic = 0x184D2A5E;
// Largest uncompressed frame a reader accepts (a damaged index cannot make it allocate more).
constexpr std::uint32_t kMaxFrameBytes = 4 * 1024 * 1024;
// zstd level: on generated syslog and device-log text in 128 KiB frames, level 9 gives
// 15-25 % more than the default level 3 (about 9.8x and 8.6x against 8.4x and 7.0x) at
// about 100 MB/s on one core, which is far above the rate at which logs rotate; level 12
// adds 2 % for half that speed, level 19 another 10 % at 4 MB/s.
constexpr int kLevel = 9;

// One frame: where its bytes are in the compressed file and what it holds.
struct Frame {
    std::uint64_t rawOffset = 0;
    std::uint64_t compressedOffset = 0;
    std::uint32_t rawSize = 0;
    std::uint32_t compressedSize = 0;
};

// Compresses everything `in` holds from its start to its end into `out` (empty, open
// for writing): frames of `frameBytes` uncompressed bytes (the last may be shorter),
// then the index with the text's filter. Does not sync. Returns false with `error` set on a failed
// read, write or compression; `rawBytes` and `compressedBytes` are the sizes written.
bool compress(int in, int out, std::size_t frameBytes, int level, std::uint64_t& rawBytes,
              std::uint64_t& compressedBytes, std::string& error);

// Reads the index of the compressed file `fd` of `fileSize` bytes, and its filter into
// `filter` when given ("" when the file has none). False with `error` set when the file
// has no index or it does not add up to the file's size.
bool readIndex(int fd, std::uint64_t fileSize, std::vector<Frame>& frames, std::string& error,
               std::string* filter = nullptr);

// The uncompressed size the frames hold.
std::uint64_t rawSize(const std::vector<Frame>& frames);

// Appends to `out` the uncompressed bytes [offset, offset + length) of the compressed
// file `fd` whose index is `frames`, fewer when the text ends first (none when `offset`
// is past its end). Decompresses only the frames that hold the range. False with
// `error` set on a failed read or a damaged frame.
bool readRange(int fd, const std::vector<Frame>& frames, std::uint64_t offset, std::size_t length,
               std::string& out, std::string& error);

}  // namespace DeviceLogHistoryFrames
