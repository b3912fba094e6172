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
// A DATE counts days from 1899-12-30 00:00 UTC (the fraction is the time of day); the day
// of 1970-01-01 00:00 UTC is this one. The one definition for every date conversion.
constexpr long kDateUnixEpochDay = 25569;
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
constexpr HRESULT E_UNEXPECTED = static_cast<HRESULT>(0x8000FFFFu);
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
// Sets `v` to VT_EMPTY without releasing anything (for fresh storage).
void VariantInit(VARIANT* v);
// Releases what `v` owns (string, array and everything in it) and sets it VT_EMPTY.
// Fails with DISP_E_ARRAYISLOCKED, leaving `v` as it was, when its array is accessed.
HRESULT VariantClear(VARIANT* v);
// Deep copy: `dest` is cleared first; strings and arrays are duplicated. A type code
// that is not listed above gives DISP_E_BADVARTYPE and leaves `dest` VT_EMPTY.
HRESULT VariantCopy(VARIANT* dest, const VARIANT* src);

// Arrays (one dimension only). SafeArrayCreate returns null for a bad type, a
// dimension count other than 1 or no memory; elements start zeroed / VT_EMPTY / null.
// Supported element types: VT_I1, VT_UI1 (1 byte), VT_I2, VT_UI2, VT_BOOL (2),
// VT_I4, VT_UI4, VT_R4 (4), VT_I8, VT_UI8, VT_R8, VT_DATE (8), VT_BSTR (a pointer)
// and VT_VARIANT (sizeof(VARIANT)). A data block above 2^31 - 1 bytes is refused
// as out of memory.
SAFEARRAY* SafeArrayCreate(VARTYPE vt, unsigned int cDims, const SAFEARRAYBOUND* bounds);
SAFEARRAY* SafeArrayCreateVector(VARTYPE vt, std::int32_t lowerBound, std::uint32_t count);
// Releases the array and everything its elements own; null is accepted.
HRESULT SafeArrayDestroy(SAFEARRAY* array);
// Sets the element count and lower bound; kept elements are unchanged, removed ones
// released, added ones zeroed. Fails (array unchanged) when locked or out of memory.
HRESULT SafeArrayRedim(SAFEARRAY* array, const SAFEARRAYBOUND* bound);
// Copies element `*index` into `out`, which is treated as uninitialised storage of
// the element type: a VARIANT is deep-copied, a BSTR duplicated (the caller releases
// the copy). DISP_E_BADINDEX for an index outside the bounds, E_INVALIDARG for null.
HRESULT SafeArrayGetElement(SAFEARRAY* array, const std::int32_t* index, void* out);
// Stores a copy of the value at `in` (a VARIANT deep), releasing the old element. As
// in OLE Automation, for an array of VT_BSTR `in` is the BSTR itself (null allowed),
// not a pointer to it.
HRESULT SafeArrayPutElement(SAFEARRAY* array, const std::int32_t* index, const void* in);
// Bounds of dimension 1 (any other `dim` gives DISP_E_BADINDEX).
HRESULT SafeArrayGetLBound(SAFEARRAY* array, unsigned int dim, std::int32_t* bound);
HRESULT SafeArrayGetUBound(SAFEARRAY* array, unsigned int dim, std::int32_t* bound);
HRESULT SafeArrayGetVartype(SAFEARRAY* array, VARTYPE* vt);
// Lends the data block and counts a lock; a locked array cannot be destroyed or
// resized. Every AccessData needs its UnaccessData.
HRESULT SafeArrayAccessData(SAFEARRAY* array, void** data);
HRESULT SafeArrayUnaccessData(SAFEARRAY* array);
// Deep copy of `array` into a new array (null gives null).
HRESULT SafeArrayCopy(SAFEARRAY* array, SAFEARRAY** copy);

// Bytes per element of an array of `vt`, or 0 when arrays of `vt` are not supported.
unsigned int KibArrayElementSize(VARTYPE vt);

// Strings: a length-prefixed, NUL-terminated 8-bit buffer; null reads as "".
// SysAllocString(null) is null. SysAllocStringLen copies `length` bytes, embedded
// NULs included (null `text` gives `length` NULs).
BSTR SysAllocString(const char* text);
BSTR SysAllocStringLen(const char* text, unsigned int length);
void SysFreeString(BSTR text);
// The byte count given at allocation (0 for null).
unsigned int SysStringLen(BSTR text);
