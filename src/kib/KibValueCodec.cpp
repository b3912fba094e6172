// SPDX-License-Identifier: MIT
// Encoding and decoding of one VARIANT (the `value` rule of the grammar in
// KibCodec.cpp). Decoding builds every array completely before handing it out and
// releases everything built so far on the first error.
#include "KibValueCodec.h"

#include <cstring>
#include <limits>

#include "KibStatus.h"

namespace {

bool isArrayElementType(VARTYPE t) { return KibArrayElementSize(t) != 0; }

template <typename T>
T load(const void* slot) {
    T value;
    std::memcpy(&value, slot, sizeof value);
    return value;
}

template <typename T>
void store(void* slot, T value) {
    std::memcpy(slot, &value, sizeof value);
}

// ---------------------------------------------------------------------------------
// Encoding

class Encoder {
public:
    Encoder(std::string& out, std::string& error, const KibCodecLimits& limits)
        : out_(out), error_(error), limits_(limits), sink_{&out}, packer_(sink_) {}

    bool value(const VARIANT& v, std::uint32_t depth) {
        if (depth > limits_.maxValueDepth) {
            return fail("values nested deeper than " + std::to_string(limits_.maxValueDepth));
        }
        if (v.vt & VT_ARRAY) return array(v, depth);
        packer_.pack_array(2);
        packer_.pack_uint16(v.vt);
        if (v.vt == VT_EMPTY || v.vt == VT_NULL) {
            packer_.pack_nil();
            return true;
        }
        if (!isArrayElementType(v.vt) || v.vt == VT_VARIANT) {
            return fail("value type " + std::to_string(v.vt) + " cannot be sent");
        }
        return element(v.vt, &v.llVal, depth);
    }

    bool fail(const std::string& why) {
        error_ = why;
        return false;
    }

private:
    bool array(const VARIANT& v, std::uint32_t depth) {
        const VARTYPE t = static_cast<VARTYPE>(v.vt & ~VT_ARRAY);
        const SAFEARRAY* a = v.parray;
        if (!isArrayElementType(t)) return fail("array type " + std::to_string(v.vt) + " unknown");
        if (a == nullptr) return fail("array value without an array");
        if (a->cDims != 1) return fail("only one-dimensional arrays can be sent");
        if (a->cbElements != KibArrayElementSize(t))
            return fail("array element size does not match");
        const std::uint32_t count = a->rgsabound[0].cElements;
        if (count > limits_.maxArrayElements) {
            return fail("array of " + std::to_string(count) + " elements is above the limit");
        }
        if (count > 0 && a->pvData == nullptr) return fail("array without data");
        const std::int32_t lbound = a->rgsabound[0].lLbound;
        packer_.pack_array(lbound != 0 ? 3 : 2);
        packer_.pack_uint16(v.vt);
        const auto* data = static_cast<const char*>(a->pvData);
        if (t == VT_UI1) {
            packer_.pack_bin(count);
            packer_.pack_bin_body(data, count);
        } else {
            packer_.pack_array(count);
            for (std::uint32_t i = 0; i < count; ++i) {
                if (!element(t, data + static_cast<std::size_t>(i) * a->cbElements, depth)) {
                    return false;
                }
            }
        }
        if (lbound != 0) packer_.pack_int32(lbound);
        return true;
    }

