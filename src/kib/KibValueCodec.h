// SPDX-License-Identifier: MIT
// KibValueCodec: MessagePack encoding of one VARIANT, and the checked readers of
// MessagePack scalars that the frame decoders share. Internal to the bus library;
// stateless, any thread.
#pragma once

#include <cstdint>
#include <string>

#include <msgpack.hpp>

#include "KibCodec.h"
#include "KibVariant.h"

// Appends packed bytes to a std::string.
struct KibStringSink {
    std::string* out = nullptr;
    void write(const char* data, std::size_t size) { out->append(data, size); }
};
using KibPacker = msgpack::packer<KibStringSink>;

namespace KibValueCodec {

// Appends `value` to `out`; false with `error` set when the format cannot carry it.
bool encode(std::string& out, const VARIANT& value, const KibCodecLimits& limits,
            std::string& error);
// Builds `out` (left untouched on failure) from `o`; false with `error` set.
bool decode(const msgpack::object& o, const KibCodecLimits& limits, VARIANT& out,
            std::string& error);

bool asSigned(const msgpack::object& o, std::int64_t min, std::int64_t max, std::int64_t& v);
bool asUnsigned(const msgpack::object& o, std::uint64_t max, std::uint64_t& v);
// A float, or an integer that a double holds exactly.
bool asFloat(const msgpack::object& o, double& v);
bool asString(const msgpack::object& o, std::string& v);

}  // namespace KibValueCodec
