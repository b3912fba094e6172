// SPDX-License-Identifier: MIT
// Array creation, element writers, pairs and binary blocks.
#include <cstdint>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "VUtil.h"
#include "ValueTestSupport.h"

using namespace testvalue;

namespace {

// A new zero-based array of `count` elements of `vt`.
KibVariantHolder created(VARTYPE vt, unsigned long count) {
    KibVariantHolder holder;
    VUtil::CreateArray(*holder.out(), vt, count);
    return holder;
}

// Raw element `index` of a typed array.
template <typename T>
T rawElement(const KibVariantHolder& array, std::int32_t index) {
    T value{};
    EXPECT_EQ(SafeArrayGetElement(array.get().parray, &index, &value), S_OK);
    return value;
}

}  // namespace

TEST(VUtilArrays, CreateAndRedim) {
    KibVariantHolder list = created(VT_VARIANT, 0);
    EXPECT_EQ(list.vt(), VT_ARRAY | VT_VARIANT);
    EXPECT_EQ(VUtil::GetArrayLength(list.get()), 0);

    VARIANT target = list.release();
    VUtil::RedimArray(target, 3);
    list = KibVariantHolder::adopt(target);
    EXPECT_EQ(VUtil::GetArrayLength(list.get()), 3);

    KibVariantHolder untouched;
    EXPECT_EQ(thrownMessage([&] { VUtil::CreateArray(*untouched.out(), VT_EMPTY, 1); }),
              "Could not create safe array");
    EXPECT_EQ(untouched.vt(), VT_EMPTY);
    EXPECT_EQ(thrownMessage([&] { VUtil::RedimArray(*untouched.out(), 2); }),
              "Could not redimension safe array");
}

TEST(VUtilPutElement, StoresIntoTypedArrays) {
    KibVariantHolder i2 = created(VT_I2, 1);
    KibVariantHolder i4 = created(VT_I4, 3);
    KibVariantHolder texts = created(VT_BSTR, 2);
    VARIANT& v2 = i2.edit();
    VARIANT& v4 = i4.edit();
    VARIANT& vs = texts.edit();
    VUtil::PutElement(v2, 0, short{-5});
    VUtil::PutElement(v4, 0, 17);
    VUtil::PutElement(v4, 1, -3L);
    VUtil::PutElement(v4, 2, 0x1'0000'0002L);  // narrowed to the 32-bit element
    VUtil::PutElement(vs, 0, CStdStr(std::string("a\0b", 3)));
    VUtil::PutElement(vs, 1, "c");
    EXPECT_EQ(rawElement<std::int16_t>(i2, 0), -5);
    EXPECT_EQ(rawElement<std::int32_t>(i4, 0), 17);
    EXPECT_EQ(rawElement<std::int32_t>(i4, 1), -3);
    EXPECT_EQ(rawElement<std::int32_t>(i4, 2), 2);
    EXPECT_EQ(VUtil::GetStringElement(texts.get(), 0), std::string("a\0b", 3));
    EXPECT_EQ(VUtil::GetStringElement(texts.get(), 1), "c");
    EXPECT_EQ(thrownMessage([&] { VUtil::PutElement(v4, 3, 1); }), "SafeArrayPutElement failed");
    EXPECT_EQ(thrownMessage([&] { VUtil::PutElement(vs, 2, "x"); }), "SafeArrayPutElement failed");

    KibVariantHolder dates = created(VT_DATE, 1);
    VUtil::PutDateElement(dates.edit(), 0, 0);
    EXPECT_EQ(rawElement<double>(dates, 0), 25569.0);

    // The one-byte bool reaches a typed boolean array unconverted: true is 1.
    KibVariantHolder bools = created(VT_BOOL, 2);
    VUtil::PutBoolElement(bools.edit(), 0, true);
    VUtil::PutBoolElement(bools.edit(), 1, false);
    EXPECT_EQ(rawElement<std::int16_t>(bools, 0), 1);
    EXPECT_EQ(rawElement<std::int16_t>(bools, 1), 0);
}

