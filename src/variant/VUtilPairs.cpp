// SPDX-License-Identifier: MIT
// Name/value pair lookup, pair lists as maps, comma lists and return codes.
#include <cctype>
#include <climits>
#include <cstdint>
#include <cstdlib>

#include "VUtil.h"
#include "VUtilDetail.h"

namespace VUtil {

using detail::fail;

namespace {

constexpr unsigned short kVariantArray = VT_ARRAY | VT_VARIANT;

// Lower-cases each byte with the current C locale.
CStdStr lowerCase(CStdStr text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}

// Runs `take` on the first non-empty pair whose name (lower-cased when `noCase`)
// equals `name`; false when there is none. The length is asked again on every pass.
template <typename Take>
bool findPair(const tagVARIANT& list, CStdStr name, bool noCase, Take take) {
    if (list.vt != kVariantArray) {
        fail("Variant passed to VUtil::FindPair is not an array");
    }
    if (noCase) {
        name = lowerCase(name);
    }
    for (int i = 0; i < GetArrayLength(list); ++i) {
        const KibVariantHolder pair = detail::fetchVariant(list, i);
        if (pair.vt() == VT_EMPTY) {
            continue;
        }
        CStdStr pairName = GetStringElementEmpty(pair.get(), 0);
        if (noCase) {
            pairName = lowerCase(pairName);
        }
        if (pairName == name) {
            take(pair.get());
            return true;
        }
    }
    return false;
}

std::map<CStdStr, CStdStr> toMap(const tagVARIANT& list, bool lowerCaseNames) {
    if (list.vt != kVariantArray) {
        fail("Variant passed to VUtil::toStringAMap is not an array");
    }
    std::map<CStdStr, CStdStr> result;
    const int length = GetArrayLength(list);
    for (int i = 0; i < length; ++i) {
        const KibVariantHolder pair = detail::fetchVariant(list, i);
        if (pair.vt() == VT_EMPTY) {
            continue;
        }
        CStdStr name = GetStringElementEmpty(pair.get(), 0);
        if (lowerCaseNames) {
            name = lowerCase(name);
        }
        result[name] = GetStringElementEmpty(pair.get(), 1);
    }
    return result;
}

// The return code of `v`: element 0 of an array (a failed read is reported as
// "safeArrayGetElement failed in <reader> : '<reason>'"), or a bare VT_I4.
// `other` is given for any other type, or thrown when it is null.
long retcodeOf(const tagVARIANT& v, const char* reader, const long* other) {
    if ((v.vt & VT_ARRAY) != 0) {
        try {
            return GetLongElement(v, 0);
        } catch (const KibException& e) {
            detail::failFormat("safeArrayGetElement failed in %s : '%s'", reader, e.message());
        }
    }
    if (v.vt == VT_I4) {
        return v.lVal;
    }
    if (other == nullptr) {
        fail("VUtil::GetSingleRetcode wrong type");
    }
    return *other;
}

}  // namespace

void GetPair(const tagVARIANT& list, int index, CStdStr& name, CStdStr& value) {
    if (list.vt != kVariantArray) {
        fail("Variant passed to VUtil::GetPair is not an array");
    }
    KibVariantHolder pair;
    if (detail::readElement(list, index, VT_VARIANT, pair.out()) < 0) {
        fail("SafeArrayGetElement failed in VUtil::GetPair");
    }
    name = GetStringElementEmpty(pair.get(), 0);
    value = GetStringElementEmpty(pair.get(), 1);
}

bool FindPair(const tagVARIANT& list, CStdStr name, CStdStr& value) {
    return findPair(list, std::move(name), false,
                    [&value](const VARIANT& pair) { value = GetStringElementEmpty(pair, 1); });
}

bool FindPairNoCase(const tagVARIANT& list, CStdStr name, CStdStr& value) {
    return findPair(list, std::move(name), true,
                    [&value](const VARIANT& pair) { value = GetStringElementEmpty(pair, 1); });
}

bool FindPairNoCase(const tagVARIANT& list, CStdStr name, int& value) {
    return findPair(list, std::move(name), true, [&value](const VARIANT& pair) {
        const KibVariantHolder element = detail::fetchVariant(pair, 1);
        if (element.vt() == VT_BSTR) {
            value = std::atoi(detail::bstrText(element.get().bstrVal).c_str());
        } else if (element.vt() == VT_I4) {
            value = element.get().lVal;
        } else {
            fail("the value in the pair is neither a string nor an int");
        }
    });
}

bool FindPairNoCase(const tagVARIANT& list, CStdStr name, tagVARIANT& value) {
    return findPair(list, std::move(name), true,
                    [&value](const VARIANT& pair) { GetElement(pair, 1, value); });
}

std::map<CStdStr, CStdStr> toStringMap(const tagVARIANT& list, bool lowerCaseNames) {
    return toMap(list, lowerCaseNames);
}

std::map<CStdStr, CStdStr> toStringAMap(const tagVARIANT& list, bool lowerCaseNames) {
    return toMap(list, lowerCaseNames);
}

std::vector<CStdStr> GetCSVElement(const tagVARIANT& v, long index) {
    // An index beyond int must not wrap onto a real element: -1 fails as out of range.
    const bool fits = index >= INT_MIN && index <= INT_MAX;
    const CStdStr text = GetStringElement(v, fits ? static_cast<int>(index) : -1);
    std::vector<CStdStr> tokens;
    const char* delimiters = ", ";
    std::size_t start = text.find_first_not_of(delimiters);
    while (start != CStdStr::npos) {
        const std::size_t end = text.find_first_of(delimiters, start);
        tokens.emplace_back(text.substr(start, end == CStdStr::npos ? CStdStr::npos : end - start));
        start = end == CStdStr::npos ? end : text.find_first_not_of(delimiters, end);
    }
    return tokens;
}

long GetSingleRetcode(tagVARIANT& v) { return retcodeOf(v, "VUtil::GetSingleRetcode", nullptr); }

void CheckSingleRetcode(tagVARIANT& v, const char* context) {
    const long otherType = -1;
    const long code = retcodeOf(v, "VUtil::CheckSingleRetcode", &otherType);
    if (code == 0) {
        return;
    }
    // The code is a 32-bit status: its hexadecimal form shows 32 bits.
    CStdStr message;
    if (context != nullptr) {
        message.AppendFormat("%s: ", context);
    }
    message.AppendFormat("Kib error detected in VUtil::CheckSingleRetcode : hr = %ld - 0x%lx", code,
                         static_cast<unsigned long>(static_cast<std::uint32_t>(code)));
    fail(message.c_str());
}

void GetSingleOutParamString(tagVARIANT& v, CStdStr& out) {
    constexpr const char* kReadFailed =
        "SafeArrayGetElement failed in VUtil::GetSingleOutParamString";
    constexpr const char* kNotString = "outParam is not a BSTR in VUtil::GetSingleOutParamString";
    // Only an array can be read from (a scalar's value is not an array pointer).
    if ((v.vt & VT_ARRAY) == 0 || v.parray == nullptr) {
        fail(kReadFailed);
    }
    if (v.parray->vt != VT_VARIANT) {
        // Element 0 of any other array cannot be a VARIANT holding a string.
        const SAFEARRAYBOUND& bound = v.parray->rgsabound[0];
        const bool hasElementZero =
            bound.lLbound <= 0 && std::int64_t{0} - bound.lLbound < std::int64_t{bound.cElements};
        fail(hasElementZero ? kNotString : kReadFailed);
    }
    KibVariantHolder element;
    if (detail::readElement(v, 0, VT_VARIANT, element.out()) < 0) {
        fail(kReadFailed);
    }
    if (element.vt() != VT_BSTR) {
        fail(kNotString);
    }
    out = detail::bstrText(element.get().bstrVal);
}

}  // namespace VUtil
