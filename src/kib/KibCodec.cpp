// SPDX-License-Identifier: MIT
// The bus wire format. Every NATS message payload is exactly one MessagePack array
// (a "frame"); nothing may follow it. Grammar (MessagePack types in lower case):
//
//   frame     = request / reply / announce / discover
//   request   = array(4) [ version, 0, caller:str, value ]
//   reply     = array(5) [ version, 1, status:int32, value, error ]
//   announce  = array(6) [ version, 2, satellite:str, instance:uint32, leaving:bool,
//                          services: array(n) of str ]
//   discover  = array(3) [ version, 3, requester:str ]
//   version   = uint, equal to 1; any other version is refused
//   error     = nil                                  ; the handler returned normally
//             / array(3) [ kind:uint, code:int32, message:str ]
//   kind      = 1 KibException (code = its code, message = its message buffer)
//             / 2 std::exception (code 0, message = what())
//             / 3 other exception (code 0, a fixed message)
//             / 4 refused by the bus library (code = a KIB_E_ status)
//   value     = array(2) [ vt:uint16, payload ]
//             / array(3) [ vt:uint16, payload, lbound:int32 ]   ; arrays only
//   payload   by vt:
//     0 VT_EMPTY, 1 VT_NULL          nil
//     16 I1, 2 I2, 3 I4, 20 I8       int within the type's signed range
//     17 UI1, 18 UI2, 19 UI4, 21 UI8 uint within the type's range
//     4 R4                           float32 (float64 accepted and narrowed; an
//                                    integer accepted when a float32 holds it exactly)
//     5 R8, 7 DATE                   float64 (float32 accepted; an integer accepted
//                                    when a float64 holds it exactly)
//     11 BOOL                        bool
//     8 BSTR                         str (any bytes, NULs included) / nil: the null string
//     0x2000|T, T one of the scalar codes above except EMPTY and NULL, or BSTR:
//                                    array(n) of payload(T); for T = UI1 also bin(n),
//                                    which encoders write
//     0x200C (array of VARIANT)      array(n) of value
//
// Integers are written in their shortest MessagePack form. Limits (KibCodecLimits):
// frame size, element count of any array, VARIANT nesting depth; MessagePack maps and
// ext types never appear. Decoding builds each array completely before it is handed
// out; on any error everything built so far is released.
#include "KibCodec.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include <msgpack.hpp>

#include "KibStatus.h"
#include "KibValueCodec.h"

namespace {

using Object = msgpack::object;

using KibValueCodec::asSigned;
using KibValueCodec::asString;
using KibValueCodec::asUnsigned;

// Packs one frame into `out` and checks its size at the end.
class FrameWriter {
public:
    FrameWriter(std::string& out, std::string& error, const KibCodecLimits& limits)
        : out_(out), error_(error), limits_(limits), sink_{&out}, packer_(sink_) {
        out_.clear();
    }

    KibPacker& packer() { return packer_; }
    bool value(const VARIANT& v) { return KibValueCodec::encode(out_, v, limits_, error_); }