    // One payload of element type `t` stored at `slot`.
    bool element(VARTYPE t, const void* slot, std::uint32_t depth) {
        switch (t) {
            case VT_I1:
                packer_.pack_int8(load<std::int8_t>(slot));
                break;
            case VT_I2:
                packer_.pack_int16(load<std::int16_t>(slot));
                break;
            case VT_I4:
                packer_.pack_int32(load<std::int32_t>(slot));
                break;
            case VT_I8:
                packer_.pack_int64(load<std::int64_t>(slot));
                break;
            case VT_UI1:
                packer_.pack_uint8(load<std::uint8_t>(slot));
                break;
            case VT_UI2:
                packer_.pack_uint16(load<std::uint16_t>(slot));
                break;
            case VT_UI4:
                packer_.pack_uint32(load<std::uint32_t>(slot));
                break;
            case VT_UI8:
                packer_.pack_uint64(load<std::uint64_t>(slot));
                break;
            case VT_R4:
                packFloat<std::uint32_t>('\xCA', load<float>(slot));
                break;
            case VT_R8:
            case VT_DATE:
                packFloat<std::uint64_t>('\xCB', load<double>(slot));
                break;
            case VT_BOOL:
                if (load<VARIANT_BOOL>(slot) != 0) {
                    packer_.pack_true();
                } else {
                    packer_.pack_false();
                }
                break;
            case VT_BSTR: {
                const BSTR text = load<BSTR>(slot);
                if (text == nullptr) {
                    packer_.pack_nil();
                } else {
                    const unsigned int size = SysStringLen(text);
                    packer_.pack_str(size);
                    packer_.pack_str_body(text, size);
                }
                break;
            }
            case VT_VARIANT:
                return value(*static_cast<const VARIANT*>(slot), depth + 1);
            default:
                return fail("element type " + std::to_string(t) + " cannot be sent");
        }
        return true;
    }

    // Floats are always written as float32 / float64: the packer would turn integral
    // values into integers, which the grammar does not allow for R4, R8 and DATE.
    template <typename Bits, typename Float>
    void packFloat(char marker, Float value) {
        Bits bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        out_.push_back(marker);
        for (int shift = 8 * static_cast<int>(sizeof bits) - 8; shift >= 0; shift -= 8) {
            out_.push_back(static_cast<char>((bits >> shift) & 0xFF));
        }
    }

    std::string& out_;
    std::string& error_;
    const KibCodecLimits& limits_;
    KibStringSink sink_;
    KibPacker packer_;
};

template <typename T>
bool storeSigned(const msgpack::object& o, void* slot) {
    std::int64_t v = 0;
    if (!KibValueCodec::asSigned(o, std::numeric_limits<T>::min(), std::numeric_limits<T>::max(),
                                 v)) {
        return false;
    }
    store(slot, static_cast<T>(v));
    return true;
}

template <typename T>
bool storeUnsigned(const msgpack::object& o, void* slot) {
    std::uint64_t v = 0;
    if (!KibValueCodec::asUnsigned(o, std::numeric_limits<T>::max(), v)) return false;
    store(slot, static_cast<T>(v));
    return true;
}

// Releases an array under construction unless it was handed out.
struct ArrayGuard {
    explicit ArrayGuard(SAFEARRAY* created) : array(created) {}
    ArrayGuard(const ArrayGuard&) = delete;
    ArrayGuard& operator=(const ArrayGuard&) = delete;
    ~ArrayGuard() {
        if (array != nullptr) SafeArrayDestroy(array);
    }
    SAFEARRAY* release() {
        SAFEARRAY* a = array;
        array = nullptr;
        return a;
    }

    SAFEARRAY* array = nullptr;
};

class Decoder {
public:
    Decoder(std::string& error, const KibCodecLimits& limits) : error_(error), limits_(limits) {}

    // Decodes `o` into `out`, which must be VT_EMPTY and stays so on failure.
    bool value(const msgpack::object& o, std::uint32_t depth, VARIANT& out) {
        if (depth > limits_.maxValueDepth) return fail("values nested too deeply");
        if (o.type != msgpack::type::ARRAY || o.via.array.size < 2 || o.via.array.size > 3) {
            return fail("a value must be an array of 2 or 3 fields");
        }
        const msgpack::object* f = o.via.array.ptr;
        std::uint64_t vt = 0;
        if (!KibValueCodec::asUnsigned(f[0], 0xFFFF, vt))
            return fail("value type is not a 16-bit unsigned");
        const auto type = static_cast<VARTYPE>(vt);
        if (type & VT_ARRAY) return array(o, type, depth, out);
        if (o.via.array.size != 2) return fail("a lower bound on a scalar value");
        if (type == VT_EMPTY || type == VT_NULL) {
            if (f[1].type != msgpack::type::NIL) return badPayload(type);
            out.vt = type;
            return true;
        }
        if (!isArrayElementType(type) || type == VT_VARIANT) {
            return fail("value type " + std::to_string(type) + " is unknown");
        }
        VARIANT v{};
        VariantInit(&v);
        if (!element(f[1], type, &v.llVal, depth)) return false;
        v.vt = type;
        out = v;
        return true;
    }

