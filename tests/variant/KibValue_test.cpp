// SPDX-License-Identifier: MIT
// The value primitives: BSTR lengths, array bounds and element access, deep copies,
// resizing and the release of nested values (leaks show up in the sanitizer build).
#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "KibVariant.h"
#include "ValueTestSupport.h"

using namespace testvalue;

namespace {

// A VARIANT holding a string; the caller clears it.
VARIANT stringValue(const char* text) { return str(text).release(); }

// A VARIANT holding an array of VARIANTs: [I4 7, "x", ["inner"]]; the caller clears it.
// Clearing it releases the nested values (leaks show up in the sanitizer build).
VARIANT nestedValue() { return variants(i4(7), str("x"), strings({"inner"})).release(); }

std::string bstrText(BSTR text) { return std::string(text, SysStringLen(text)); }

}  // namespace

TEST(KibBstr, KeepsEmbeddedNulAndTerminates) {
    const char bytes[] = {'a', '\0', 'b'};
    BSTR text = SysAllocStringLen(bytes, 3);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(SysStringLen(text), 3u);
    EXPECT_EQ(std::memcmp(text, bytes, 3), 0);
    EXPECT_EQ(text[3], '\0');
    SysFreeString(text);

    EXPECT_EQ(SysAllocString(nullptr), nullptr);
    EXPECT_EQ(SysStringLen(nullptr), 0u);
    SysFreeString(nullptr);
    BSTR empty = SysAllocString("");
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(SysStringLen(empty), 0u);
    SysFreeString(empty);
}

TEST(KibSafeArray, CreateRejectsBadShapesTypesAndSizes) {
    SAFEARRAYBOUND bound{4, 0};
    EXPECT_EQ(SafeArrayCreate(VT_I4, 2, &bound), nullptr);
    EXPECT_EQ(SafeArrayCreate(VT_I4, 1, nullptr), nullptr);
    const VARTYPE unsupported[] = {VT_EMPTY, VT_NULL, 6, 13, 22, VT_ARRAY | VT_I4};
    for (VARTYPE vt : unsupported) {
        EXPECT_EQ(SafeArrayCreateVector(vt, 0, 1), nullptr) << vt;
    }
    // Huge counts fail without crashing.
    EXPECT_EQ(SafeArrayCreateVector(VT_VARIANT, 0, UINT32_MAX), nullptr);
    EXPECT_EQ(SafeArrayCreateVector(VT_UI1, INT32_MAX, 2), nullptr);  // upper bound overflows
    SAFEARRAY* array = SafeArrayCreateVector(VT_I8, 0, 2);
    ASSERT_NE(array, nullptr);
    SAFEARRAYBOUND huge{UINT32_MAX, 0};
    EXPECT_EQ(SafeArrayRedim(array, &huge), E_OUTOFMEMORY);
    std::int32_t ub = 0;
    EXPECT_EQ(SafeArrayGetUBound(array, 1, &ub), S_OK);
    EXPECT_EQ(ub, 1);
    SafeArrayDestroy(array);
}

TEST(KibSafeArray, ElementSizesMatchTheAutomationLayout) {
    const struct {
        VARTYPE vt;
        std::uint32_t size;
    } cases[] = {{VT_I1, 1}, {VT_UI1, 1},  {VT_I2, 2},   {VT_UI2, 2},     {VT_BOOL, 2},
                 {VT_I4, 4}, {VT_UI4, 4},  {VT_R4, 4},   {VT_I8, 8},      {VT_UI8, 8},
                 {VT_R8, 8}, {VT_DATE, 8}, {VT_BSTR, 8}, {VT_VARIANT, 16}};
    for (const auto& c : cases) {
        SAFEARRAY* array = SafeArrayCreateVector(c.vt, 0, 3);
        ASSERT_NE(array, nullptr) << c.vt;
        EXPECT_EQ(array->cbElements, c.size) << c.vt;
        VARTYPE vt = 0;
        EXPECT_EQ(SafeArrayGetVartype(array, &vt), S_OK);
        EXPECT_EQ(vt, c.vt);
        SafeArrayDestroy(array);
    }
    EXPECT_EQ(sizeof(VARIANT), 16u);
}