    int finish() {
        if (out_.size() > limits_.maxFrameBytes) {
            error_ = "frame of " + std::to_string(out_.size()) + " bytes is above the limit of " +
                     std::to_string(limits_.maxFrameBytes);
            return KIB_E_TOO_LARGE;
        }
        return KIB_OK;
    }

private:
    std::string& out_;
    std::string& error_;
    const KibCodecLimits& limits_;
    KibStringSink sink_;
    KibPacker packer_;
};

void packHeader(KibPacker& packer, std::uint32_t fields, KibCodec::Kind kind) {
    packer.pack_array(fields);
    packer.pack_uint32(KibCodec::kVersion);
    packer.pack_uint8(static_cast<std::uint8_t>(kind));
}

void packString(KibPacker& packer, std::string_view text) {
    packer.pack_str(static_cast<std::uint32_t>(text.size()));
    packer.pack_str_body(text.data(), static_cast<std::uint32_t>(text.size()));
}

int parse(const char* data, std::size_t size, const KibCodecLimits& limits,
          msgpack::object_handle& handle, std::string& error) {
    if (size > limits.maxFrameBytes) {
        error = "frame of " + std::to_string(size) + " bytes is above the limit of " +
                std::to_string(limits.maxFrameBytes);
        return KIB_E_TOO_LARGE;
    }
    if (size == 0) {
        error = "empty frame";
        return KIB_E_BAD_FRAME;
    }
    const std::size_t arrayLimit = std::min<std::size_t>(limits.maxArrayElements, size);
    const msgpack::unpack_limit limit(arrayLimit, 0, size, size, 0,
                                      2 * static_cast<std::size_t>(limits.maxValueDepth) + 1);
    auto referenceBuffer = [](msgpack::type::object_type, std::size_t, void*) { return true; };
    std::size_t offset = 0;
    try {
        handle = msgpack::unpack(data, size, offset, referenceBuffer, nullptr, limit);
    } catch (const msgpack::insufficient_bytes&) {
        error = "truncated frame";
        return KIB_E_BAD_FRAME;
    } catch (const msgpack::depth_size_overflow&) {
        error = "values nested too deeply";
        return KIB_E_BAD_FRAME;
    } catch (const msgpack::map_size_overflow&) {
        error = "MessagePack maps are not used in frames";
        return KIB_E_BAD_FRAME;
    } catch (const msgpack::ext_size_overflow&) {
        error = "MessagePack extension types are not used in frames";
        return KIB_E_BAD_FRAME;
    } catch (const msgpack::size_overflow&) {
        error = "array, string or binary above its size limit";
        return KIB_E_BAD_FRAME;
    } catch (const std::bad_alloc&) {
        error = "out of memory while parsing";
        return KIB_E_BAD_FRAME;
    } catch (const std::exception&) {
        error = "malformed MessagePack";
        return KIB_E_BAD_FRAME;
    }
    if (offset != size) {
        error = "trailing bytes after the frame";
        return KIB_E_BAD_FRAME;
    }
    return KIB_OK;
}

// Parses a frame and checks its header; on success `fields` points at its fields.
int openFrame(const char* data, std::size_t size, KibCodec::Kind kind, std::uint32_t count,
              const KibCodecLimits& limits, msgpack::object_handle& handle, const Object*& fields,
              std::string& error) {
    const int status = parse(data, size, limits, handle, error);
    if (status != KIB_OK) return status;
    const Object& root = handle.get();
    if (root.type != msgpack::type::ARRAY || root.via.array.size < 2) {
        error = "a frame must be an array with a version and a kind";
        return KIB_E_BAD_FRAME;
    }
    fields = root.via.array.ptr;
    std::uint64_t version = 0;
    if (!asUnsigned(fields[0], 0xFFFFFFFFu, version) || version != KibCodec::kVersion) {
        error = "unsupported frame version";
        return KIB_E_BAD_FRAME;
    }
    std::uint64_t actual = 0;
    if (!asUnsigned(fields[1], 0xFF, actual) || actual != static_cast<std::uint8_t>(kind)) {
        error = "unexpected frame kind";
        return KIB_E_BAD_FRAME;
    }
    if (root.via.array.size != count) {
        error = "frame has " + std::to_string(root.via.array.size) + " fields, expected " +
                std::to_string(count);
        return KIB_E_BAD_FRAME;
    }
    return KIB_OK;
}

int badFrame(std::string& error, const char* why) {
    error = why;
    return KIB_E_BAD_FRAME;
}

bool decodeError(const Object& o, KibReply& out) {
    if (o.type == msgpack::type::NIL) {
        out.errorKind = KibErrorKind::None;
        return true;
    }
    if (o.type != msgpack::type::ARRAY || o.via.array.size != 3) return false;
    const Object* f = o.via.array.ptr;
    std::uint64_t kind = 0;
    std::int64_t code = 0;
    if (!asUnsigned(f[0], 4, kind) || kind == 0) return false;
    if (!asSigned(f[1], std::numeric_limits<std::int32_t>::min(),
                  std::numeric_limits<std::int32_t>::max(), code)) {
        return false;
    }
    if (!asString(f[2], out.errorText)) return false;
    out.errorKind = static_cast<KibErrorKind>(kind);
    out.errorCode = static_cast<std::int32_t>(code);
    return true;
}

}  // namespace

int KibCodec::encodeRequest(std::string_view caller, const VARIANT& value, std::string& out,
                            std::string& error, const KibCodecLimits& limits) {
    FrameWriter encoder(out, error, limits);
    packHeader(encoder.packer(), 4, Kind::Request);
    packString(encoder.packer(), caller);
    if (!encoder.value(value)) return KIB_E_BAD_VALUE;
    return encoder.finish();
}

int KibCodec::encodeReply(const KibReply& reply, std::string& out, std::string& error,
                          const KibCodecLimits& limits) {
    FrameWriter encoder(out, error, limits);
    KibPacker& packer = encoder.packer();
    packHeader(packer, 5, Kind::Reply);
    packer.pack_int32(reply.status);
    if (!encoder.value(reply.value.get())) return KIB_E_BAD_VALUE;
    if (reply.errorKind == KibErrorKind::None) {
        packer.pack_nil();
    } else {
        const auto kind =
            reply.errorKind == KibErrorKind::Local ? KibErrorKind::Library : reply.errorKind;
        packer.pack_array(3);
        packer.pack_uint8(static_cast<std::uint8_t>(kind));
        packer.pack_int32(reply.errorCode);
        packString(packer, reply.errorText);
    }
    return encoder.finish();
}

int KibCodec::encodeAnnounce(const KibAnnounceFrame& announce, std::string& out, std::string& error,
                             const KibCodecLimits& limits) {
    FrameWriter encoder(out, error, limits);
    KibPacker& packer = encoder.packer();
    packHeader(packer, 6, Kind::Announce);
    packString(packer, announce.satellite);
    packer.pack_uint32(announce.instance);
    if (announce.leaving) {
        packer.pack_true();
    } else {
        packer.pack_false();
    }
    if (announce.services.size() > limits.maxArrayElements) {
        error = "too many services";
        return KIB_E_TOO_LARGE;
    }
    packer.pack_array(static_cast<std::uint32_t>(announce.services.size()));
    for (const std::string& service : announce.services) packString(packer, service);
    return encoder.finish();
}

