// SPDX-License-Identifier: MIT
// Element readers: raw GetElement overloads and the typed getters.
#include <cstdint>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "VUtil.h"
#include "ValueTestSupport.h"

using namespace testvalue;

// The message of reading element 0 of `v` into a T.
template <typename T>
std::string readMessage(const tagVARIANT& v) {
    return thrownMessage([&] {
        T out{};
        VUtil::GetElement(v, 0, out);
    });
}

TEST(VUtilGetElement, EachOverloadNamesItsArrayType) {
    // An array of bytes matches none of the overloads.
    const KibVariantHolder bytes = typed<std::uint8_t>(VT_UI1, {1});
    const tagVARIANT& v = bytes.get();
    const std::string prefix = "Variant passed to VUtil::GetElement is not ";
    EXPECT_EQ(readMessage<tagVARIANT>(v), prefix + "a variant array");
    EXPECT_EQ(readMessage<CStdStr>(v), prefix + "a string array");
    EXPECT_EQ(readMessage<long>(v), prefix + "a long array");
    EXPECT_EQ(readMessage<int>(v), prefix + "an int array");
    EXPECT_EQ(readMessage<short>(v), prefix + "a short array");
    EXPECT_EQ(readMessage<unsigned short>(v), prefix + "a unsigned short array");
    EXPECT_EQ(readMessage<unsigned long>(v), prefix + "a unsigned long array");
    EXPECT_EQ(readMessage<long long>(v), prefix + "a int64 array");
    EXPECT_EQ(readMessage<unsigned long long>(v), prefix + "a unsigned int64 array");
    EXPECT_EQ(readMessage<float>(v), prefix + "a float array");
    EXPECT_EQ(readMessage<double>(v), prefix + "a double array");
    EXPECT_EQ(readMessage<bool>(v), prefix + "a short array");
}

TEST(VUtilGetElement, ReadsThirtyTwoBitElementsIntoLongs) {
    const KibVariantHolder signedValues = typed<std::int32_t>(VT_I4, {-2, INT32_MAX});
    const KibVariantHolder unsignedValues = typed<std::uint32_t>(VT_UI4, {UINT32_MAX, 5});
    long l = 0;
    VUtil::GetElement(signedValues.get(), 0, l);
    EXPECT_EQ(l, -2);
    VUtil::GetElement(signedValues.get(), 1, l);
    EXPECT_EQ(l, INT32_MAX);
    unsigned long ul = 0;
    VUtil::GetElement(unsignedValues.get(), 0, ul);
    EXPECT_EQ(ul, 4294967295ul);
    VUtil::GetElement(unsignedValues.get(), 1, ul);
    EXPECT_EQ(ul, 5ul);

    bool b = false;
    VUtil::GetElement(typed<std::int16_t>(VT_BOOL, {0, -1}).get(), 1, b);
    EXPECT_TRUE(b);
    long long ll = 0;
    VUtil::GetElement(typed<std::int64_t>(VT_I8, {INT64_MIN}).get(), 0, ll);
    EXPECT_EQ(ll, INT64_MIN);
}

TEST(VUtilGetElement, BadIndexFailsTheRead) {
    const KibVariantHolder numbers = typed<std::int32_t>(VT_I4, {1, 2});
    for (int index : {-1, 2}) {
        int o = 0;
        EXPECT_EQ(thrownMessage([&] { VUtil::GetElement(numbers.get(), index, o); }),
                  "SafeArrayGetElement failed in VUtil::GetElement");
    }
    // A type code that does not match the array it carries is not read.
    const KibVariantHolder mismatched =
        make(VT_ARRAY | VT_I4, [](VARIANT& v) { v.parray = SafeArrayCreateVector(VT_I2, 0, 1); });
    EXPECT_EQ(readMessage<int>(mismatched.get()),
              "SafeArrayGetElement failed in VUtil::GetElement");
}

