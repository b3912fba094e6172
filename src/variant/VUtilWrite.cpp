// SPDX-License-Identifier: MIT
// Array creation and resizing, element writers and name/value pairs.
#include <cstdint>
#include <cstring>

#include "VUtil.h"
#include "VUtilDetail.h"

namespace VUtil {

using detail::fail;

namespace {

constexpr const char* kPutFailed = "SafeArrayPutElement failed";

constexpr unsigned short arrayOfType(VARTYPE vt) {
    return static_cast<unsigned short>(vt | VT_ARRAY);
}

// Stores `raw` (already in the element's layout) into a typed array of `elementVt`,
// or the VARIANT that `wrap` fills into an array of VARIANTs.
template <typename Raw, typename Wrap>
void putValue(tagVARIANT& v, int index, VARTYPE elementVt, const Raw& raw, Wrap wrap,
              const char* wrongArray) {
    if (v.vt == arrayOfType(elementVt)) {
        if (detail::writeElement(v, index, elementVt, &raw) != S_OK) {
            fail(kPutFailed);
        }
        return;
    }
    if (v.vt != arrayOfType(VT_VARIANT)) {
        fail(wrongArray);
    }
    KibVariantHolder element;
    wrap(*element.out());
    if (detail::writeElement(v, index, VT_VARIANT, &element.get()) != S_OK) {
        fail(kPutFailed);
    }
}

// Strings: a typed array takes the BSTR itself and keeps its own copy.
void putString(tagVARIANT& v, int index, BSTR text, bool allocated) {
    KibVariantHolder wrapped;
    VARIANT* element = wrapped.out();
    element->vt = VT_BSTR;
    element->bstrVal = text;  // owned by `wrapped` from here on
    if (v.vt == arrayOfType(VT_BSTR)) {
        if (!allocated || detail::writeElement(v, index, VT_BSTR, text) != S_OK) {
            fail(kPutFailed);
        }
        return;
    }
    if (v.vt != arrayOfType(VT_VARIANT)) {
        fail("PutElement failed: not an array of BSTR nor VARIANT");
    }
    if (!allocated || detail::writeElement(v, index, VT_VARIANT, &wrapped.get()) != S_OK) {
        fail(kPutFailed);
    }
}

}  // namespace

void CreateArray(tagVARIANT& v, unsigned short vt, unsigned long count) {
    SAFEARRAY* array = nullptr;
    if (count <= UINT32_MAX) {
        SAFEARRAYBOUND bound{static_cast<std::uint32_t>(count), 0};
        array = SafeArrayCreate(vt, 1, &bound);
    }
    if (array == nullptr) {
        fail("Could not create safe array");
    }
    v.vt = arrayOfType(vt);
    v.parray = array;
}

void RedimArray(tagVARIANT& v, unsigned long count) {
    // A value without an array, or a count beyond 32 bits, cannot be resized.
    if ((v.vt & VT_ARRAY) == 0 || count > UINT32_MAX) {
        fail("Could not redimension safe array");
    }
    SAFEARRAYBOUND bound{static_cast<std::uint32_t>(count), 0};
    if (SafeArrayRedim(v.parray, &bound) != S_OK) {
        fail("Could not redimension safe array");
    }
}

void PutElement(tagVARIANT& v, int index, short value) {
    putValue(
        v, index, VT_I2, value,
        [value](VARIANT& e) {
            e.vt = VT_I2;
            e.iVal = value;
        },
        "PutElement failed: not an array of I2 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, int value) {
    putValue(
        v, index, VT_I4, std::int32_t{value},
        [value](VARIANT& e) {
            e.vt = VT_I4;
            e.lVal = value;
        },
        "PutElement failed: not an array of I4 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, long value) {
    // VT_I4 is 32 bits wide: the long is narrowed (wrapping beyond 32 bits).
    PutElement(v, index, static_cast<int>(static_cast<std::int32_t>(value)));
}

void PutElement(tagVARIANT& v, int index, unsigned short value) {
    putValue(
        v, index, VT_UI2, value,
        [value](VARIANT& e) {
            e.vt = VT_UI2;
            e.uiVal = value;
        },
        "PutElement failed: not an array of UI2 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, unsigned char value) {
    putValue(
        v, index, VT_UI1, value,
        [value](VARIANT& e) {
            e.vt = VT_UI1;
            e.bVal = value;
        },
        "PutElement failed: not an array of UI1 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, long long value) {
    putValue(
        v, index, VT_I8, std::int64_t{value},
        [value](VARIANT& e) {
            e.vt = VT_I8;
            e.llVal = value;
        },
        "PutElement failed: not an array of I8 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, unsigned long long value) {
    putValue(
        v, index, VT_UI8, std::uint64_t{value},
        [value](VARIANT& e) {
            e.vt = VT_UI8;
            e.ullVal = value;
        },
        "PutElement failed: not an array of UI8 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, float value) {
    putValue(
        v, index, VT_R4, value,
        [value](VARIANT& e) {
            e.vt = VT_R4;
            e.fltVal = value;
        },
        "PutElement failed: not an array of R4 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, double value) {
    putValue(
        v, index, VT_R8, value,
        [value](VARIANT& e) {
            e.vt = VT_R8;
            e.dblVal = value;
        },
        "PutElement failed: not an array of R8 nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, const CStdStr& value) {
    BSTR text = detail::allocBstr(value);
    putString(v, index, text, text != nullptr);
}

void PutElement(tagVARIANT& v, int index, const char* value) {
    BSTR text = SysAllocString(value);
    putString(v, index, text, value == nullptr || text != nullptr);
}

void PutBoolElement(tagVARIANT& v, int index, bool value) {
    // A typed boolean array receives the one-byte bool as it is (true becomes 1 in
    // the element's low byte, the high byte 0); wrapped booleans are -1 or 0.
    std::uint16_t raw = 0;
    std::memcpy(&raw, &value, sizeof(value));
    putValue(
        v, index, VT_BOOL, raw,
        [value](VARIANT& e) {
            e.vt = VT_BOOL;
            e.boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
        },
        "PutElement failed: not an array of BOOL nor VARIANT");
}

void PutDateElement(tagVARIANT& v, int index, long seconds) {
    const double date = TimeToDate(seconds);
    putValue(
        v, index, VT_DATE, date,
        [date](VARIANT& e) {
            e.vt = VT_DATE;
            e.date = date;
        },
        "PutElement failed: not an array of DATE nor VARIANT");
}

void PutElement(tagVARIANT& v, int index, void* data) {
    if ((v.vt & VT_ARRAY) == 0 || v.parray == nullptr) {
        fail(kPutFailed);
    }
    const std::int32_t i = index;
    if (SafeArrayPutElement(v.parray, &i, data) != S_OK) {
        fail(kPutFailed);
    }
}

void PutElement(tagVARIANT& v, int index, const tagVARIANT& value) {
    // Only an array of VARIANTs can take a VARIANT's bytes safely.
    if (detail::writeElement(v, index, VT_VARIANT, &value) != S_OK) {
        fail(kPutFailed);
    }
}

namespace {

// Stores the pair (name, value) at `index` of the array of VARIANTs `v`. The name
// VARIANT is built by the caller before `v` is checked.
void putPair(tagVARIANT& v, int index, const VARIANT& name, const VARIANT& value) {
    if (v.vt != arrayOfType(VT_VARIANT)) {
        fail("PutPair: the given variant is not an array of variants");
    }
    KibVariantHolder pair;
    VARIANT* pairValue = pair.out();
    pairValue->parray = SafeArrayCreateVector(VT_VARIANT, 0, 2);
    if (pairValue->parray == nullptr) {
        fail("Could not create safe array in PutPair");
    }
    pairValue->vt = arrayOfType(VT_VARIANT);
    if (detail::writeElement(*pairValue, 0, VT_VARIANT, &name) != S_OK ||
        detail::writeElement(*pairValue, 1, VT_VARIANT, &value) != S_OK ||
        detail::writeElement(v, index, VT_VARIANT, pairValue) != S_OK) {
        fail("PutPair failed");
    }
}

KibVariantHolder stringVariant(const CStdStr& text) {
    KibVariantHolder holder;
    VARIANT* value = holder.out();
    value->vt = VT_BSTR;
    value->bstrVal = detail::allocBstr(text);
    return holder;
}

}  // namespace

void PutPair(tagVARIANT& v, int index, const CStdStr& name, const CStdStr& value) {
    const KibVariantHolder nameValue = stringVariant(name);
    const KibVariantHolder valueValue = stringVariant(value);
    putPair(v, index, nameValue.get(), valueValue.get());
}

void PutPair(tagVARIANT& v, int index, CStdStr name, long value) {
    const KibVariantHolder nameValue = stringVariant(name);
    VARIANT number;
    VariantInit(&number);
    number.vt = VT_I4;
    number.lVal = static_cast<std::int32_t>(value);
    putPair(v, index, nameValue.get(), number);
}

void PutPair(tagVARIANT& v, int index, CStdStr name, const tagVARIANT& value) {
    const KibVariantHolder nameValue = stringVariant(name);
    putPair(v, index, nameValue.get(), value);
}

}  // namespace VUtil
