// SPDX-License-Identifier: MIT
// Small vocabulary for building and comparing bus values in tests.
#pragma once

#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "KibVariantHolder.h"

namespace testvalues {

inline KibVariantHolder scalar(VARTYPE vt, std::uint64_t bits) {
    VARIANT v{};
    VariantInit(&v);
    v.vt = vt;
    v.ullVal = bits;
    return KibVariantHolder::adopt(v);
}

inline KibVariantHolder i4(std::int32_t value) {
    VARIANT v{};
    VariantInit(&v);
    v.vt = VT_I4;
    v.lVal = value;
    return KibVariantHolder::adopt(v);
}

inline KibVariantHolder r8(VARTYPE vt, double value) {
    VARIANT v{};
    VariantInit(&v);
    v.vt = vt;
    v.dblVal = value;
    return KibVariantHolder::adopt(v);
}

inline KibVariantHolder str(const std::string& text) {
    VARIANT v{};
    VariantInit(&v);
    v.vt = VT_BSTR;
    v.bstrVal = SysAllocStringLen(text.data(), static_cast<unsigned int>(text.size()));
    return KibVariantHolder::adopt(v);
}

inline KibVariantHolder nullStr() {
    VARIANT v{};
    VariantInit(&v);
    v.vt = VT_BSTR;
    v.bstrVal = nullptr;
    return KibVariantHolder::adopt(v);
}

// A typed array whose elements are the raw bytes of `elements` (each `size` bytes).
template <typename T>
KibVariantHolder typed(VARTYPE elementVt, const std::vector<T>& elements, std::int32_t lbound = 0) {
    SAFEARRAY* a =
        SafeArrayCreateVector(elementVt, lbound, static_cast<std::uint32_t>(elements.size()));
    if (!elements.empty()) std::memcpy(a->pvData, elements.data(), elements.size() * sizeof(T));
    VARIANT v{};
    VariantInit(&v);
    v.vt = static_cast<VARTYPE>(VT_ARRAY | elementVt);
    v.parray = a;
    return KibVariantHolder::adopt(v);
}

inline KibVariantHolder strings(const std::vector<const char*>& texts) {
    SAFEARRAY* a = SafeArrayCreateVector(VT_BSTR, 0, static_cast<std::uint32_t>(texts.size()));
    for (std::size_t i = 0; i < texts.size(); ++i) {
        static_cast<BSTR*>(a->pvData)[i] = texts[i] != nullptr ? SysAllocString(texts[i]) : nullptr;
    }
    VARIANT v{};
    VariantInit(&v);
    v.vt = VT_ARRAY | VT_BSTR;
    v.parray = a;
    return KibVariantHolder::adopt(v);
}

// An array of VARIANTs taking the given values.
template <typename... Holders>
KibVariantHolder variants(Holders... elements) {
    SAFEARRAY* a = SafeArrayCreateVector(VT_VARIANT, 0, sizeof...(elements));
    std::size_t i = 0;
    ((static_cast<VARIANT*>(a->pvData)[i++] = elements.release()), ...);
    VARIANT v{};
    VariantInit(&v);
    v.vt = VT_ARRAY | VT_VARIANT;
    v.parray = a;
    return KibVariantHolder::adopt(v);
}

// Deep comparison: types, bounds, bytes of scalars, string bytes and null-ness.
testing::AssertionResult sameValue(const VARIANT& a, const VARIANT& b);

}  // namespace testvalues
