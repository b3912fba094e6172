// SPDX-License-Identifier: MIT
#include "VUtilDetail.h"

#include <climits>
#include <cstdarg>

#include "VUtil.h"

namespace VUtil::detail {

void fail(const char* message) { throw KibInvalidParameterException(message); }

void failFormat(const char* format, ...) {
    CStdStr message;
    va_list args;
    va_start(args, format);
    message.FormatV(format, args);
    va_end(args);
    throw KibInvalidParameterException(message.c_str());
}

SAFEARRAY* arrayOf(const tagVARIANT& v, VARTYPE elementVt) {
    if ((v.vt & VT_ARRAY) == 0 || v.parray == nullptr || v.parray->vt != elementVt) {
        return nullptr;
    }
    return v.parray;
}

HRESULT readElement(const tagVARIANT& v, int index, VARTYPE elementVt, void* out) {
    SAFEARRAY* array = arrayOf(v, elementVt);
    if (array == nullptr) {
        return E_INVALIDARG;
    }
    const std::int32_t i = index;
    return SafeArrayGetElement(array, &i, out);
}

HRESULT writeElement(tagVARIANT& v, int index, VARTYPE elementVt, const void* in) {
    SAFEARRAY* array = arrayOf(v, elementVt);
    if (array == nullptr) {
        return E_INVALIDARG;
    }
    const std::int32_t i = index;
    return SafeArrayPutElement(array, &i, in);
}

KibVariantHolder fetchVariant(const tagVARIANT& v, int index) {
    KibVariantHolder element;
    GetElement(v, index, *element.out());
    return element;
}

CStdStr bstrText(BSTR text) {
    if (text == nullptr) {
        return CStdStr();
    }
    return CStdStr(text, SysStringLen(text));
}

BSTR allocBstr(const CStdStr& text) {
    if (text.size() > UINT_MAX) {
        return nullptr;
    }
    return SysAllocStringLen(text.data(), static_cast<unsigned int>(text.size()));
}

}  // namespace VUtil::detail
