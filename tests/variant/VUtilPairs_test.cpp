// SPDX-License-Identifier: MIT
// Pair lookup, maps, comma lists, deep comparison and return codes.
#include <climits>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "VUtil.h"
#include "ValueTestSupport.h"

using namespace testvalue;

TEST(VUtilPairs, LookupExactAndIgnoringCase) {
    const KibVariantHolder list =
        variants(KibVariantHolder(), pair("name", "x"), pair("a", "1"), pair("A", "2"),
                 variants(str("port"), str("8080")), variants(str("num"), i4(8080)),
                 variants(str("real"), make(VT_R8, [](VARIANT& v) { v.dblVal = 1.0; })));
    CStdStr value = "untouched";
    EXPECT_FALSE(VUtil::FindPair(list.get(), "Name", value));
    EXPECT_EQ(value, "untouched");
    EXPECT_TRUE(VUtil::FindPairNoCase(list.get(), "Name", value));
    EXPECT_EQ(value, "x");
    EXPECT_TRUE(VUtil::FindPair(list.get(), "a", value));  // the empty slot is skipped
    EXPECT_EQ(value, "1");
    EXPECT_TRUE(VUtil::FindPair(list.get(), "A", value));
    EXPECT_EQ(value, "2");
    EXPECT_TRUE(VUtil::FindPairNoCase(list.get(), "A", value));  // the first match wins
    EXPECT_EQ(value, "1");

    int number = -1;
    EXPECT_TRUE(VUtil::FindPairNoCase(list.get(), "PORT", number));
    EXPECT_EQ(number, 8080);
    number = -1;
    EXPECT_TRUE(VUtil::FindPairNoCase(list.get(), "num", number));
    EXPECT_EQ(number, 8080);
    EXPECT_FALSE(VUtil::FindPairNoCase(list.get(), "missing", number));
    EXPECT_EQ(thrownMessage([&] { VUtil::FindPairNoCase(list.get(), "real", number); }),
              "the value in the pair is neither a string nor an int");

    KibVariantHolder copy;
    EXPECT_TRUE(VUtil::FindPairNoCase(list.get(), "NUM", copy.edit()));
    EXPECT_EQ(copy.vt(), VT_I4);
    EXPECT_EQ(copy.get().lVal, 8080);

    const KibVariantHolder notList = strings({"a"});
    EXPECT_EQ(thrownMessage([&] { VUtil::FindPairNoCase(notList.get(), "a", number); }),
              "Variant passed to VUtil::FindPair is not an array");
}

TEST(VUtilPairs, GetPairFailures) {
    const KibVariantHolder list = variants(pair("k", "v"), variants(str("only")));
    CStdStr name, value;
    EXPECT_EQ(thrownMessage([&] { VUtil::GetPair(list.get(), 2, name, value); }),
              "SafeArrayGetElement failed in VUtil::GetPair");
    EXPECT_EQ(thrownMessage([&] { VUtil::GetPair(list.get(), 1, name, value); }),
              "SafeArrayGetElement failed in VUtil::GetElement");  // no element 1
    EXPECT_EQ(thrownMessage([&] { VUtil::GetPair(i4(1).get(), 0, name, value); }),
              "Variant passed to VUtil::GetPair is not an array");
}

TEST(VUtilPairs, MapsKeepTheLaterPair) {
    const KibVariantHolder list = variants(pair("A", "1"), KibVariantHolder(), pair("a", "2"));
    for (auto toMap : {&VUtil::toStringMap, &VUtil::toStringAMap}) {
        const auto lowered = toMap(list.get(), true);
        ASSERT_EQ(lowered.size(), 1u);
        EXPECT_EQ(lowered.at("a"), "2");
        const auto kept = toMap(list.get(), false);
        ASSERT_EQ(kept.size(), 2u);
        EXPECT_EQ(kept.at("A"), "1");
        EXPECT_EQ(thrownMessage([&] { toMap(strings({}).get(), false); }),
                  "Variant passed to VUtil::toStringAMap is not an array");
    }
}

TEST(VUtilPairs, CommaListsSplitOnCommasAndBlanks) {
    const KibVariantHolder list = variants(str("a, b,,c "), str(" ,, "), KibVariantHolder());
    const std::vector<CStdStr> expected = {"a", "b", "c"};
    EXPECT_EQ(VUtil::GetCSVElement(list.get(), 0), expected);
    EXPECT_TRUE(VUtil::GetCSVElement(list.get(), 1).empty());
    EXPECT_TRUE(VUtil::GetCSVElement(list.get(), 2).empty());
    EXPECT_EQ(VUtil::GetCSVElement(strings({"x y"}).get(), 0), (std::vector<CStdStr>{"x", "y"}));
}

TEST(VUtilPairs, CommaListIndexOutsideTheArrayFailsEvenBeyondInt) {
    const KibVariantHolder list = strings({"a,b"});
    // 2^32 must not wrap onto element 0.
    for (long index : {-1L, 1L, 1L << 32, (1L << 32) + 1, LONG_MIN}) {
        EXPECT_THROW(VUtil::GetCSVElement(list.get(), index), KibInvalidParameterException)
            << index;
    }
}