TEST(VUtilGetElement, CopiesVariantsAndStringsForTheCaller) {
    const KibVariantHolder list = variants(str("inner"), i4(4));
    VARIANT raw = str("replaced").release();  // released by GetElement before the copy
    VUtil::GetElement(list.get(), 0, raw);
    const KibVariantHolder out = KibVariantHolder::adopt(raw);
    EXPECT_EQ(out.vt(), VT_BSTR);
    EXPECT_STREQ(out.get().bstrVal, "inner");

    const char bytes[] = {'a', '\0', 'b'};
    KibVariantHolder withNul =
        make(VT_BSTR, [&](VARIANT& v) { v.bstrVal = SysAllocStringLen(bytes, 3); });
    const KibVariantHolder texts = variants(withNul);
    EXPECT_EQ(VUtil::GetStringElement(texts.get(), 0), std::string(bytes, 3));
    CStdStr text;
    VUtil::GetElement(strings({"x", nullptr}).get(), 1, text);
    EXPECT_EQ(text, "");
}

TEST(VUtilTypedGetters, ReportWrongElementsAndWrongArrays) {
    const KibVariantHolder list =
        variants(str("text"), make(VT_R8, [](VARIANT& v) { v.dblVal = 1; }));
    const KibVariantHolder other = typed<std::uint8_t>(VT_UI1, {1});
    const struct {
        std::function<void(const tagVARIANT&, int)> get;
        int wrongIndex;  // an element of `list` of the wrong type
        const char* wrongElement;
        const char* wrongArray;
    } cases[] = {
        {[](auto& v, int i) { VUtil::GetLongElement(v, i); }, 0, "Element is not a long",
         "Not an array of variant or long"},
        {[](auto& v, int i) { VUtil::GetLongElementEmpty(v, i); }, 0, "Element is not a long",
         "Not an array of variant or long"},
        {[](auto& v, int i) { VUtil::GetIntElement(v, i); }, 0, "Element is not an int",
         "Not an array of variant or int"},
        {[](auto& v, int i) { VUtil::GetShortElement(v, i); }, 0, "Element is not a short",
         "Not an array of variant or short"},
        {[](auto& v, int i) { VUtil::GetUnsignedShortElement(v, i); }, 0,
         "Element is not an unsigned short", "Not an array of variant or unsigned short"},
        {[](auto& v, int i) { VUtil::GetDoubleElement(v, i); }, 0, "Element is not a double",
         "Not an array of variant or double"},
        {[](auto& v, int i) { VUtil::GetFloatElement(v, i); }, 0,
         "Element is not a float or a double", "Not an array of variant, float or double"},
        {[](auto& v, int i) { VUtil::GetBoolElement(v, i); }, 0, "Element is not a bool",
         "Not an array of variant or bool"},
        {[](auto& v, int i) { VUtil::GetBoolElementEmpty(v, i); }, 0, "Element is not a bool",
         "Not an array of variant or bool"},
        {[](auto& v, int i) { VUtil::GetStringElement(v, i); }, 1, "Element is not a string",
         "Not an array of variant or string"},
        {[](auto& v, int i) { VUtil::GetStringElementEmpty(v, i); }, 1, "Element is not a string",
         "Not an array of variant or string"},
        {[](auto& v, int i) { VUtil::GetDateElement(v, i); }, 0, "Element is not a date",
         "Not an array of variant or date"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(thrownMessage([&] { c.get(list.get(), c.wrongIndex); }), c.wrongElement);
        EXPECT_EQ(thrownMessage([&] { c.get(other.get(), 0); }), c.wrongArray);
        EXPECT_EQ(thrownMessage([&] { c.get(list.get(), 2); }),
                  "SafeArrayGetElement failed in VUtil::GetElement");
    }
}

TEST(VUtilTypedGetters, ReadTypedArraysAndWrappedValues) {
    const KibVariantHolder wrapped =
        variants(i4(-7), make(VT_I2, [](VARIANT& v) { v.iVal = -3; }),
                 make(VT_UI2, [](VARIANT& v) { v.uiVal = 65535; }),
                 make(VT_R8, [](VARIANT& v) { v.dblVal = 0.1; }),
                 make(VT_R4, [](VARIANT& v) { v.fltVal = 2.5f; }), str("s"),
                 make(VT_DATE, [](VARIANT& v) { v.date = 25569.5; }), KibVariantHolder());
    const tagVARIANT& w = wrapped.get();
    EXPECT_EQ(VUtil::GetLongElement(w, 0), -7);
    EXPECT_EQ(VUtil::GetIntElement(w, 0), -7);
    EXPECT_EQ(VUtil::GetShortElement(w, 1), -3);
    EXPECT_EQ(VUtil::GetUnsignedShortElement(w, 2), 65535);
    EXPECT_EQ(VUtil::GetDoubleElement(w, 3), 0.1);
    EXPECT_EQ(VUtil::GetFloatElement(w, 3), 0.1f);
    EXPECT_EQ(VUtil::GetFloatElement(w, 4), 2.5f);
    EXPECT_EQ(VUtil::GetStringElement(w, 5), "s");
    EXPECT_EQ(VUtil::GetDateElement(w, 6), 43200);
    EXPECT_EQ(VUtil::GetStringElement(w, 7), "");
    EXPECT_EQ(VUtil::GetStringElementEmpty(w, 7), "");
    EXPECT_EQ(VUtil::GetLongElementEmpty(w, 7), 0);
    EXPECT_EQ(thrownMessage([&] { VUtil::GetLongElement(w, 7); }), "Element is not a long");

    EXPECT_EQ(VUtil::GetLongElement(typed<std::int32_t>(VT_I4, {9, -9}).get(), 1), -9);
    EXPECT_EQ(VUtil::GetLongElementEmpty(typed<std::int32_t>(VT_I4, {9}).get(), 0), 9);
    EXPECT_EQ(VUtil::GetIntElement(typed<std::int32_t>(VT_I4, {9}).get(), 0), 9);
    EXPECT_EQ(VUtil::GetShortElement(typed<std::int16_t>(VT_I2, {-1}).get(), 0), -1);
    EXPECT_EQ(VUtil::GetUnsignedShortElement(typed<std::uint16_t>(VT_UI2, {7}).get(), 0), 7);
    EXPECT_EQ(VUtil::GetDoubleElement(typed<double>(VT_R8, {1.5}).get(), 0), 1.5);
    EXPECT_EQ(VUtil::GetFloatElement(typed<float>(VT_R4, {1.25f}).get(), 0), 1.25f);
    EXPECT_EQ(VUtil::GetFloatElement(typed<double>(VT_R8, {0.1}).get(), 0), 0.1f);
    EXPECT_EQ(VUtil::GetStringElement(strings({"a", "b"}).get(), 1), "b");
    EXPECT_EQ(VUtil::GetDateElement(typed<double>(VT_DATE, {25570.0}).get(), 0), 86400);
    EXPECT_EQ(thrownMessage([] { VUtil::GetDateElement(typed<double>(VT_DATE, {1}).get(), 1); }),
              "SafeArrayGetElement failed in VUtil::GetDateElement");
}

TEST(VUtilTypedGetters, BooleansOnlyFromArraysOfVariants) {
    auto boolean = [](short raw) { return make(VT_BOOL, [raw](VARIANT& v) { v.boolVal = raw; }); };
    const KibVariantHolder list =
        variants(boolean(-1), boolean(0), make(VT_UI4, [](VARIANT& v) { v.ulVal = 2; }),
                 scalar(VT_NULL), KibVariantHolder(), make(VT_I2, [](VARIANT& v) { v.iVal = 3; }),
                 make(VT_UI2, [](VARIANT& v) { v.uiVal = 0; }), i4(0), str("true"));
    const tagVARIANT& l = list.get();
    EXPECT_TRUE(VUtil::GetBoolElement(l, 0));
    EXPECT_FALSE(VUtil::GetBoolElement(l, 1));
    EXPECT_EQ(thrownMessage([&] { VUtil::GetBoolElement(l, 2); }), "Element is not a bool");

    const bool expectedEmpty[] = {true, false, true, false, false, true, false, false};
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(VUtil::GetBoolElementEmpty(l, i), expectedEmpty[i]) << i;
    }
    EXPECT_EQ(thrownMessage([&] { VUtil::GetBoolElementEmpty(l, 8); }), "Element is not a bool");

    // A typed boolean array goes through the short reader and is refused.
    const KibVariantHolder typedBools = typed<std::int16_t>(VT_BOOL, {-1});
    EXPECT_EQ(thrownMessage([&] { VUtil::GetBoolElement(typedBools.get(), 0); }),
              "Variant passed to VUtil::GetElement is not a short array");
    EXPECT_EQ(thrownMessage([&] { VUtil::GetBoolElementEmpty(typedBools.get(), 0); }),
              "Variant passed to VUtil::GetElement is not a short array");
}
