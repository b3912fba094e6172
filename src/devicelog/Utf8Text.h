// SPDX-License-Identifier: MIT
// Utf8Text: checks on device text as bytes, so that text which needs no repair travels
// from the request to the file without being decoded and encoded again. Pure functions,
// any thread.
#pragma once

#include <cstddef>

namespace Utf8Text {

// Whether `size` bytes at `text` are well-formed UTF-8 (no overlong form, no surrogate,
// nothing above U+10FFFF, no sequence cut short) holding no NUL byte and no byte-order
// mark: exactly the texts that a UTF-8 decode and encode gives back unchanged.
bool isWellFormed(const char* text, std::size_t size);

}  // namespace Utf8Text