TEST(VUtilEquals, ComparesDeeply) {
    auto i2 = [](short v) { return make(VT_I2, [v](VARIANT& x) { x.iVal = v; }); };
    EXPECT_TRUE(VUtil::Equals(i4(5).get(), i4(5).get()));
    EXPECT_FALSE(VUtil::Equals(i4(5).get(), i4(6).get()));
    EXPECT_FALSE(VUtil::Equals(i4(5).get(), i2(5).get()));
    EXPECT_TRUE(VUtil::Equals(str("").get(), str(nullptr).get()));
    EXPECT_FALSE(VUtil::Equals(str("s").get(), str("t").get()));

    const KibVariantHolder nested = variants(i4(1), strings({"a", "b"}), variants(str("x")));
    const KibVariantHolder same = variants(i4(1), strings({"a", "b"}), variants(str("x")));
    const KibVariantHolder differs = variants(i4(1), strings({"a", "c"}), variants(str("x")));
    EXPECT_TRUE(VUtil::Equals(nested.get(), same.get()));
    EXPECT_FALSE(VUtil::Equals(nested.get(), differs.get()));
    EXPECT_FALSE(VUtil::Equals(variants(i4(1)).get(), variants(i4(1), i4(2)).get()));
    EXPECT_TRUE(
        VUtil::Equals(typed<double>(VT_R8, {1, 2}).get(), typed<double>(VT_R8, {1, 2}).get()));
    EXPECT_FALSE(VUtil::Equals(typed<std::int32_t>(VT_I4, {1, 2}).get(),
                               typed<std::int32_t>(VT_I4, {1, 3}).get()));

    EXPECT_EQ(
        thrownMessage([] { VUtil::Equals(scalar(VT_VARIANT).get(), scalar(VT_VARIANT).get()); }),
        "VUtil::Equals: cannot compare values for type 12");
    const KibVariantHolder odd =
        make(VT_ARRAY | 22, [](VARIANT& v) { v.parray = SafeArrayCreateVector(VT_I4, 0, 1); });
    EXPECT_EQ(thrownMessage([&] { VUtil::Equals(odd.get(), odd.get()); }),
              "VUtil::Equals: cannot compare values for array type 22");
}

TEST(VUtilRetcodes, ReadAndCheckReturnCodes) {
    KibVariantHolder zero = i4(0);
    KibVariantHolder five = i4(5);
    KibVariantHolder text = str("x");
    KibVariantHolder inArray = typed<std::int32_t>(VT_I4, {-2});
    KibVariantHolder wrapped = variants(i4(3));
    KibVariantHolder badArray = variants(str("no"));

    EXPECT_EQ(VUtil::GetSingleRetcode(five.edit()), 5);
    EXPECT_EQ(VUtil::GetSingleRetcode(inArray.edit()), -2);
    EXPECT_EQ(VUtil::GetSingleRetcode(wrapped.edit()), 3);
    EXPECT_EQ(thrownMessage([&] { VUtil::GetSingleRetcode(text.edit()); }),
              "VUtil::GetSingleRetcode wrong type");
    EXPECT_EQ(thrownMessage([&] { VUtil::GetSingleRetcode(badArray.edit()); }),
              "safeArrayGetElement failed in VUtil::GetSingleRetcode : 'Element is not a long'");

    EXPECT_NO_THROW(VUtil::CheckSingleRetcode(zero.edit(), "Call"));
    EXPECT_EQ(thrownMessage([&] { VUtil::CheckSingleRetcode(five.edit(), "Call"); }),
              "Call: Kib error detected in VUtil::CheckSingleRetcode : hr = 5 - 0x5");
    EXPECT_EQ(thrownMessage([&] { VUtil::CheckSingleRetcode(text.edit(), nullptr); }),
              "Kib error detected in VUtil::CheckSingleRetcode : hr = -1 - 0xffffffff");
    EXPECT_EQ(thrownMessage([&] { VUtil::CheckSingleRetcode(badArray.edit(), "C"); }),
              "safeArrayGetElement failed in VUtil::CheckSingleRetcode : 'Element is not a long'");
}

TEST(VUtilRetcodes, SingleOutParamString) {
    KibVariantHolder good = variants(str("out"), i4(1));
    KibVariantHolder notString = variants(i4(1));
    KibVariantHolder none = variants();
    CStdStr out;
    VUtil::GetSingleOutParamString(good.edit(), out);
    EXPECT_EQ(out, "out");
    const char* readFailed = "SafeArrayGetElement failed in VUtil::GetSingleOutParamString";
    const char* notBstr = "outParam is not a BSTR in VUtil::GetSingleOutParamString";
    EXPECT_EQ(thrownMessage([&] { VUtil::GetSingleOutParamString(notString.edit(), out); }),
              notBstr);
    EXPECT_EQ(thrownMessage([&] { VUtil::GetSingleOutParamString(none.edit(), out); }), readFailed);
}
