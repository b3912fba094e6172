// SPDX-License-Identifier: MIT
// KibCodec: the bus's MessagePack wire format (grammar at the top of KibCodec.cpp).
// Encoders write one frame into a std::string; decoders treat every frame as hostile
// and return either a complete owned value or an error text, never a partial value.
// Stateless: any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "KibReply.h"
#include "KibVariant.h"
#include "KibVariantHolder.h"

struct KibCodecLimits {
    // Largest frame accepted or produced, in bytes.
    std::size_t maxFrameBytes = 1024 * 1024;
    // Largest element count of one MessagePack array (a VARIANT array, a service list).
    std::uint32_t maxArrayElements = 256 * 1024;
    // Deepest nesting of VARIANTs (a value that is an array of arrays of ... values).
    std::uint32_t maxValueDepth = 16;
};

struct KibRequestFrame {
    std::string caller;
    KibVariantHolder value;
};

struct KibAnnounceFrame {
    std::string satellite;
    std::uint32_t instance = 0;
    bool leaving = false;
    std::vector<std::string> services;
};

class KibCodec {
public:
    static constexpr std::uint32_t kVersion = 1;
    enum class Kind : std::uint8_t { Request = 0, Reply = 1, Announce = 2, Discover = 3 };

    // Encoders return KIB_OK, KIB_E_BAD_VALUE (a value the format cannot carry) or
    // KIB_E_TOO_LARGE; `error` then says why. `out` is replaced.
    static int encodeRequest(std::string_view caller, const VARIANT& value, std::string& out,
                             std::string& error, const KibCodecLimits& limits = {});
    static int encodeReply(const KibReply& reply, std::string& out, std::string& error,
                           const KibCodecLimits& limits = {});
    static int encodeAnnounce(const KibAnnounceFrame& announce, std::string& out,
                              std::string& error, const KibCodecLimits& limits = {});
    static int encodeDiscover(std::string_view requester, std::string& out);
    // A bare value (the `value` rule), for measurements and tools.
    static int encodeValue(const VARIANT& value, std::string& out, std::string& error,
                           const KibCodecLimits& limits = {});

    // Decoders return KIB_OK, or KIB_E_BAD_FRAME / KIB_E_TOO_LARGE with `error` set and
    // `out` untouched.
    static int decodeRequest(const char* data, std::size_t size, KibRequestFrame& out,
                             std::string& error, const KibCodecLimits& limits = {});
    static int decodeReply(const char* data, std::size_t size, KibReply& out, std::string& error,
                           const KibCodecLimits& limits = {});
    static int decodeAnnounce(const char* data, std::size_t size, KibAnnounceFrame& out,
                              std::string& error, const KibCodecLimits& limits = {});
    static int decodeDiscover(const char* data, std::size_t size, std::string& requester,
                              std::string& error, const KibCodecLimits& limits = {});
    static int decodeValue(const char* data, std::size_t size, KibVariantHolder& out,
                           std::string& error, const KibCodecLimits& limits = {});
};
