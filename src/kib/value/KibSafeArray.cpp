// SPDX-License-Identifier: MIT
// One-dimensional SAFEARRAYs: creation, resizing, element access and deep copy.
// An array owns its data block and, for BSTR and VARIANT arrays, everything its
// elements own.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>

#include "KibElement.h"
#include "KibVariant.h"

using kibvalue::copyElement;
using kibvalue::elementSize;
using kibvalue::releaseElement;

namespace {

// Largest data block an array may have. A count beyond it (bus input is untrusted)
// fails as out of memory instead of asking the allocator for gigabytes.
constexpr std::uint64_t kMaxDataBytes = INT32_MAX;

// True when `count` elements of `size` bytes starting at `lowerBound` fit both the
// size limit and a 32-bit upper bound.
bool fits(std::uint32_t size, std::int32_t lowerBound, std::uint32_t count) {
    const std::uint64_t bytes = std::uint64_t{size} * count;
    const std::int64_t upper = std::int64_t{lowerBound} + std::int64_t{count} - 1;
    return bytes <= kMaxDataBytes && upper <= INT32_MAX;
}

char* slotAt(SAFEARRAY* array, std::uint32_t offset) {
    return static_cast<char*>(array->pvData) + std::size_t{offset} * array->cbElements;
}

// Position of `index` in the data block, or a failure status.
HRESULT offsetOf(const SAFEARRAY* array, const std::int32_t* index, std::uint32_t* offset) {
    if (array == nullptr || index == nullptr) {
        return E_INVALIDARG;
    }
    const std::int64_t relative = std::int64_t{*index} - array->rgsabound[0].lLbound;
    if (relative < 0 || relative >= std::int64_t{array->rgsabound[0].cElements}) {
        return DISP_E_BADINDEX;
    }
    *offset = static_cast<std::uint32_t>(relative);
    return S_OK;
}

// Releases elements [from, to) of an array of BSTRs or VARIANTs.
void releaseRange(SAFEARRAY* array, std::uint32_t from, std::uint32_t to) {
    if (array->vt != VT_BSTR && array->vt != VT_VARIANT) {
        return;
    }
    for (std::uint32_t i = from; i < to; ++i) {
        releaseElement(array->vt, slotAt(array, i));
    }
}

}  // namespace

SAFEARRAY* SafeArrayCreate(VARTYPE vt, unsigned int cDims, const SAFEARRAYBOUND* bounds) {
    if (cDims != 1 || bounds == nullptr) {
        return nullptr;
    }
    return SafeArrayCreateVector(vt, bounds->lLbound, bounds->cElements);
}

SAFEARRAY* SafeArrayCreateVector(VARTYPE vt, std::int32_t lowerBound, std::uint32_t count) {
    const std::uint32_t size = elementSize(vt);
    if (size == 0 || !fits(size, lowerBound, count)) {
        return nullptr;
    }
    auto* array = new (std::nothrow) SAFEARRAY;
    if (array == nullptr) {
        return nullptr;
    }
    if (count > 0) {
        array->pvData = std::calloc(count, size);
        if (array->pvData == nullptr) {
            delete array;
            return nullptr;
        }
    }
    array->cbElements = size;
    array->rgsabound[0].cElements = count;
    array->rgsabound[0].lLbound = lowerBound;
    array->vt = vt;
    return array;
}

HRESULT SafeArrayDestroy(SAFEARRAY* array) {
    if (array == nullptr) {
        return S_OK;
    }
    if (array->cLocks > 0) {
        return DISP_E_ARRAYISLOCKED;
    }
    releaseRange(array, 0, array->rgsabound[0].cElements);
    std::free(array->pvData);
    delete array;
    return S_OK;
}

HRESULT SafeArrayRedim(SAFEARRAY* array, const SAFEARRAYBOUND* bound) {
    if (array == nullptr || bound == nullptr) {
        return E_INVALIDARG;
    }
    if (array->cLocks > 0) {
        return DISP_E_ARRAYISLOCKED;
    }
    if (!fits(array->cbElements, bound->lLbound, bound->cElements)) {
        return E_OUTOFMEMORY;
    }
    const std::uint32_t oldCount = array->rgsabound[0].cElements;
    const std::uint32_t newCount = bound->cElements;
    if (newCount == 0) {
        releaseRange(array, 0, oldCount);
        std::free(array->pvData);
        array->pvData = nullptr;
    } else if (newCount != oldCount) {
        const std::size_t newBytes = std::size_t{newCount} * array->cbElements;
        // Grow first, so that a failed allocation leaves the array as it was.
        if (newCount > oldCount) {
            void* grown = std::realloc(array->pvData, newBytes);
            if (grown == nullptr) {
                return E_OUTOFMEMORY;
            }
            array->pvData = grown;
            std::memset(slotAt(array, oldCount), 0,
                        newBytes - std::size_t{oldCount} * array->cbElements);
        } else {
            releaseRange(array, newCount, oldCount);
            // Shrinking in place cannot lose data; keep the old block if realloc fails.
            if (void* shrunk = std::realloc(array->pvData, newBytes)) {
                array->pvData = shrunk;
            }
        }
    }
    array->rgsabound[0].cElements = newCount;
    array->rgsabound[0].lLbound = bound->lLbound;
    return S_OK;
}

