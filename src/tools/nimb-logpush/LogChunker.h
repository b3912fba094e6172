// SPDX-License-Identifier: MIT
// LogChunker: where the next piece of pending log text is cut before it is sent. Pieces end
// at line ends so that every line reaches the collector whole and its timestamps stay
// recognisable; only a line longer than the size limit is cut inside. Pure functions, any
// thread.
#pragma once

#include <cstddef>
#include <string_view>

namespace LogChunker {

// The size limit of one piece of content: far below the bus's 1 MiB frame limit.
constexpr std::size_t kDefaultLimit = 64 * 1024;

// Length of the piece to send from the front of `pending`, or 0 when nothing should go yet.
// The piece ends after the last "\n" within the first `limit` bytes. Without a "\n" there:
// when `pending` holds at least `limit` bytes, the piece is the first `limit` bytes (moved
// back to the start of a UTF-8 character when it would split one); otherwise, when `flush`
// is true (end of input, rotation, a line left unfinished for a while), it is everything
// pending, else nothing: the last line is still being written.
std::size_t nextChunkLength(std::string_view pending, std::size_t limit, bool flush);

}  // namespace LogChunker