TEST(VUtilPutElement, WrapsValuesForArraysOfVariants) {
    KibVariantHolder list = created(VT_VARIANT, 13);
    VARIANT& l = list.edit();
    VUtil::PutElement(l, 0, short{-2});
    VUtil::PutElement(l, 1, 3);
    VUtil::PutElement(l, 2, 4L);
    VUtil::PutElement(l, 3, static_cast<unsigned short>(5));
    VUtil::PutElement(l, 4, static_cast<unsigned char>(6));
    VUtil::PutElement(l, 5, 7LL);
    VUtil::PutElement(l, 6, 8ULL);
    VUtil::PutElement(l, 7, 9.5f);
    VUtil::PutElement(l, 8, 10.5);
    VUtil::PutElement(l, 9, CStdStr("eleven"));
    VUtil::PutElement(l, 10, "twelve");
    VUtil::PutBoolElement(l, 11, true);
    VUtil::PutDateElement(l, 12, 86400);

    const VARTYPE types[] = {VT_I2, VT_I4, VT_I4,   VT_UI2,  VT_UI1,  VT_I8,  VT_UI8,
                             VT_R4, VT_R8, VT_BSTR, VT_BSTR, VT_BOOL, VT_DATE};
    for (int i = 0; i < 13; ++i) {
        KibVariantHolder element;
        VUtil::GetElement(l, i, *element.out());
        EXPECT_EQ(element.vt(), types[i]) << i;
    }
    EXPECT_EQ(VUtil::GetDoubleElement(l, 8), 10.5);
    EXPECT_EQ(VUtil::GetDateElement(l, 12), 86400);
    KibVariantHolder flag;
    VUtil::GetElement(l, 11, *flag.out());
    EXPECT_EQ(flag.get().boolVal, VARIANT_TRUE);
}

TEST(VUtilPutElement, RefusesOtherArrays) {
    KibVariantHolder bytes = created(VT_I1, 1);
    VARIANT& b = bytes.edit();
    auto refused = [&](auto value) {
        return thrownMessage([&] { VUtil::PutElement(b, 0, value); });
    };
    const std::string prefix = "PutElement failed: not an array of ";
    EXPECT_EQ(refused(short{1}), prefix + "I2 nor VARIANT");
    EXPECT_EQ(refused(1), prefix + "I4 nor VARIANT");
    EXPECT_EQ(refused(static_cast<unsigned short>(1)), prefix + "UI2 nor VARIANT");
    EXPECT_EQ(refused(static_cast<unsigned char>(1)), prefix + "UI1 nor VARIANT");
    EXPECT_EQ(refused(1LL), prefix + "I8 nor VARIANT");
    EXPECT_EQ(refused(1ULL), prefix + "UI8 nor VARIANT");
    EXPECT_EQ(refused(1.0f), prefix + "R4 nor VARIANT");
    EXPECT_EQ(refused(1.0), prefix + "R8 nor VARIANT");
    EXPECT_EQ(refused(CStdStr("x")), prefix + "BSTR nor VARIANT");
    EXPECT_EQ(thrownMessage([&] { VUtil::PutBoolElement(b, 0, true); }),
              prefix + "BOOL nor VARIANT");
    EXPECT_EQ(thrownMessage([&] { VUtil::PutDateElement(b, 0, 0); }), prefix + "DATE nor VARIANT");
    EXPECT_EQ(thrownMessage([&] { VUtil::PutElement(b, 1, static_cast<void*>(nullptr)); }),
              "SafeArrayPutElement failed");
    EXPECT_EQ(refused(i4(1).get()), "SafeArrayPutElement failed");
}

TEST(VUtilPutElement, UntypedWritersCopy) {
    KibVariantHolder list = created(VT_VARIANT, 1);
    KibVariantHolder value = str("kept");
    VUtil::PutElement(list.edit(), 0, value.get());
    value.reset();
    EXPECT_EQ(VUtil::GetStringElement(list.get(), 0), "kept");

    KibVariantHolder numbers = created(VT_UI4, 1);
    std::uint32_t raw = 0xdeadbeef;
    VUtil::PutElement(numbers.edit(), 0, static_cast<void*>(&raw));
    unsigned long read = 0;
    VUtil::GetElement(numbers.get(), 0, read);
    EXPECT_EQ(read, 0xdeadbeeful);
}

