// SPDX-License-Identifier: MIT
#include "DeviceLogHistoryFrames.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include <unistd.h>
#include <zstd.h>

#include "DeviceLogTrigrams.h"

namespace DeviceLogHistoryFrames {

namespace {

struct CCtxFree {
    void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
};
struct DCtxFree {
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

std::string errnoText(const char* what, int error) {
    char buffer[256];
    return std::string(what) + ": " + strerror_r(error, buffer, sizeof(buffer));
}

// Reads until `size` bytes or the end of the file; the count read, -1 on an error.
ssize_t readFull(int fd, char* data, std::size_t size) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::read(fd, data + done, size - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) break;
        done += static_cast<std::size_t>(n);
    }
    return static_cast<ssize_t>(done);
}

bool preadFull(int fd, char* data, std::size_t size, std::uint64_t offset) {
    std::size_t done = 0;
    while (done < size) {
        const ssize_t n = ::pread(fd, data + done, size - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = EIO;  // the file is shorter than its index says
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool writeAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return true;
}

void putLe32(std::string& out, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

std::uint32_t getLe32(const char* data) {
    std::uint32_t value = 0;
    for (int i = 3; i >= 0; --i) value = (value << 8) | static_cast<unsigned char>(data[i]);
    return value;
}

}  // namespace

bool compress(int in, int out, std::size_t frameBytes, int level, std::uint64_t& rawBytes,
              std::uint64_t& compressedBytes, std::string& error) {
    rawBytes = 0;
    compressedBytes = 0;
    std::unique_ptr<ZSTD_CCtx, CCtxFree> context(ZSTD_createCCtx());
    if (!context) {
        error = "cannot create a zstd context";
        return false;
    }
    ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, level);
    ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1);
    std::vector<char> raw(frameBytes);
    std::vector<char> packed(ZSTD_compressBound(frameBytes));
    std::string index;
    std::uint32_t count = 0;
    DeviceLogTrigrams trigrams;
    if (::lseek(in, 0, SEEK_SET) < 0) {
        error = errnoText("seek", errno);
        return false;
    }
    for (;;) {
        const ssize_t n = readFull(in, raw.data(), raw.size());
        if (n < 0) {
            error = errnoText("read", errno);
            return false;
        }
        if (n == 0) break;
        trigrams.add(std::string_view(raw.data(), static_cast<std::size_t>(n)));
        const std::size_t size = ZSTD_compress2(context.get(), packed.data(), packed.size(),
                                                raw.data(), static_cast<std::size_t>(n));
        if (ZSTD_isError(size)) {
            error = std::string("zstd: ") + ZSTD_getErrorName(size);
            return false;
        }
        if (!writeAll(out, packed.data(), size)) {
            error = errnoText("write", errno);
            return false;
        }
        putLe32(index, static_cast<std::uint32_t>(size));
        putLe32(index, static_cast<std::uint32_t>(n));
        ++count;
        rawBytes += static_cast<std::uint64_t>(n);
        compressedBytes += size;
        if (static_cast<std::size_t>(n) < raw.size()) break;
    }
    std::string filter = trigrams.finish();
    if (filter.size() > kMaxFilterBytes) filter.clear();
    index += filter;
    putLe32(index, static_cast<std::uint32_t>(filter.size()));
    putLe32(index, count);
    putLe32(index, kFilteredIndexMarker);
    std::string frame;
    putLe32(frame, kSkippableMagic);
    putLe32(frame, static_cast<std::uint32_t>(index.size()));
    frame += index;
    if (!writeAll(out, frame.data(), frame.size())) {
        error = errnoText("write", errno);
        return false;
    }
    compressedBytes += frame.size();
    return true;
}

bool readIndex(int fd, std::uint64_t fileSize, std::vector<Frame>& frames, std::string& error,
               std::string* filter) {
    frames.clear();
    if (filter != nullptr) filter->clear();
    char tail[12];
    if (fileSize < 20 || !preadFull(fd, tail, sizeof(tail), fileSize - sizeof(tail))) {
        error = "no frame index";
        return false;
    }
    // Without a filter the index ends in (count, marker), with one in (filter size,
    // count, marker).
    const std::uint32_t marker = getLe32(tail + 8);
    const std::uint64_t count = getLe32(tail + 4);
    const bool filtered = marker == kFilteredIndexMarker;
    const std::uint64_t filterSize = filtered ? getLe32(tail) : 0;
    const std::uint64_t payload = count * 8 + filterSize + (filtered ? 12 : 8);
    if ((!filtered && marker != kIndexMarker) || payload + 8 > fileSize ||
        filterSize > kMaxFilterBytes) {
        error = "no frame index";
        return false;
    }
    std::string index(static_cast<std::size_t>(payload + 8), '\0');
    if (!preadFull(fd, index.data(), index.size(), fileSize - index.size())) {
        error = errnoText("read", errno);
        return false;
    }
    if (getLe32(index.data()) != kSkippableMagic || getLe32(index.data() + 4) != payload) {
        error = "damaged frame index";
        return false;
    }
    frames.reserve(static_cast<std::size_t>(count));
    Frame frame;
    for (std::uint64_t i = 0; i < count; ++i) {
        frame.compressedSize = getLe32(index.data() + 8 + i * 8);
        frame.rawSize = getLe32(index.data() + 12 + i * 8);
        if (frame.rawSize == 0 || frame.rawSize > kMaxFrameBytes) {
            error = "damaged frame index";
            frames.clear();
            return false;
        }
        frames.push_back(frame);
        frame.compressedOffset += frame.compressedSize;
        frame.rawOffset += frame.rawSize;
    }
    if (frame.compressedOffset + index.size() != fileSize) {
        error = "frame index does not match the file size";
        frames.clear();
        return false;
    }
    if (filter != nullptr) {
        filter->assign(index, static_cast<std::size_t>(8 + count * 8),
                       static_cast<std::size_t>(filterSize));
    }
    return true;
}

std::uint64_t rawSize(const std::vector<Frame>& frames) {
    return frames.empty() ? 0 : frames.back().rawOffset + frames.back().rawSize;
}

bool readRange(int fd, const std::vector<Frame>& frames, std::uint64_t offset, std::size_t length,
               std::string& out, std::string& error) {
    // The first frame that ends past `offset`.
    auto frame = std::upper_bound(
        frames.begin(), frames.end(), offset,
        [](std::uint64_t value, const Frame& f) { return value < f.rawOffset + f.rawSize; });
    if (frame == frames.end() || length == 0) return true;
    std::unique_ptr<ZSTD_DCtx, DCtxFree> context(ZSTD_createDCtx());
    if (!context) {
        error = "cannot create a zstd context";
        return false;
    }
    std::string packed;
    std::string raw;
    const std::uint64_t end =
        offset > UINT64_MAX - length ? UINT64_MAX : offset + static_cast<std::uint64_t>(length);
    for (; frame != frames.end() && frame->rawOffset < end; ++frame) {
        packed.resize(frame->compressedSize);
        raw.resize(frame->rawSize);
        if (!preadFull(fd, packed.data(), packed.size(), frame->compressedOffset)) {
            error = errnoText("read", errno);
            return false;
        }
        const std::size_t size = ZSTD_decompressDCtx(context.get(), raw.data(), raw.size(),
                                                     packed.data(), packed.size());
        if (ZSTD_isError(size) || size != frame->rawSize) {
            error = "damaged frame at byte " + std::to_string(frame->compressedOffset) +
                    (ZSTD_isError(size) ? std::string(": ") + ZSTD_getErrorName(size) : "");
            return false;
        }
        const std::uint64_t from = std::max(offset, frame->rawOffset) - frame->rawOffset;
        const std::uint64_t to = std::min<std::uint64_t>(end - frame->rawOffset, frame->rawSize);
        out.append(raw, static_cast<std::size_t>(from), static_cast<std::size_t>(to - from));
    }
    return true;
}

}  // namespace DeviceLogHistoryFrames