int KibCodec::encodeDiscover(std::string_view requester, std::string& out) {
    std::string unused;
    FrameWriter encoder(out, unused, KibCodecLimits{});
    packHeader(encoder.packer(), 3, Kind::Discover);
    packString(encoder.packer(), requester);
    return KIB_OK;
}

int KibCodec::encodeValue(const VARIANT& value, std::string& out, std::string& error,
                          const KibCodecLimits& limits) {
    FrameWriter encoder(out, error, limits);
    if (!encoder.value(value)) return KIB_E_BAD_VALUE;
    return encoder.finish();
}

int KibCodec::decodeRequest(const char* data, std::size_t size, KibRequestFrame& out,
                            std::string& error, const KibCodecLimits& limits) {
    msgpack::object_handle handle;
    const Object* f = nullptr;
    const int status = openFrame(data, size, Kind::Request, 4, limits, handle, f, error);
    if (status != KIB_OK) return status;
    std::string caller;
    if (!asString(f[2], caller)) return badFrame(error, "caller is not a string");
    VARIANT v{};
    VariantInit(&v);
    if (!KibValueCodec::decode(f[3], limits, v, error)) return KIB_E_BAD_FRAME;
    out.caller = std::move(caller);
    out.value = KibVariantHolder::adopt(v);
    return KIB_OK;
}

int KibCodec::decodeReply(const char* data, std::size_t size, KibReply& out, std::string& error,
                          const KibCodecLimits& limits) {
    msgpack::object_handle handle;
    const Object* f = nullptr;
    const int status = openFrame(data, size, Kind::Reply, 5, limits, handle, f, error);
    if (status != KIB_OK) return status;
    std::int64_t replyStatus = 0;
    if (!asSigned(f[2], std::numeric_limits<std::int32_t>::min(),
                  std::numeric_limits<std::int32_t>::max(), replyStatus)) {
        return badFrame(error, "status is not a 32-bit integer");
    }
    KibReply reply;
    if (!decodeError(f[4], reply)) return badFrame(error, "malformed error field");
    VARIANT v{};
    VariantInit(&v);
    if (!KibValueCodec::decode(f[3], limits, v, error)) return KIB_E_BAD_FRAME;
    out.status = static_cast<int>(replyStatus);
    out.value = KibVariantHolder::adopt(v);
    out.errorKind = reply.errorKind;
    out.errorCode = reply.errorCode;
    out.errorText = std::move(reply.errorText);
    return KIB_OK;
}

int KibCodec::decodeAnnounce(const char* data, std::size_t size, KibAnnounceFrame& out,
                             std::string& error, const KibCodecLimits& limits) {
    msgpack::object_handle handle;
    const Object* f = nullptr;
    const int status = openFrame(data, size, Kind::Announce, 6, limits, handle, f, error);
    if (status != KIB_OK) return status;
    KibAnnounceFrame frame;
    std::uint64_t instance = 0;
    if (!asString(f[2], frame.satellite)) return badFrame(error, "satellite is not a string");
    if (!asUnsigned(f[3], 0xFFFFFFFFu, instance)) return badFrame(error, "bad instance id");
    if (f[4].type != msgpack::type::BOOLEAN) return badFrame(error, "leaving is not a bool");
    if (f[5].type != msgpack::type::ARRAY) return badFrame(error, "services is not an array");
    frame.instance = static_cast<std::uint32_t>(instance);
    frame.leaving = f[4].via.boolean;
    for (std::uint32_t i = 0; i < f[5].via.array.size; ++i) {
        std::string service;
        if (!asString(f[5].via.array.ptr[i], service)) {
            return badFrame(error, "service name is not a string");
        }
        frame.services.push_back(std::move(service));
    }
    out = std::move(frame);
    return KIB_OK;
}

int KibCodec::decodeDiscover(const char* data, std::size_t size, std::string& requester,
                             std::string& error, const KibCodecLimits& limits) {
    msgpack::object_handle handle;
    const Object* f = nullptr;
    const int status = openFrame(data, size, Kind::Discover, 3, limits, handle, f, error);
    if (status != KIB_OK) return status;
    if (!asString(f[2], requester)) return badFrame(error, "requester is not a string");
    return KIB_OK;
}

int KibCodec::decodeValue(const char* data, std::size_t size, KibVariantHolder& out,
                          std::string& error, const KibCodecLimits& limits) {
    msgpack::object_handle handle;
    const int status = parse(data, size, limits, handle, error);
    if (status != KIB_OK) return status;
    VARIANT v{};
    VariantInit(&v);
    if (!KibValueCodec::decode(handle.get(), limits, v, error)) return KIB_E_BAD_FRAME;
    out = KibVariantHolder::adopt(v);
    return KIB_OK;
}
