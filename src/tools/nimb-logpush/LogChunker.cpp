// SPDX-License-Identifier: MIT
#include "LogChunker.h"

namespace LogChunker {

namespace {

bool isContinuationByte(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// A cut at `cut` that does not fall inside a UTF-8 sequence; a sequence is at most four
// bytes, so at most three are given back. Text that is not UTF-8 is cut where it stands.
std::size_t characterBoundary(std::string_view text, std::size_t cut) {
    for (std::size_t back = 0; back < 4 && back < cut; ++back) {
        if (!isContinuationByte(text[cut - back])) return cut - back;
    }
    return cut;
}

}  // namespace

std::size_t nextChunkLength(std::string_view pending, std::size_t limit, bool flush) {
    if (pending.empty() || limit == 0) return 0;
    const std::string_view window = pending.substr(0, limit);
    const std::size_t lastNewline = window.rfind('\n');
    if (lastNewline != std::string_view::npos) return lastNewline + 1;
    if (pending.size() > limit) return characterBoundary(pending, limit);
    if (pending.size() == limit || flush) return pending.size();
    return 0;
}

}  // namespace LogChunker