TEST(KibSafeArray, BoundsAndBadIndices) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_I2, 1, 3);
    ASSERT_NE(array, nullptr);
    std::int32_t lb = 0, ub = 0;
    EXPECT_EQ(SafeArrayGetLBound(array, 1, &lb), S_OK);
    EXPECT_EQ(SafeArrayGetUBound(array, 1, &ub), S_OK);
    EXPECT_EQ(lb, 1);
    EXPECT_EQ(ub, 3);
    EXPECT_EQ(SafeArrayGetLBound(array, 2, &lb), DISP_E_BADINDEX);
    EXPECT_EQ(SafeArrayGetUBound(nullptr, 1, &ub), E_INVALIDARG);

    short value = 9;
    for (std::int32_t bad : {0, 4, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(SafeArrayGetElement(array, &bad, &value), DISP_E_BADINDEX) << bad;
        EXPECT_EQ(SafeArrayPutElement(array, &bad, &value), DISP_E_BADINDEX) << bad;
    }
    std::int32_t good = 3;
    EXPECT_EQ(SafeArrayGetElement(array, nullptr, &value), E_INVALIDARG);
    EXPECT_EQ(SafeArrayGetElement(array, &good, nullptr), E_INVALIDARG);
    EXPECT_EQ(SafeArrayGetElement(nullptr, &good, &value), E_INVALIDARG);
    EXPECT_EQ(SafeArrayGetElement(array, &good, &value), S_OK);
    EXPECT_EQ(value, 0);  // elements start zeroed
    SafeArrayDestroy(array);

    SAFEARRAY* empty = SafeArrayCreateVector(VT_VARIANT, 0, 0);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(SafeArrayGetUBound(empty, 1, &ub), S_OK);
    EXPECT_EQ(ub, -1);
    SafeArrayDestroy(empty);
}

TEST(KibSafeArray, StringElementsAreDuplicatedBothWays) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, 0, 2);
    ASSERT_NE(array, nullptr);
    const char bytes[] = {'x', '\0', 'y'};
    BSTR text = SysAllocStringLen(bytes, 3);
    std::int32_t i = 0;
    ASSERT_EQ(SafeArrayPutElement(array, &i, text), S_OK);
    SysFreeString(text);  // the array keeps its own copy

    BSTR read = nullptr;
    ASSERT_EQ(SafeArrayGetElement(array, &i, &read), S_OK);
    EXPECT_EQ(bstrText(read), std::string(bytes, 3));
    SysFreeString(read);

    // Overwriting releases the old string; a null element reads back as null.
    ASSERT_EQ(SafeArrayPutElement(array, &i, nullptr), S_OK);
    read = SysAllocString("stale");
    BSTR stale = read;
    ASSERT_EQ(SafeArrayGetElement(array, &i, &read), S_OK);
    EXPECT_EQ(read, nullptr);
    SysFreeString(stale);
    EXPECT_EQ(SafeArrayDestroy(array), S_OK);
}

TEST(KibSafeArray, RedimKeepsElementsAndReleasesRemovedOnes) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, 0, 3);
    ASSERT_NE(array, nullptr);
    for (std::int32_t i = 0; i < 3; ++i) {
        BSTR text = SysAllocString(std::to_string(i).c_str());
        ASSERT_EQ(SafeArrayPutElement(array, &i, text), S_OK);
        SysFreeString(text);
    }
    SAFEARRAYBOUND smaller{1, 0};
    ASSERT_EQ(SafeArrayRedim(array, &smaller), S_OK);  // elements 1 and 2 released
    SAFEARRAYBOUND larger{4, 0};
    ASSERT_EQ(SafeArrayRedim(array, &larger), S_OK);
    std::int32_t ub = 0;
    EXPECT_EQ(SafeArrayGetUBound(array, 1, &ub), S_OK);
    EXPECT_EQ(ub, 3);
    for (std::int32_t i = 0; i < 4; ++i) {
        BSTR read = nullptr;
        ASSERT_EQ(SafeArrayGetElement(array, &i, &read), S_OK);
        if (i == 0) {
            EXPECT_EQ(bstrText(read), "0");
        } else {
            EXPECT_EQ(read, nullptr) << i;  // added elements start null
        }
        SysFreeString(read);
    }
    SAFEARRAYBOUND none{0, 0};
    ASSERT_EQ(SafeArrayRedim(array, &none), S_OK);
    EXPECT_EQ(SafeArrayGetUBound(array, 1, &ub), S_OK);
    EXPECT_EQ(ub, -1);
    EXPECT_EQ(SafeArrayDestroy(array), S_OK);
}