HRESULT SafeArrayGetElement(SAFEARRAY* array, const std::int32_t* index, void* out) {
    std::uint32_t offset = 0;
    const HRESULT hr = offsetOf(array, index, &offset);
    if (hr < 0) {
        return hr;
    }
    if (out == nullptr) {
        return E_INVALIDARG;
    }
    return copyElement(array->vt, out, slotAt(array, offset));
}

HRESULT SafeArrayPutElement(SAFEARRAY* array, const std::int32_t* index, const void* in) {
    std::uint32_t offset = 0;
    const HRESULT hr = offsetOf(array, index, &offset);
    if (hr < 0) {
        return hr;
    }
    char* slot = slotAt(array, offset);
    if (array->vt == VT_BSTR) {
        // As in OLE Automation, a BSTR is passed itself, not through a pointer.
        BSTR copy = nullptr;
        const BSTR text = const_cast<BSTR>(static_cast<const char*>(in));
        if (text != nullptr) {
            copy = SysAllocStringLen(text, SysStringLen(text));
            if (copy == nullptr) {
                return E_OUTOFMEMORY;
            }
        }
        releaseElement(VT_BSTR, slot);
        std::memcpy(slot, &copy, sizeof(BSTR));
        return S_OK;
    }
    if (in == nullptr) {
        return E_INVALIDARG;
    }
    if (array->vt == VT_VARIANT) {
        return VariantCopy(reinterpret_cast<VARIANT*>(slot), static_cast<const VARIANT*>(in));
    }
    std::memcpy(slot, in, array->cbElements);
    return S_OK;
}

HRESULT SafeArrayGetLBound(SAFEARRAY* array, unsigned int dim, std::int32_t* bound) {
    if (array == nullptr || bound == nullptr) {
        return E_INVALIDARG;
    }
    if (dim != 1) {
        return DISP_E_BADINDEX;
    }
    *bound = array->rgsabound[0].lLbound;
    return S_OK;
}

HRESULT SafeArrayGetUBound(SAFEARRAY* array, unsigned int dim, std::int32_t* bound) {
    if (array == nullptr || bound == nullptr) {
        return E_INVALIDARG;
    }
    if (dim != 1) {
        return DISP_E_BADINDEX;
    }
    // The limits checked at creation keep this within 32 bits (an empty array at the
    // lowest bound would not, and reports one below it, wrapped, as OLE does).
    const std::int64_t upper =
        std::int64_t{array->rgsabound[0].lLbound} + array->rgsabound[0].cElements - 1;
    *bound = static_cast<std::int32_t>(upper);
    return S_OK;
}

HRESULT SafeArrayGetVartype(SAFEARRAY* array, VARTYPE* vt) {
    if (array == nullptr || vt == nullptr) {
        return E_INVALIDARG;
    }
    *vt = array->vt;
    return S_OK;
}

HRESULT SafeArrayAccessData(SAFEARRAY* array, void** data) {
    if (array == nullptr || data == nullptr) {
        return E_INVALIDARG;
    }
    ++array->cLocks;
    *data = array->pvData;
    return S_OK;
}

HRESULT SafeArrayUnaccessData(SAFEARRAY* array) {
    if (array == nullptr) {
        return E_INVALIDARG;
    }
    if (array->cLocks == 0) {
        return E_UNEXPECTED;
    }
    --array->cLocks;
    return S_OK;
}

HRESULT SafeArrayCopy(SAFEARRAY* array, SAFEARRAY** copy) {
    if (copy == nullptr) {
        return E_INVALIDARG;
    }
    *copy = nullptr;
    if (array == nullptr) {
        return S_OK;
    }
    const std::uint32_t count = array->rgsabound[0].cElements;
    SAFEARRAY* result = SafeArrayCreateVector(array->vt, array->rgsabound[0].lLbound, count);
    if (result == nullptr) {
        return E_OUTOFMEMORY;
    }
    if (array->vt != VT_BSTR && array->vt != VT_VARIANT) {
        if (count > 0) {
            std::memcpy(result->pvData, array->pvData, std::size_t{count} * array->cbElements);
        }
        *copy = result;
        return S_OK;
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        const HRESULT hr = copyElement(array->vt, slotAt(result, i), slotAt(array, i));
        if (hr < 0) {
            SafeArrayDestroy(result);
            return hr;
        }
    }
    *copy = result;
    return S_OK;
}
