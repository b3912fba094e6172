// SPDX-License-Identifier: MIT
// VARIANT initialisation, release and deep copy.
#include <cstring>

#include "KibElement.h"
#include "KibVariant.h"

namespace {

// Scalar types whose value is plain bits (nothing to release, copy by value).
bool isPlainScalar(VARTYPE vt) {
    switch (vt) {
        case VT_EMPTY:
        case VT_NULL:
        case VT_I2:
        case VT_I4:
        case VT_R4:
        case VT_R8:
        case VT_DATE:
        case VT_BOOL:
        case VT_I1:
        case VT_UI1:
        case VT_UI2:
        case VT_UI4:
        case VT_I8:
        case VT_UI8:
            return true;
        default:
            return false;
    }
}

}  // namespace

void VariantInit(VARIANT* v) {
    if (v != nullptr) {
        std::memset(static_cast<void*>(v), 0, sizeof(VARIANT));
    }
}

HRESULT VariantClear(VARIANT* v) {
    if (v == nullptr) {
        return E_INVALIDARG;
    }
    if ((v->vt & VT_ARRAY) != 0) {
        const HRESULT hr = SafeArrayDestroy(v->parray);
        if (hr < 0) {
            return hr;  // a locked array stays where it is, still owned by `v`
        }
    } else if (v->vt == VT_BSTR) {
        SysFreeString(v->bstrVal);
    }
    // Any other type owns nothing, unknown codes included.
    VariantInit(v);
    return S_OK;
}

HRESULT VariantCopy(VARIANT* dest, const VARIANT* src) {
    if (dest == nullptr || src == nullptr) {
        return E_INVALIDARG;
    }
    if (dest == src) {
        return S_OK;
    }
    const HRESULT cleared = VariantClear(dest);
    if (cleared < 0) {
        return cleared;
    }
    if ((src->vt & VT_ARRAY) != 0) {
        SAFEARRAY* copy = nullptr;
        const HRESULT hr = SafeArrayCopy(src->parray, &copy);
        if (hr < 0) {
            return hr;
        }
        dest->vt = src->vt;
        dest->parray = copy;
        return S_OK;
    }
    if (src->vt == VT_BSTR) {
        BSTR copy = nullptr;
        if (src->bstrVal != nullptr) {
            copy = SysAllocStringLen(src->bstrVal, SysStringLen(src->bstrVal));
            if (copy == nullptr) {
                return E_OUTOFMEMORY;
            }
        }
        dest->vt = VT_BSTR;
        dest->bstrVal = copy;
        return S_OK;
    }
    if (!isPlainScalar(src->vt)) {
        return DISP_E_BADVARTYPE;
    }
    std::memcpy(static_cast<void*>(dest), src, sizeof(VARIANT));
    return S_OK;
}
