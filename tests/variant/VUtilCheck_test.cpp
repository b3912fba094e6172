// SPDX-License-Identifier: MIT
// Shape checks, array lengths, date conversion and the exception family.
#include <climits>
#include <cmath>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "VUtil.h"
#include "ValueTestSupport.h"

using namespace testvalue;

TEST(KibException, CutsLongMessagesAndKeepsTheStandardWhat) {
    const std::string longText(300, 'x');
    const KibInvalidParameterException e(longText.c_str());
    EXPECT_EQ(std::strlen(e.message()), 255u);
    EXPECT_EQ(e.code(), 1);
    EXPECT_STREQ(e.what(), std::exception().what());

    const KibException plain("busy", 42);
    EXPECT_STREQ(plain.message(), "busy");
    EXPECT_EQ(plain.code(), 42);
    EXPECT_STREQ(KibInvalidParameterException(nullptr).message(), "");

    // A composed message is cut as well.
    const std::string context(250, 'c');
    const KibVariantHolder v = i4(1);
    const std::string message =
        thrownMessage([&] { VUtil::CheckType(v.get(), VT_BSTR, context.c_str()); });
    EXPECT_EQ(message, (context + ": checkType failed, got 3, expected 8").substr(0, 255));
}

TEST(VUtilCheckType, PassesOnMatchAndNamesBothCodes) {
    const KibVariantHolder number = i4(7);
    const KibVariantHolder empty;
    EXPECT_NO_THROW(VUtil::CheckType(number.get(), VT_I4, "ctx"));
    EXPECT_EQ(thrownMessage(
                  [&] { VUtil::CheckType(number.get(), VT_BSTR, "SetLogSource: invalid addr"); }),
              "SetLogSource: invalid addr: checkType failed, got 3, expected 8");
    EXPECT_EQ(thrownMessage([&] { VUtil::CheckType(empty.get(), VT_BSTR, nullptr); }),
              "checkType failed, got 0, expected 8");
}

TEST(VUtilCheckArrayType, ChecksTypeThenLength) {
    const KibVariantHolder three = variants(i4(1), i4(2), i4(3));
    const KibVariantHolder four = variants(i4(1), i4(2), i4(3), i4(4));
    const KibVariantHolder five = variants(i4(1), i4(2), i4(3), i4(4), i4(5));
    const KibVariantHolder names = strings({"a", "b", "c", "d"});

    EXPECT_EQ(VUtil::CheckArrayType(four.get(), VT_VARIANT, 4, true, "c"), 4);
    EXPECT_EQ(VUtil::CheckArrayType(five.get(), VT_VARIANT, 4, true, "c"), 5);
    EXPECT_EQ(VUtil::CheckArrayType(four.get(), VT_VARIANT, 4, "c"), 4);
    EXPECT_EQ(VUtil::CheckArrayType(names.get(), VT_BSTR, 4, false, nullptr), 4);

    const struct {
        const KibVariantHolder* value;
        VARTYPE elementVt;
        bool orMore;
        const char* context;
        const char* message;
    } failures[] = {
        {&three, VT_VARIANT, true, nullptr, "checkArrayType failed, got length 3, expect 4+"},
        {&five, VT_VARIANT, false, nullptr, "checkArrayType failed, got length 5, expect 4"},
        {&three, VT_VARIANT, false, "Req", "Req: checkArrayType failed, got length 3, expect 4"},
        {&names, VT_VARIANT, false, "Req", "Req: checkArrayType failed, got 8200, expected 8204"},
    };
    for (const auto& f : failures) {
        EXPECT_EQ(thrownMessage([&] {
                      VUtil::CheckArrayType(f.value->get(), f.elementVt, 4, f.orMore, f.context);
                  }),
                  f.message);
    }
}

TEST(VUtilArrayLength, CountsZeroBasedArraysOnly) {
    const KibVariantHolder empty;
    const KibVariantHolder number = i4(3);
    const KibVariantHolder none = variants();
    const KibVariantHolder oneBased = typed<std::int32_t>(VT_I4, {1, 2}, 1);
    const KibVariantHolder noArray = make(VT_ARRAY | VT_I4, [](VARIANT& v) { v.parray = nullptr; });

    EXPECT_EQ(VUtil::GetArrayLength(none.get()), 0);
    EXPECT_EQ(VUtil::GetArrayLength(typed<double>(VT_R8, {1, 2, 3}).get()), 3);
    EXPECT_EQ(VUtil::GetArrayLengthEmpty(empty.get()), 0);
    EXPECT_EQ(VUtil::GetArrayLengthEmpty(none.get()), 0);

    EXPECT_EQ(thrownMessage([&] { VUtil::GetArrayLength(number.get()); }),
              "Variant passed to VUtil::GetArrayLength is not an array");
    EXPECT_EQ(thrownMessage([&] { VUtil::GetArrayLengthEmpty(number.get()); }),
              "Variant passed to VUtil::GetArrayLengthEmpty is not an array");
    EXPECT_EQ(thrownMessage([&] { VUtil::GetArrayLengthEmpty(oneBased.get()); }),
              "Array is not zero indexed! (VUtil::GetArrayLength)");
    EXPECT_EQ(thrownMessage([&] { VUtil::GetArrayLength(noArray.get()); }),
              "SafeArrayGetLBound failed in VUtil::GetArrayLength");
}

TEST(VUtilDates, ConvertBetweenDaysAndSeconds) {
    const struct {
        double date;
        long seconds;
    } toTime[] = {
        {25569.0, 0},
        {25569.5, 43200},
        {25569.999999999, 86400},   // half a second short of midnight rounds up
        {25568.5, -43200},          // the day truncates toward zero, the fraction adds
        {0.0, -25569L * 86400},     // 1899-12-30
        {50425.0, 24856L * 86400},  // 2038-01-20: past 32 bits of seconds is fine
    };
    for (const auto& c : toTime) {
        EXPECT_EQ(VUtil::DateToTime(c.date), c.seconds) << c.date;
    }
    EXPECT_EQ(VUtil::DateToTime(1e300), LONG_MIN);
    EXPECT_EQ(VUtil::DateToTime(std::nan("")), LONG_MIN);

    EXPECT_EQ(VUtil::TimeToDate(-43200), 25568.5);

    // Milliseconds: the same day rule, the time of day to the nearest millisecond.
    EXPECT_EQ(VUtil::DateToMilliseconds(25569.5), 43200000LL);
    EXPECT_EQ(VUtil::DateToMilliseconds(25569.0 + 0.7 / 86400), 700LL);
    EXPECT_EQ(VUtil::DateToMilliseconds(25568.5), -43200000LL);
    EXPECT_EQ(VUtil::DateToMilliseconds(std::nan("")), LLONG_MIN);

    // Whole seconds survive the round trip, including years past 2038.
    for (long t = 0; t < 5L * 365 * 86400 * 40; t += 86399L * 37 + 1234) {
        ASSERT_EQ(VUtil::DateToTime(VUtil::TimeToDate(t)), t);
    }
}