    bool fail(const std::string& why) {
        error_ = why;
        return false;
    }

private:
    bool badPayload(VARTYPE type) {
        return fail("payload of the wrong type for value type " + std::to_string(type));
    }

    bool array(const msgpack::object& o, VARTYPE type, std::uint32_t depth, VARIANT& out) {
        const VARTYPE t = static_cast<VARTYPE>(type & ~VT_ARRAY);
        if (!isArrayElementType(t))
            return fail("array type " + std::to_string(type) + " is unknown");
        const msgpack::object* f = o.via.array.ptr;
        std::int64_t lbound = 0;
        if (o.via.array.size == 3 &&
            !KibValueCodec::asSigned(f[2], std::numeric_limits<std::int32_t>::min(),
                                     std::numeric_limits<std::int32_t>::max(), lbound)) {
            return fail("array lower bound is not a 32-bit integer");
        }
        const msgpack::object& payload = f[1];
        const bool isBin = t == VT_UI1 && payload.type == msgpack::type::BIN;
        if (!isBin && payload.type != msgpack::type::ARRAY) return badPayload(type);
        const std::uint32_t count = isBin ? payload.via.bin.size : payload.via.array.size;
        if (count > limits_.maxArrayElements) return fail("array above the element limit");
        ArrayGuard guard(SafeArrayCreateVector(t, static_cast<std::int32_t>(lbound), count));
        if (guard.array == nullptr) return fail("cannot allocate an array");
        auto* data = static_cast<char*>(guard.array->pvData);
        if (isBin) {
            if (count > 0) std::memcpy(data, payload.via.bin.ptr, count);
        } else {
            const std::size_t size = guard.array->cbElements;
            for (std::uint32_t i = 0; i < count; ++i) {
                if (!element(payload.via.array.ptr[i], t, data + i * size, depth)) return false;
            }
        }
        VARIANT v{};
        VariantInit(&v);
        v.vt = type;
        v.parray = guard.release();
        out = v;
        return true;
    }

    // One payload of element type `t` into `slot`, which holds zero / null / VT_EMPTY.
    bool element(const msgpack::object& o, VARTYPE t, void* slot, std::uint32_t depth) {
        bool ok = false;
        switch (t) {
            case VT_I1:
                ok = storeSigned<std::int8_t>(o, slot);
                break;
            case VT_I2:
                ok = storeSigned<std::int16_t>(o, slot);
                break;
            case VT_I4:
                ok = storeSigned<std::int32_t>(o, slot);
                break;
            case VT_I8:
                ok = storeSigned<std::int64_t>(o, slot);
                break;
            case VT_UI1:
                ok = storeUnsigned<std::uint8_t>(o, slot);
                break;
            case VT_UI2:
                ok = storeUnsigned<std::uint16_t>(o, slot);
                break;
            case VT_UI4:
                ok = storeUnsigned<std::uint32_t>(o, slot);
                break;
            case VT_UI8:
                ok = storeUnsigned<std::uint64_t>(o, slot);
                break;
            case VT_R4:
            case VT_R8:
            case VT_DATE: {
                double d = 0;
                ok = KibValueCodec::asFloat(o, d);
                // A float 64 is narrowed for VT_R4; an integer must fit exactly.
                const bool isInteger = o.type == msgpack::type::POSITIVE_INTEGER ||
                                       o.type == msgpack::type::NEGATIVE_INTEGER;
                if (ok && t == VT_R4 && isInteger)
                    ok = static_cast<double>(static_cast<float>(d)) == d;
                if (ok && t == VT_R4) store(slot, static_cast<float>(d));
                if (ok && t != VT_R4) store(slot, d);
                break;
            }
            case VT_BOOL:
                ok = o.type == msgpack::type::BOOLEAN;
                if (ok) store(slot, o.via.boolean ? VARIANT_TRUE : VARIANT_FALSE);
                break;
            case VT_BSTR:
                return string(o, slot);
            case VT_VARIANT:
                return value(o, depth + 1, *static_cast<VARIANT*>(slot));
            default:
                break;
        }
        return ok || badPayload(t);
    }

