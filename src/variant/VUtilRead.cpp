// SPDX-License-Identifier: MIT
// Element readers: the raw GetElement overloads and the typed getters that also accept
// an array of VARIANTs.
#include <cstdint>

#include "VUtil.h"
#include "VUtilDetail.h"

namespace VUtil {

using detail::fail;
using detail::fetchVariant;

namespace {

constexpr const char* kReadFailed = "SafeArrayGetElement failed in VUtil::GetElement";

constexpr unsigned short arrayOfType(VARTYPE vt) {
    return static_cast<unsigned short>(vt | VT_ARRAY);
}

// Reads element `index` of an array of exactly `elementVt` into `raw`, whose width
// is that of the element. `wrongType` is thrown when `v` is another kind of array.
template <typename Raw>
Raw readRaw(const tagVARIANT& v, int index, VARTYPE elementVt, const char* wrongType) {
    if (v.vt != arrayOfType(elementVt)) {
        fail(wrongType);
    }
    Raw raw{};
    if (detail::readElement(v, index, elementVt, &raw) < 0) {
        fail(kReadFailed);
    }
    return raw;
}

// The common shape of the typed getters: element `index` of a typed array of
// `elementVt`, read directly, or of an array of VARIANTs whose element must be
// `elementVt`; `take` picks the value out of such an element.
template <typename T, typename Take>
T readTyped(const tagVARIANT& v, int index, VARTYPE elementVt, Take take, const char* notArray,
            const char* notElement) {
    if (v.vt == arrayOfType(elementVt)) {
        T value{};
        GetElement(v, index, value);
        return value;
    }
    if (v.vt != arrayOfType(VT_VARIANT)) {
        fail(notArray);
    }
    const KibVariantHolder element = fetchVariant(v, index);
    if (element.vt() != elementVt) {
        fail(notElement);
    }
    return static_cast<T>(take(element.get()));
}

}  // namespace

void GetElement(const tagVARIANT& v, int index, tagVARIANT& out) {
    if (v.vt != arrayOfType(VT_VARIANT)) {
        fail("Variant passed to VUtil::GetElement is not a variant array");
    }
    VariantClear(&out);
    if (detail::readElement(v, index, VT_VARIANT, &out) < 0) {
        fail(kReadFailed);
    }
}

void GetElement(const tagVARIANT& v, int index, CStdStr& out) {
    BSTR text = readRaw<BSTR>(v, index, VT_BSTR,
                              "Variant passed to VUtil::GetElement is not a string array");
    out = detail::bstrText(text);
    SysFreeString(text);
}

void GetElement(const tagVARIANT& v, int index, long& out) {
    out = readRaw<std::int32_t>(v, index, VT_I4,
                                "Variant passed to VUtil::GetElement is not a long array");
}

void GetElement(const tagVARIANT& v, int index, int& out) {
    out = readRaw<std::int32_t>(v, index, VT_I4,
                                "Variant passed to VUtil::GetElement is not an int array");
}

void GetElement(const tagVARIANT& v, int index, short& out) {
    out = readRaw<std::int16_t>(v, index, VT_I2,
                                "Variant passed to VUtil::GetElement is not a short array");
}

void GetElement(const tagVARIANT& v, int index, unsigned short& out) {
    out = readRaw<std::uint16_t>(
        v, index, VT_UI2, "Variant passed to VUtil::GetElement is not a unsigned short array");
}

void GetElement(const tagVARIANT& v, int index, unsigned long& out) {
    out = readRaw<std::uint32_t>(
        v, index, VT_UI4, "Variant passed to VUtil::GetElement is not a unsigned long array");
}

void GetElement(const tagVARIANT& v, int index, long long& out) {
    out = readRaw<std::int64_t>(v, index, VT_I8,
                                "Variant passed to VUtil::GetElement is not a int64 array");
}

void GetElement(const tagVARIANT& v, int index, unsigned long long& out) {
    out = readRaw<std::uint64_t>(
        v, index, VT_UI8, "Variant passed to VUtil::GetElement is not a unsigned int64 array");
}

void GetElement(const tagVARIANT& v, int index, float& out) {
    out =
        readRaw<float>(v, index, VT_R4, "Variant passed to VUtil::GetElement is not a float array");
}

void GetElement(const tagVARIANT& v, int index, double& out) {
    out = readRaw<double>(v, index, VT_R8,
                          "Variant passed to VUtil::GetElement is not a double array");
}

void GetElement(const tagVARIANT& v, int index, bool& out) {
    // The wrong-type text names a short array: booleans are 16-bit shorts on the bus.
    out = readRaw<std::int16_t>(v, index, VT_BOOL,
                                "Variant passed to VUtil::GetElement is not a short array") != 0;
}

long GetLongElement(const tagVARIANT& v, int index) {
    return readTyped<long>(
        v, index, VT_I4, [](const VARIANT& e) { return e.lVal; }, "Not an array of variant or long",
        "Element is not a long");
}

long GetLongElementEmpty(const tagVARIANT& v, int index) {
    if (v.vt == arrayOfType(VT_I4)) {
        long value = 0;
        GetElement(v, index, value);
        return value;
    }
    if (v.vt != arrayOfType(VT_VARIANT)) {
        fail("Not an array of variant or long");
    }
    const KibVariantHolder element = fetchVariant(v, index);
    if (element.vt() == VT_EMPTY) {
        return 0;
    }
    if (element.vt() != VT_I4) {
        fail("Element is not a long");
    }
    return element.get().lVal;
}

int GetIntElement(const tagVARIANT& v, int index) {
    return readTyped<int>(
        v, index, VT_I4, [](const VARIANT& e) { return e.lVal; }, "Not an array of variant or int",
        "Element is not an int");
}

short GetShortElement(const tagVARIANT& v, int index) {
    return readTyped<short>(
        v, index, VT_I2, [](const VARIANT& e) { return e.iVal; },
        "Not an array of variant or short", "Element is not a short");
}

unsigned short GetUnsignedShortElement(const tagVARIANT& v, int index) {
    return readTyped<unsigned short>(
        v, index, VT_UI2, [](const VARIANT& e) { return e.uiVal; },
        "Not an array of variant or unsigned short", "Element is not an unsigned short");
}

double GetDoubleElement(const tagVARIANT& v, int index) {
    return readTyped<double>(
        v, index, VT_R8, [](const VARIANT& e) { return e.dblVal; },
        "Not an array of variant or double", "Element is not a double");
}

float GetFloatElement(const tagVARIANT& v, int index) {
    if (v.vt == arrayOfType(VT_R4)) {
        float value = 0;
        GetElement(v, index, value);
        return value;
    }
    if (v.vt == arrayOfType(VT_R8)) {
        double value = 0;
        GetElement(v, index, value);
        return static_cast<float>(value);
    }
    if (v.vt != arrayOfType(VT_VARIANT)) {
        fail("Not an array of variant, float or double");
    }
    const KibVariantHolder element = fetchVariant(v, index);
    if (element.vt() == VT_R4) {
        return element.get().fltVal;
    }
    if (element.vt() != VT_R8) {
        fail("Element is not a float or a double");
    }
    return static_cast<float>(element.get().dblVal);
}

bool GetBoolElement(const tagVARIANT& v, int index) {
    if (v.vt == arrayOfType(VT_BOOL)) {
        // Read through the short reader, which refuses a boolean array: typed boolean
        // arrays are not readable, only booleans inside an array of VARIANTs.
        short value = 0;
        GetElement(v, index, value);
        return value != 0;
    }
    if (v.vt != arrayOfType(VT_VARIANT)) {
        fail("Not an array of variant or bool");
    }
    const KibVariantHolder element = fetchVariant(v, index);
    if (element.vt() != VT_BOOL) {
        fail("Element is not a bool");
    }
    return element.get().boolVal != 0;
}

bool GetBoolElementEmpty(const tagVARIANT& v, int index) {
    if (v.vt == arrayOfType(VT_BOOL)) {
        short value = 0;
        GetElement(v, index, value);  // refuses, as in GetBoolElement
        return value != 0;
    }
    if (v.vt != arrayOfType(VT_VARIANT)) {
        fail("Not an array of variant or bool");
    }
    const KibVariantHolder element = fetchVariant(v, index);
    switch (element.vt()) {
        case VT_EMPTY:
        case VT_NULL:
            return false;
        case VT_I2:
        case VT_BOOL:
        case VT_UI2:
            return element.get().iVal != 0;
        case VT_I4:
        case VT_UI4:
            return element.get().lVal != 0;
        default:
            fail("Element is not a bool");
    }
}

CStdStr GetStringElement(const tagVARIANT& v, int index) {
    if (v.vt == arrayOfType(VT_BSTR)) {
        CStdStr value;
        GetElement(v, index, value);
        return value;
    }
    if (v.vt != arrayOfType(VT_VARIANT)) {
        fail("Not an array of variant or string");
    }
    const KibVariantHolder element = fetchVariant(v, index);
    if (element.vt() == VT_EMPTY) {
        return CStdStr();
    }
    if (element.vt() != VT_BSTR) {
        fail("Element is not a string");
    }
    return detail::bstrText(element.get().bstrVal);
}

CStdStr GetStringElementEmpty(const tagVARIANT& v, int index) { return GetStringElement(v, index); }

long GetDateElement(const tagVARIANT& v, int index) {
    if (v.vt == arrayOfType(VT_DATE)) {
        double date = 0;
        if (detail::readElement(v, index, VT_DATE, &date) < 0) {
            fail("SafeArrayGetElement failed in VUtil::GetDateElement");
        }
        return DateToTime(date);
    }
    if (v.vt != arrayOfType(VT_VARIANT)) {
        fail("Not an array of variant or date");
    }
    const KibVariantHolder element = fetchVariant(v, index);
    if (element.vt() != VT_DATE) {
        fail("Element is not a date");
    }
    return DateToTime(element.get().date);
}

}  // namespace VUtil