TEST(VUtilPutPair, BuildsTwoElementPairs) {
    KibVariantHolder list = created(VT_VARIANT, 2);
    VARIANT& l = list.edit();
    VUtil::PutPair(l, 0, CStdStr("name"), CStdStr("value"));
    VUtil::PutPair(l, 1, CStdStr("port"), 8080L);

    KibVariantHolder pair;
    VUtil::GetElement(l, 1, *pair.out());
    EXPECT_EQ(VUtil::GetArrayLength(pair.get()), 2);
    EXPECT_EQ(VUtil::GetStringElement(pair.get(), 0), "port");
    EXPECT_EQ(VUtil::GetLongElement(pair.get(), 1), 8080);
    CStdStr name, value;
    VUtil::GetPair(l, 0, name, value);
    EXPECT_EQ(name + "=" + value, "name=value");

    KibVariantHolder target = i4(5);
    VARIANT scalar = target.release();
    EXPECT_EQ(thrownMessage([&] { VUtil::PutPair(scalar, 0, CStdStr("a"), CStdStr("b")); }),
              "PutPair: the given variant is not an array of variants");
    EXPECT_EQ(scalar.vt, VT_I4);
    EXPECT_EQ(scalar.lVal, 5);
    EXPECT_EQ(thrownMessage([&] { VUtil::PutPair(l, 2, CStdStr("a"), 1L); }), "PutPair failed");
}

TEST(VUtilBinary, PutsAndReadsByteBlocks) {
    unsigned char bytes[10];
    for (int i = 0; i < 10; ++i) {
        bytes[i] = static_cast<unsigned char>(i * 3);
    }
    KibVariantHolder block = str("replaced");
    VARIANT raw = block.release();
    VUtil::PutBinaryIntoVariant(&raw, bytes, 10);
    block = KibVariantHolder::adopt(raw);
    EXPECT_EQ(block.vt(), VT_ARRAY | VT_UI1);

    unsigned char dest[100] = {};
    EXPECT_EQ(VUtil::GetBinaryElement(block.get(), dest, 8, 100), 2ul);
    EXPECT_EQ(dest[0], 24);
    EXPECT_EQ(dest[1], 27);
    EXPECT_EQ(VUtil::GetBinaryElement(block.get(), dest, 10, 100), 0ul);
    EXPECT_EQ(VUtil::GetBinaryElement(block.get(), dest, 2, ~0ul), 8ul);
    EXPECT_EQ(VUtil::GetBinaryElement(typed<std::int8_t>(VT_I1, {-1}).get(), dest, 0, 4), 1ul);
    EXPECT_EQ(thrownMessage([&] { VUtil::GetBinaryElement(str("x").get(), dest, 0, 1); }),
              "Element is not an array of (unsigned) char: 8");

    const KibVariantHolder list = variants(block, i4(1));
    unsigned char* data = nullptr;
    unsigned long length = 0;
    VUtil::GetBinaryElement(list.get(), 0, data, length);
    ASSERT_EQ(length, 10ul);
    EXPECT_EQ(data[9], 27);
    delete[] data;
    EXPECT_EQ(thrownMessage([&] { VUtil::GetBinaryElement(list.get(), 1, data, length); }),
              "Element is not an array of unsigned char: 3");
    EXPECT_EQ(thrownMessage([&] { VUtil::GetBinaryElement(block.get(), 0, data, length); }),
              "Not an array of variant: 8209");

    unsigned char* copy = nullptr;
    ASSERT_EQ(VUtil::GetByteArray(list.get(), 0, &copy), 10ul);
    EXPECT_EQ(copy[3], 9);
    std::free(copy);
    EXPECT_EQ(thrownMessage([&] { VUtil::GetByteArray(list.get(), 1, &copy); }),
              "Element is not an unsigned char array");
    EXPECT_EQ(thrownMessage([&] { VUtil::GetByteArray(block.get(), 0, &copy); }),
              "Not an array of variant");
}
