// SPDX-License-Identifier: MIT
// Deep comparison of two values.
#include <cstring>

#include "VUtil.h"
#include "VUtilDetail.h"

namespace VUtil {

using detail::failFormat;

namespace {

// The highest element type code that arrays may be compared for.
constexpr int kLastComparableType = VT_UI8;

bool sameText(BSTR a, BSTR b) {
    const unsigned int length = SysStringLen(a);
    return length == SysStringLen(b) && (length == 0 || std::memcmp(a, b, length) == 0);
}

bool equalScalars(const tagVARIANT& a, const tagVARIANT& b) {
    switch (a.vt) {
        case VT_EMPTY:
        case VT_NULL:
            return true;
        case VT_I2:
        case VT_BOOL:
        case VT_UI2:
            return a.uiVal == b.uiVal;
        case VT_I4:
        case VT_UI4:
            return a.ulVal == b.ulVal;
        case VT_I1:
        case VT_UI1:
            return a.bVal == b.bVal;
        case VT_I8:
        case VT_UI8:
            return a.ullVal == b.ullVal;
        case VT_R4:
            return a.fltVal == b.fltVal;
        case VT_R8:
        case VT_DATE:
            return a.dblVal == b.dblVal;
        case VT_BSTR:
            return sameText(a.bstrVal, b.bstrVal);
        default:
            failFormat("VUtil::Equals: cannot compare values for type %d", a.vt);
    }
}

// Arrays of the same type and the same non-zero length `count`.
bool equalArrays(const tagVARIANT& a, const tagVARIANT& b, int count) {
    const int elementVt = a.vt & 0x0FFF;
    if (elementVt > kLastComparableType) {
        failFormat("VUtil::Equals: cannot compare values for array type %d", elementVt);
    }
    if (elementVt == VT_VARIANT) {
        for (int i = 0; i < count; ++i) {
            const KibVariantHolder x = detail::fetchVariant(a, i);
            const KibVariantHolder y = detail::fetchVariant(b, i);
            if (!Equals(x.get(), y.get())) {
                return false;
            }
        }
        return true;
    }
    if (elementVt == VT_BSTR) {
        for (int i = 0; i < count; ++i) {
            if (GetStringElement(a, i) != GetStringElement(b, i)) {
                return false;
            }
        }
        return true;
    }
    // Fixed-size elements: the data blocks are compared as a whole.
    if (a.parray->cbElements != b.parray->cbElements) {
        return false;
    }
    void* x = nullptr;
    void* y = nullptr;
    SafeArrayAccessData(a.parray, &x);
    SafeArrayAccessData(b.parray, &y);
    const bool same = std::memcmp(x, y, std::size_t{a.parray->cbElements} * count) == 0;
    SafeArrayUnaccessData(b.parray);
    SafeArrayUnaccessData(a.parray);
    return same;
}

}  // namespace

bool Equals(const tagVARIANT& a, const tagVARIANT& b) {
    if (a.vt != b.vt) {
        return false;
    }
    if ((a.vt & VT_ARRAY) == 0) {
        return equalScalars(a, b);
    }
    const int count = GetArrayLength(a);
    if (count != GetArrayLength(b)) {
        return false;
    }
    return count == 0 || equalArrays(a, b, count);
}

}  // namespace VUtil