    bool string(const msgpack::object& o, void* slot) {
        if (o.type == msgpack::type::NIL) return true;  // the null string
        if (o.type != msgpack::type::STR) return badPayload(VT_BSTR);
        const BSTR text =
            SysAllocStringLen(o.via.str.size > 0 ? o.via.str.ptr : "", o.via.str.size);
        if (text == nullptr) return fail("cannot allocate a string");
        store(slot, text);
        return true;
    }

    std::string& error_;
    const KibCodecLimits& limits_;
};

// Parses `data` as exactly one MessagePack object with explicit limits, so that a
// hostile header cannot make the parser allocate more than a bounded amount.
}  // namespace

bool KibValueCodec::asSigned(const msgpack::object& o, std::int64_t min, std::int64_t max,
                             std::int64_t& v) {
    if (o.type == msgpack::type::POSITIVE_INTEGER) {
        if (o.via.u64 > static_cast<std::uint64_t>(max)) return false;
        v = static_cast<std::int64_t>(o.via.u64);
        return true;
    }
    if (o.type == msgpack::type::NEGATIVE_INTEGER) {
        v = o.via.i64;
        return v >= min;
    }
    return false;
}

bool KibValueCodec::asUnsigned(const msgpack::object& o, std::uint64_t max, std::uint64_t& v) {
    if (o.type != msgpack::type::POSITIVE_INTEGER || o.via.u64 > max) return false;
    v = o.via.u64;
    return true;
}

bool KibValueCodec::asFloat(const msgpack::object& o, double& v) {
    // Many encoders write a whole-number float as an integer: taken when the double
    // holds it exactly. 2^64 and -2^63 bound the casts back, which are exact below them.
    constexpr double kTwoTo64 = 18446744073709551616.0;
    switch (o.type) {
        case msgpack::type::FLOAT32:
        case msgpack::type::FLOAT64:
            v = o.via.f64;
            return true;
        case msgpack::type::POSITIVE_INTEGER: {
            const double d = static_cast<double>(o.via.u64);
            if (d >= kTwoTo64 || static_cast<std::uint64_t>(d) != o.via.u64) return false;
            v = d;
            return true;
        }
        case msgpack::type::NEGATIVE_INTEGER: {
            const double d = static_cast<double>(o.via.i64);
            if (static_cast<std::int64_t>(d) != o.via.i64) return false;
            v = d;
            return true;
        }
        default:
            return false;
    }
}

bool KibValueCodec::asString(const msgpack::object& o, std::string& v) {
    if (o.type != msgpack::type::STR) return false;
    v.assign(o.via.str.ptr, o.via.str.size);
    return true;
}

bool KibValueCodec::encode(std::string& out, const VARIANT& value, const KibCodecLimits& limits,
                           std::string& error) {
    return Encoder(out, error, limits).value(value, 1);
}

bool KibValueCodec::decode(const msgpack::object& o, const KibCodecLimits& limits, VARIANT& out,
                           std::string& error) {
    VARIANT value{};
    VariantInit(&value);
    if (!Decoder(error, limits).value(o, 1, value)) return false;
    out = value;
    return true;
}