TEST(KibSafeArray, LockedArrayCannotBeDestroyedOrResized) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_UI1, 0, 4);
    ASSERT_NE(array, nullptr);
    void* data = nullptr;
    ASSERT_EQ(SafeArrayAccessData(array, &data), S_OK);
    ASSERT_EQ(SafeArrayAccessData(array, &data), S_OK);
    SAFEARRAYBOUND bound{8, 0};
    EXPECT_EQ(SafeArrayRedim(array, &bound), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(SafeArrayDestroy(array), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(SafeArrayUnaccessData(array), S_OK);
    EXPECT_EQ(SafeArrayDestroy(array), DISP_E_ARRAYISLOCKED);
    EXPECT_EQ(SafeArrayUnaccessData(array), S_OK);
    EXPECT_EQ(SafeArrayUnaccessData(array), E_UNEXPECTED);
    EXPECT_EQ(SafeArrayDestroy(array), S_OK);
}

TEST(KibVariant, CopyIsDeepAndIndependent) {
    VARIANT original = nestedValue();
    VARIANT copy;
    VariantInit(&copy);
    ASSERT_EQ(VariantCopy(&copy, &original), S_OK);
    ASSERT_EQ(copy.vt, VT_ARRAY | VT_VARIANT);
    ASSERT_NE(copy.parray, original.parray);

    // Change the original's string element; the copy keeps its own.
    VARIANT replaced = stringValue("changed");
    std::int32_t i = 1;
    ASSERT_EQ(SafeArrayPutElement(original.parray, &i, &replaced), S_OK);
    VariantClear(&replaced);
    VariantClear(&original);  // frees everything the original owned

    VARIANT element;
    ASSERT_EQ(SafeArrayGetElement(copy.parray, &i, &element), S_OK);
    EXPECT_EQ(element.vt, VT_BSTR);
    EXPECT_EQ(bstrText(element.bstrVal), "x");
    VariantClear(&element);

    i = 2;
    ASSERT_EQ(SafeArrayGetElement(copy.parray, &i, &element), S_OK);
    ASSERT_EQ(element.vt, VT_ARRAY | VT_BSTR);
    std::int32_t zero = 0;
    BSTR inner = nullptr;
    ASSERT_EQ(SafeArrayGetElement(element.parray, &zero, &inner), S_OK);
    EXPECT_EQ(bstrText(inner), "inner");
    SysFreeString(inner);
    VariantClear(&element);

    EXPECT_EQ(VariantClear(&copy), S_OK);
    EXPECT_EQ(copy.vt, VT_EMPTY);
}

TEST(KibVariant, CopyOfScalarsAndUnknownTypes) {
    VARIANT src;
    VariantInit(&src);
    src.vt = VT_UI8;
    src.ullVal = 0xfedcba9876543210ull;
    VARIANT dest = stringValue("released by the copy");
    ASSERT_EQ(VariantCopy(&dest, &src), S_OK);
    EXPECT_EQ(dest.vt, VT_UI8);
    EXPECT_EQ(dest.ullVal, src.ullVal);
    EXPECT_EQ(VariantCopy(&dest, &dest), S_OK);

    src.vt = 6;  // no such type in this value model
    EXPECT_EQ(VariantCopy(&dest, &src), DISP_E_BADVARTYPE);
    EXPECT_EQ(dest.vt, VT_EMPTY);

    VARIANT nullString;
    VariantInit(&nullString);
    nullString.vt = VT_BSTR;
    ASSERT_EQ(VariantCopy(&dest, &nullString), S_OK);
    EXPECT_EQ(dest.vt, VT_BSTR);
    EXPECT_EQ(dest.bstrVal, nullptr);
    EXPECT_EQ(VariantClear(nullptr), E_INVALIDARG);
}

TEST(KibSafeArray, CopyDuplicatesPlainAndNestedArrays) {
    SAFEARRAY* plain = SafeArrayCreateVector(VT_R8, 5, 2);
    ASSERT_NE(plain, nullptr);
    double value = 2.5;
    std::int32_t i = 6;
    ASSERT_EQ(SafeArrayPutElement(plain, &i, &value), S_OK);
    SAFEARRAY* copy = nullptr;
    ASSERT_EQ(SafeArrayCopy(plain, &copy), S_OK);
    ASSERT_NE(copy, nullptr);
    value = 0;
    ASSERT_EQ(SafeArrayGetElement(copy, &i, &value), S_OK);
    EXPECT_EQ(value, 2.5);
    std::int32_t lb = 0;
    EXPECT_EQ(SafeArrayGetLBound(copy, 1, &lb), S_OK);
    EXPECT_EQ(lb, 5);
    SafeArrayDestroy(copy);
    SafeArrayDestroy(plain);

    ASSERT_EQ(SafeArrayCopy(nullptr, &copy), S_OK);
    EXPECT_EQ(copy, nullptr);
}
