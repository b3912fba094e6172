// SPDX-License-Identifier: MIT
// Shape checks, array lengths and date conversion.
#include <climits>
#include <cmath>

#include "VUtil.h"
#include "VUtilDetail.h"

namespace VUtil {

using detail::fail;

namespace {

constexpr long kSecondsPerDay = 86400;
// Dates further than this many days from day 0 are not converted (their seconds
// would not fit a long).
constexpr double kMaxDays = 1e13;

// Throws `check` prefixed by "<context>: " when there is a context.
[[noreturn]] void failCheck(const char* context, const CStdStr& check) {
    CStdStr message;
    if (context != nullptr) {
        message.AppendFormat("%s: ", context);
    }
    message += check;
    fail(message.c_str());
}

// Shared by the two length readers once the array bit has been checked.
int zeroBasedLength(const tagVARIANT& v) {
    std::int32_t lower = 0;
    if (SafeArrayGetLBound(v.parray, 1, &lower) < 0) {
        fail("SafeArrayGetLBound failed in VUtil::GetArrayLength");
    }
    if (lower != 0) {
        fail("Array is not zero indexed! (VUtil::GetArrayLength)");
    }
    std::int32_t upper = 0;
    if (SafeArrayGetUBound(v.parray, 1, &upper) < 0) {
        // The upper bound's failure is reported with the lower bound's text.
        fail("SafeArrayGetLBound failed in VUtil::GetArrayLength");
    }
    return upper + 1;
}

}  // namespace

void CheckType(const tagVARIANT& v, unsigned short vt, const char* context) {
    if (v.vt == vt) {
        return;
    }
    CStdStr check;
    check.Format("checkType failed, got %d, expected %d", v.vt, vt);
    failCheck(context, check);
}

int CheckArrayType(const tagVARIANT& v, unsigned short elementVt, int length, bool orMore,
                   const char* context) {
    const int wanted = elementVt | VT_ARRAY;
    CStdStr check;
    if (v.vt != wanted) {
        check.Format("checkArrayType failed, got %d, expected %d", v.vt, wanted);
        failCheck(context, check);
    }
    const int n = GetArrayLength(v);
    if (n >= length && (orMore || n <= length)) {
        return n;
    }
    check.Format("checkArrayType failed, got length %d, expect %d%s", n, length, orMore ? "+" : "");
    failCheck(context, check);
}

int CheckArrayType(const tagVARIANT& v, unsigned short elementVt, int length, const char* context) {
    return CheckArrayType(v, elementVt, length, false, context);
}

int GetArrayLength(const tagVARIANT& v) {
    if ((v.vt & VT_ARRAY) == 0) {
        fail("Variant passed to VUtil::GetArrayLength is not an array");
    }
    return zeroBasedLength(v);
}

int GetArrayLengthEmpty(const tagVARIANT& v) {
    if (v.vt == VT_EMPTY) {
        return 0;
    }
    if ((v.vt & VT_ARRAY) == 0) {
        fail("Variant passed to VUtil::GetArrayLengthEmpty is not an array");
    }
    return zeroBasedLength(v);
}

long DateToTime(double date) {
    if (!(std::fabs(date) <= kMaxDays)) {
        return LONG_MIN;
    }
    // Whole days truncate toward zero; the time of day is rounded half up.
    const long days = static_cast<long>(date);
    const long secs = static_cast<long>((date - static_cast<double>(days)) * 86400.0 + 0.5);
    return secs + (days - kDateUnixEpochDay) * kSecondsPerDay;
}

long long DateToMilliseconds(double date) {
    if (!(std::fabs(date) <= kMaxDays)) {
        return LLONG_MIN;
    }
    // As DateToTime: whole days truncate toward zero, the fraction is added as it is.
    const long long days = static_cast<long long>(date);
    const auto ms = std::llround((date - static_cast<double>(days)) * 86400000.0);
    return ms + (days - kDateUnixEpochDay) * kSecondsPerDay * 1000LL;
}

double TimeToDate(long t) {
    // Before 1970 the fraction is negative and added to the truncated day count.
    return static_cast<double>(t % kSecondsPerDay) / 86400.0 +
           static_cast<double>(t / kSecondsPerDay + kDateUnixEpochDay);
}

}  // namespace VUtil
