// SPDX-License-Identifier: MIT
// Element sizes and the release and copy of one array element.
#include "KibElement.h"

#include <cstring>

namespace kibvalue {

std::uint32_t elementSize(VARTYPE vt) {
    switch (vt) {
        case VT_I1:
        case VT_UI1:
            return 1;
        case VT_I2:
        case VT_UI2:
        case VT_BOOL:
            return 2;
        case VT_I4:
        case VT_UI4:
        case VT_R4:
            return 4;
        case VT_I8:
        case VT_UI8:
        case VT_R8:
        case VT_DATE:
            return 8;
        case VT_BSTR:
            return sizeof(BSTR);
        case VT_VARIANT:
            return sizeof(VARIANT);
        default:
            return 0;
    }
}

HRESULT releaseElement(VARTYPE vt, void* slot) {
    if (vt == VT_BSTR) {
        BSTR text = nullptr;
        std::memcpy(&text, slot, sizeof(BSTR));
        SysFreeString(text);
        std::memset(slot, 0, sizeof(BSTR));
        return S_OK;
    }
    if (vt == VT_VARIANT) {
        return VariantClear(static_cast<VARIANT*>(slot));
    }
    std::memset(slot, 0, elementSize(vt));
    return S_OK;
}

HRESULT copyElement(VARTYPE vt, void* dest, const void* src) {
    if (vt == VT_BSTR) {
        BSTR text = nullptr;
        std::memcpy(&text, src, sizeof(BSTR));
        BSTR copy = nullptr;
        if (text != nullptr) {
            copy = SysAllocStringLen(text, SysStringLen(text));
            if (copy == nullptr) {
                std::memset(dest, 0, sizeof(BSTR));
                return E_OUTOFMEMORY;
            }
        }
        std::memcpy(dest, &copy, sizeof(BSTR));
        return S_OK;
    }
    if (vt == VT_VARIANT) {
        auto* target = static_cast<VARIANT*>(dest);
        VariantInit(target);
        return VariantCopy(target, static_cast<const VARIANT*>(src));
    }
    std::memcpy(dest, src, elementSize(vt));
    return S_OK;
}

}  // namespace kibvalue

unsigned int KibArrayElementSize(VARTYPE vt) { return kibvalue::elementSize(vt); }
