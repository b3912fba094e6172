// SPDX-License-Identifier: MIT
// Small vocabulary for building and comparing bus values in tests: scalars, typed
// arrays, arrays of VARIANTs and strings straight from the primitives (so that readers
// are not tested through the writers), and a deep comparison. Header only; used by the
// value, bus and kib-call tests on their own threads.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KibVariantHolder.h"

namespace testvalues {

// Any plain scalar: `set` fills the value union.
template <typename Set>
KibVariantHolder make(VARTYPE vt, Set set) {
    VARIANT raw;
    VariantInit(&raw);
    raw.vt = vt;
    set(raw);
    return KibVariantHolder::adopt(raw);
}

// A scalar of type `vt` whose value union holds `bits`.
inline KibVariantHolder scalar(VARTYPE vt, std::uint64_t bits = 0) {
    return make(vt, [bits](VARIANT& v) { v.ullVal = bits; });
}

inline KibVariantHolder i4(std::int32_t value) {
    return make(VT_I4, [value](VARIANT& v) { v.lVal = value; });
}

inline KibVariantHolder r8(VARTYPE vt, double value) {
    return make(vt, [value](VARIANT& v) { v.dblVal = value; });
}

// A string; nullptr gives a null string.
inline KibVariantHolder str(const char* text) {
    return make(VT_BSTR, [text](VARIANT& v) { v.bstrVal = SysAllocString(text); });
}

// A string that may hold NUL bytes.
inline KibVariantHolder str(const std::string& text) {
    return make(VT_BSTR, [&text](VARIANT& v) {
        v.bstrVal = SysAllocStringLen(text.data(), static_cast<unsigned int>(text.size()));
    });
}

inline KibVariantHolder nullStr() { return str(nullptr); }

// A typed array of `vt` holding `values` in their raw layout.
template <typename T>
KibVariantHolder typed(VARTYPE vt, const std::vector<T>& values, std::int32_t lowerBound = 0) {
    VARIANT raw;
    VariantInit(&raw);
    raw.vt = VT_ARRAY | vt;
    raw.parray = SafeArrayCreateVector(vt, lowerBound, static_cast<std::uint32_t>(values.size()));
    EXPECT_NE(raw.parray, nullptr);
    EXPECT_EQ(raw.parray->cbElements, sizeof(T));
    void* data = nullptr;
    SafeArrayAccessData(raw.parray, &data);
    if (!values.empty()) std::memcpy(data, values.data(), values.size() * sizeof(T));
    SafeArrayUnaccessData(raw.parray);
    return KibVariantHolder::adopt(raw);
}

// An array of strings; nullptr elements are null strings.
inline KibVariantHolder strings(const std::vector<const char*>& texts) {
    VARIANT raw;
    VariantInit(&raw);
    raw.vt = VT_ARRAY | VT_BSTR;
    raw.parray = SafeArrayCreateVector(VT_BSTR, 0, static_cast<std::uint32_t>(texts.size()));
    for (std::int32_t i = 0; i < static_cast<std::int32_t>(texts.size()); ++i) {
        BSTR text = SysAllocString(texts[i]);
        EXPECT_EQ(SafeArrayPutElement(raw.parray, &i, text), S_OK);
        SysFreeString(text);
    }
    return KibVariantHolder::adopt(raw);
}

// An array of VARIANTs holding copies of `elements`.
template <typename... Holders>
KibVariantHolder variants(const Holders&... elements) {
    VARIANT raw;
    VariantInit(&raw);
    raw.vt = VT_ARRAY | VT_VARIANT;
    raw.parray = SafeArrayCreateVector(VT_VARIANT, 0, sizeof...(elements));
    std::int32_t i = 0;
    [[maybe_unused]] auto put = [&](const KibVariantHolder& element) {
        EXPECT_EQ(SafeArrayPutElement(raw.parray, &i, &element.get()), S_OK);
        ++i;
    };
    (put(elements), ...);
    return KibVariantHolder::adopt(raw);
}

// An array of VARIANTs holding copies of the elements of `elements`.
inline KibVariantHolder variants(const std::vector<KibVariantHolder>& elements) {
    VARIANT raw;
    VariantInit(&raw);
    raw.vt = VT_ARRAY | VT_VARIANT;
    raw.parray = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<std::uint32_t>(elements.size()));
    for (std::int32_t i = 0; i < static_cast<std::int32_t>(elements.size()); ++i) {
        EXPECT_EQ(SafeArrayPutElement(raw.parray, &i, &elements[static_cast<size_t>(i)].get()),
                  S_OK);
    }
    return KibVariantHolder::adopt(raw);
}

// Deep comparison: types, bounds, bytes of scalars, string bytes and null-ness.
inline testing::AssertionResult sameValue(const VARIANT& a, const VARIANT& b);

namespace detail {

inline testing::AssertionResult sameString(BSTR a, BSTR b) {
    if ((a == nullptr) != (b == nullptr)) {
        return testing::AssertionFailure() << "null vs non-null string";
    }
    if (a == nullptr) return testing::AssertionSuccess();
    if (SysStringLen(a) != SysStringLen(b) || std::memcmp(a, b, SysStringLen(a)) != 0) {
        return testing::AssertionFailure() << "strings differ: '" << a << "' vs '" << b << "'";
    }
    return testing::AssertionSuccess();
}

inline testing::AssertionResult sameElement(VARTYPE t, const void* a, const void* b) {
    if (t == VT_VARIANT) {
        return sameValue(*static_cast<const VARIANT*>(a), *static_cast<const VARIANT*>(b));
    }
    if (t == VT_BSTR) return sameString(*static_cast<const BSTR*>(a), *static_cast<const BSTR*>(b));
    if (t == VT_BOOL) {
        const bool x = *static_cast<const VARIANT_BOOL*>(a) != 0;
        const bool y = *static_cast<const VARIANT_BOOL*>(b) != 0;
        return x == y ? testing::AssertionSuccess() : testing::AssertionFailure() << "bools differ";
    }
    if (std::memcmp(a, b, KibArrayElementSize(t)) != 0) {
        return testing::AssertionFailure() << "scalars differ (type " << t << ")";
    }
    return testing::AssertionSuccess();
}

}  // namespace detail

inline testing::AssertionResult sameValue(const VARIANT& a, const VARIANT& b) {
    if (a.vt != b.vt) return testing::AssertionFailure() << "types " << a.vt << " vs " << b.vt;
    if (a.vt == VT_EMPTY || a.vt == VT_NULL) return testing::AssertionSuccess();
    if ((a.vt & VT_ARRAY) == 0) return detail::sameElement(a.vt, &a.llVal, &b.llVal);
    const SAFEARRAY* x = a.parray;
    const SAFEARRAY* y = b.parray;
    if (x->rgsabound[0].cElements != y->rgsabound[0].cElements) {
        return testing::AssertionFailure() << "lengths differ";
    }
    if (x->rgsabound[0].lLbound != y->rgsabound[0].lLbound) {
        return testing::AssertionFailure() << "bounds differ";
    }
    const VARTYPE t = static_cast<VARTYPE>(a.vt & ~VT_ARRAY);
    for (std::uint32_t i = 0; i < x->rgsabound[0].cElements; ++i) {
        auto r = detail::sameElement(t, static_cast<const char*>(x->pvData) + i * x->cbElements,
                                     static_cast<const char*>(y->pvData) + i * y->cbElements);
        if (!r) return r << " at element " << i;
    }
    return testing::AssertionSuccess();
}

}  // namespace testvalues
