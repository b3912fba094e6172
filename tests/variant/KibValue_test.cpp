// SPDX-License-Identifier: MIT
// The value primitives, where the VUtil tests and the codec round trips do not reach:
// embedded NULs, bad indices, refused huge sizes, resizing and deep copies (leaks of
// released elements show up in the sanitizer build).
#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "KibVariant.h"
#include "ValueTestSupport.h"

using namespace testvalue;

namespace {

std::string bstrText(BSTR text) { return std::string(text, SysStringLen(text)); }

}  // namespace

TEST(KibValue, BstrKeepsEmbeddedNulAndTerminates) {
    const char bytes[] = {'a', '\0', 'b'};
    BSTR text = SysAllocStringLen(bytes, 3);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(SysStringLen(text), 3u);
    EXPECT_EQ(std::memcmp(text, bytes, 3), 0);
    EXPECT_EQ(text[3], '\0');
    SysFreeString(text);
}

TEST(KibValue, BadIndicesAndHugeSizesAreRefused) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_I2, 1, 3);
    ASSERT_NE(array, nullptr);
    short value = 9;
    for (std::int32_t bad : {0, 4, INT32_MIN, INT32_MAX}) {
        EXPECT_EQ(SafeArrayGetElement(array, &bad, &value), DISP_E_BADINDEX) << bad;
        EXPECT_EQ(SafeArrayPutElement(array, &bad, &value), DISP_E_BADINDEX) << bad;
    }
    std::int32_t lb = 0;
    EXPECT_EQ(SafeArrayGetLBound(array, 2, &lb), DISP_E_BADINDEX);
    SAFEARRAYBOUND huge{UINT32_MAX, 0};
    EXPECT_EQ(SafeArrayRedim(array, &huge), E_OUTOFMEMORY);
    std::int32_t ub = 0;
    EXPECT_EQ(SafeArrayGetUBound(array, 1, &ub), S_OK);
    EXPECT_EQ(ub, 3);  // the failed resize left the array alone
    SafeArrayDestroy(array);

    EXPECT_EQ(SafeArrayCreateVector(VT_VARIANT, 0, UINT32_MAX), nullptr);
    EXPECT_EQ(SafeArrayCreateVector(VT_UI1, INT32_MAX, 2), nullptr);  // upper bound overflows
}

TEST(KibValue, RedimKeepsElementsAndReleasesRemovedOnes) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_BSTR, 0, 3);
    ASSERT_NE(array, nullptr);
    for (std::int32_t i = 0; i < 3; ++i) {
        BSTR text = SysAllocString(std::to_string(i).c_str());
        ASSERT_EQ(SafeArrayPutElement(array, &i, text), S_OK);
        SysFreeString(text);  // the array keeps its own copy
    }
    SAFEARRAYBOUND smaller{1, 0};
    ASSERT_EQ(SafeArrayRedim(array, &smaller), S_OK);  // elements 1 and 2 released
    SAFEARRAYBOUND larger{4, 0};
    ASSERT_EQ(SafeArrayRedim(array, &larger), S_OK);
    for (std::int32_t i = 0; i < 4; ++i) {
        BSTR read = nullptr;
        ASSERT_EQ(SafeArrayGetElement(array, &i, &read), S_OK);
        EXPECT_EQ(read ? bstrText(read) : "(null)", i == 0 ? "0" : "(null)") << i;
        SysFreeString(read);
    }
    EXPECT_EQ(SafeArrayDestroy(array), S_OK);
}

TEST(KibValue, CopyIsDeepAndIndependent) {
    VARIANT original = variants(i4(7), str("x"), strings({"inner"})).release();
    VARIANT copy;
    VariantInit(&copy);
    ASSERT_EQ(VariantCopy(&copy, &original), S_OK);
    ASSERT_EQ(copy.vt, VT_ARRAY | VT_VARIANT);
    ASSERT_NE(copy.parray, original.parray);

    // Change the original's string element, then free it; the copy keeps its own values.
    VARIANT replaced = str("changed").release();
    std::int32_t i = 1;
    ASSERT_EQ(SafeArrayPutElement(original.parray, &i, &replaced), S_OK);
    VariantClear(&replaced);
    VariantClear(&original);

    VARIANT element;
    ASSERT_EQ(SafeArrayGetElement(copy.parray, &i, &element), S_OK);
    ASSERT_EQ(element.vt, VT_BSTR);
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
}
