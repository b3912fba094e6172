// SPDX-License-Identifier: MIT
#include "Utf8Text.h"

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace {

// Whether none of the 8 bytes at `p` is 0 or has its high bit set.
bool isPlainAscii8(const unsigned char* p) {
    std::uint64_t word = 0;
    std::memcpy(&word, p, sizeof(word));
    constexpr std::uint64_t kHigh = 0x8080808080808080ULL;
    constexpr std::uint64_t kOnes = 0x0101010101010101ULL;
    // A zero byte makes (word - kOnes) borrow into its high bit.
    return ((word | ((word - kOnes) & ~word)) & kHigh) == 0;
}

// Length of the sequence that starts with `lead` and the allowed range of its second
// byte (RFC 3629's table); 0 for a byte that cannot start one.
int sequenceLength(unsigned char lead, unsigned char& low, unsigned char& high) {
    low = 0x80;
    high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) return 2;
    if (lead >= 0xE0 && lead <= 0xEF) {
        if (lead == 0xE0) low = 0xA0;   // no overlong form
        if (lead == 0xED) high = 0x9F;  // no surrogate
        return 3;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        if (lead == 0xF0) low = 0x90;   // no overlong form
        if (lead == 0xF4) high = 0x8F;  // nothing above U+10FFFF
        return 4;
    }
    return 0;
}

}  // namespace

namespace Utf8Text {

bool isWellFormed(const char* text, std::size_t size) {
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    const unsigned char* const end = p + size;
    while (p < end) {
        if (end - p >= 8 && isPlainAscii8(p)) {
            p += 8;
            continue;
        }
        const unsigned char lead = *p;
        if (lead < 0x80) {
            if (lead == 0) return false;
            ++p;
            continue;
        }
        unsigned char low = 0;
        unsigned char high = 0;
        const int length = sequenceLength(lead, low, high);
        if (length == 0 || end - p < length || p[1] < low || p[1] > high) return false;
        for (int i = 2; i < length; ++i) {
            if ((p[i] & 0xC0) != 0x80) return false;
        }
        // A byte-order mark may be dropped by a decoder: such text takes the long way.
        if (lead == 0xEF && p[1] == 0xBB && p[2] == 0xBF) return false;
        p += length;
    }
    return true;
}

std::string escapeControls(std::string_view text, bool keepTabs) {
    static const char kHex[] = "0123456789abcdef";
    std::string result;
    result.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && !(keepTabs && c == '\t')) || byte == 0x7f) {
            result += "\\x";
            result += kHex[byte >> 4];
            result += kHex[byte & 15];
        } else {
            result += c;
        }
    }
    return result;
}

}  // namespace Utf8Text
