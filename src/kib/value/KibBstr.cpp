// SPDX-License-Identifier: MIT
// 8-bit BSTR allocation. A BSTR points just past a 32-bit byte count and is followed by
// the characters and one NUL, so a string may hold embedded NULs and still be read
// as a C string up to the first one.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "KibVariant.h"

namespace {

constexpr std::size_t kPrefixBytes = sizeof(std::uint32_t);

}  // namespace

BSTR SysAllocString(const char* text) {
    if (text == nullptr) {
        return nullptr;
    }
    const std::size_t length = std::strlen(text);
    if (length > UINT32_MAX) {
        return nullptr;
    }
    return SysAllocStringLen(text, static_cast<unsigned int>(length));
}

BSTR SysAllocStringLen(const char* text, unsigned int length) {
    auto* block = static_cast<char*>(std::malloc(kPrefixBytes + std::size_t{length} + 1));
    if (block == nullptr) {
        return nullptr;
    }
    const std::uint32_t prefix = length;
    std::memcpy(block, &prefix, kPrefixBytes);
    char* chars = block + kPrefixBytes;
    if (text != nullptr) {
        std::memcpy(chars, text, length);
    } else {
        std::memset(chars, 0, length);
    }
    chars[length] = '\0';
    return chars;
}

void SysFreeString(BSTR text) {
    if (text != nullptr) {
        std::free(text - kPrefixBytes);
    }
}

unsigned int SysStringLen(BSTR text) {
    if (text == nullptr) {
        return 0;
    }
    std::uint32_t prefix = 0;
    std::memcpy(&prefix, text - kPrefixBytes, kPrefixBytes);
    return prefix;
}
