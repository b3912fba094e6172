// SPDX-License-Identifier: MIT
// The bus's tagged value (VARIANT), its one-dimensional arrays (SAFEARRAY) and its
// 8-bit strings (BSTR), in OLE Automation layout and with OLE Automation semantics,
// except that a BSTR holds 8-bit characters. Type codes are the published OLE values.
// 32-bit element types (VT_I4, VT_UI4) stay 32-bit on this 64-bit platform.
// The primitives keep no global state; one value must not be changed by two threads
// at once.
#pragma once

#include <cstdint>

using VARTYPE = unsigned short;
using VARIANT_BOOL = short;
using DATE = double;
using HRESULT = std::int32_t;
using BSTR = char*;

constexpr VARIANT_BOOL VARIANT_TRUE = -1;
constexpr VARIANT_BOOL VARIANT_FALSE = 0;

enum VARENUM : VARTYPE {
    VT_EMPTY = 0,
    VT_NULL = 1,
    VT_I2 = 2,
    VT_I4 = 3,
    VT_R4 = 4,
    VT_R8 = 5,
    VT_DATE = 7,
    VT_BSTR = 8,
    VT_BOOL = 11,
    VT_VARIANT = 12,
    VT_I1 = 16,
    VT_UI1 = 17,
    VT_UI2 = 18,
    VT_UI4 = 19,
    VT_I8 = 20,
    VT_UI8 = 21,
    VT_ARRAY = 0x2000,
};

// Status codes of the primitives: negative means failure.
constexpr HRESULT S_OK = 0;
constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057u);
constexpr HRESULT E_OUTOFMEMORY = static_cast<HRESULT>(0x8007000Eu);
constexpr HRESULT DISP_E_BADVARTYPE = static_cast<HRESULT>(0x80020008u);
constexpr HRESULT DISP_E_BADINDEX = static_cast<HRESULT>(0x8002000Bu);
constexpr HRESULT DISP_E_ARRAYISLOCKED = static_cast<HRESULT>(0x8002000Du);

struct SAFEARRAYBOUND {
    std::uint32_t cElements = 0;
    std::int32_t lLbound = 0;
};

// A one-dimensional array; pvData holds cElements elements of cbElements bytes each.
// vt is the element type (the OLE layout keeps it in front of the descriptor).
struct SAFEARRAY {
    unsigned short cDims = 1;
    unsigned short fFeatures = 0;
    std::uint32_t cbElements = 0;
    std::uint32_t cLocks = 0;
    void* pvData = nullptr;
    SAFEARRAYBOUND rgsabound[1];
    VARTYPE vt = VT_EMPTY;
};

struct tagVARIANT {
    VARTYPE vt;
    unsigned short wReserved1;
    unsigned short wReserved2;
    unsigned short wReserved3;
    union {
        std::int64_t llVal;
        std::uint64_t ullVal;
        std::int32_t lVal;
        std::uint32_t ulVal;
        std::int16_t iVal;
        std::uint16_t uiVal;
        signed char cVal;
        unsigned char bVal;
        float fltVal;
        double dblVal;
        DATE date;
        VARIANT_BOOL boolVal;
        BSTR bstrVal;
        SAFEARRAY* parray;
    };
};
using VARIANT = tagVARIANT;

// Values.
void VariantInit(VARIANT* v);
// Releases what `v` owns (string, array and everything in it) and sets it VT_EMPTY.
HRESULT VariantClear(VARIANT* v);
// Deep copy: `dest` is cleared first; strings and arrays are duplicated.
HRESULT VariantCopy(VARIANT* dest, const VARIANT* src);

// Arrays (one dimension only). SafeArrayCreate returns null for a bad type, a
// dimension count other than 1 or no memory; elements start zeroed / VT_EMPTY / null.
SAFEARRAY* SafeArrayCreate(VARTYPE vt, unsigned int cDims, const SAFEARRAYBOUND* bounds);
SAFEARRAY* SafeArrayCreateVector(VARTYPE vt, std::int32_t lowerBound, std::uint32_t count);
HRESULT SafeArrayDestroy(SAFEARRAY* array);
HRESULT SafeArrayRedim(SAFEARRAY* array, const SAFEARRAYBOUND* bound);
// Copies element `*index` into `out`: a VARIANT deep, a BSTR duplicated.
HRESULT SafeArrayGetElement(SAFEARRAY* array, const std::int32_t* index, void* out);
// Stores a copy of `*in` (VARIANT deep, BSTR duplicated), releasing the old element.
HRESULT SafeArrayPutElement(SAFEARRAY* array, const std::int32_t* index, const void* in);
HRESULT SafeArrayGetLBound(SAFEARRAY* array, unsigned int dim, std::int32_t* bound);
HRESULT SafeArrayGetUBound(SAFEARRAY* array, unsigned int dim, std::int32_t* bound);
HRESULT SafeArrayGetVartype(SAFEARRAY* array, VARTYPE* vt);
HRESULT SafeArrayAccessData(SAFEARRAY* array, void** data);
HRESULT SafeArrayUnaccessData(SAFEARRAY* array);
HRESULT SafeArrayCopy(SAFEARRAY* array, SAFEARRAY** copy);

// Strings: a length-prefixed, NUL-terminated 8-bit buffer; null reads as "".
BSTR SysAllocString(const char* text);
BSTR SysAllocStringLen(const char* text, unsigned int length);
void SysFreeString(BSTR text);
unsigned int SysStringLen(BSTR text);
