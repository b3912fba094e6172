// SPDX-License-Identifier: MIT
// Utf8Text: checks on device text as bytes, and its escaping for one-line output, so that text
// which needs no repair travels from the request to the file without being decoded and encoded
// again. Pure functions, any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Utf8Text {

// Whether `size` bytes at `text` are well-formed UTF-8 (no overlong form, no surrogate,
// nothing above U+10FFFF, no sequence cut short) holding no NUL byte and no byte-order
// mark: exactly the texts that a UTF-8 decode and encode gives back unchanged.
bool isWellFormed(const char* text, std::size_t size);

// `text` with its control characters (bytes 0x00 to 0x1F and 0x7F; a tab too unless
// `keepTabs`) written as "\xHH", for printing device text on one line of a log or a
// terminal.
std::string escapeControls(std::string_view text, bool keepTabs = false);

}  // namespace Utf8Text
