// SPDX-License-Identifier: MIT
// Small vocabulary for the variant tests: build scalar values, typed arrays, arrays of
// VARIANTs and pairs straight from the primitives (so that readers are not tested
// through the writers), and capture the message of a thrown exception.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "KibException.h"
#include "KibVariantHolder.h"

namespace testvalue {

inline KibVariantHolder scalar(VARTYPE vt) {
    KibVariantHolder holder;
    holder.out()->vt = vt;
    return holder;
}

// Any plain scalar: `set` fills the value union.
template <typename Set>
KibVariantHolder make(VARTYPE vt, Set set) {
    VARIANT raw;
    VariantInit(&raw);
    raw.vt = vt;
    set(raw);
    return KibVariantHolder::adopt(raw);
}

inline KibVariantHolder i4(std::int32_t value) {
    return make(VT_I4, [value](VARIANT& v) { v.lVal = value; });
}

inline KibVariantHolder str(const char* text) {
    return make(VT_BSTR, [text](VARIANT& v) { v.bstrVal = SysAllocString(text); });
}

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
    if (!values.empty()) {
        std::memcpy(data, values.data(), values.size() * sizeof(T));
    }
    SafeArrayUnaccessData(raw.parray);
    return KibVariantHolder::adopt(raw);
}

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

inline KibVariantHolder pair(const char* name, const char* value) {
    return variants(str(name), str(value));
}

// The message of the KibInvalidParameterException that `f` throws (checking its
// code), or "<no exception>".
template <typename F>
std::string thrownMessage(F&& f) {
    try {
        std::forward<F>(f)();
    } catch (const KibInvalidParameterException& e) {
        EXPECT_EQ(e.code(), 1);
        return e.message();
    }
    return "<no exception>";
}

}  // namespace testvalue
