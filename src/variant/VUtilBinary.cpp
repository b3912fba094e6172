// SPDX-License-Identifier: MIT
// Binary blocks carried as arrays of bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "VUtil.h"
#include "VUtilDetail.h"

namespace VUtil {

using detail::fail;
using detail::failFormat;

namespace {

constexpr unsigned short kByteArray = VT_ARRAY | VT_UI1;
constexpr unsigned short kCharArray = VT_ARRAY | VT_I1;

// Lends an array's data block for the lifetime of the guard.
class DataAccess {
public:
    explicit DataAccess(SAFEARRAY* array) : array_(array) {
        if (SafeArrayAccessData(array_, &data_) < 0) {
            array_ = nullptr;
            data_ = nullptr;
        }
    }
    DataAccess(const DataAccess&) = delete;
    DataAccess& operator=(const DataAccess&) = delete;
    ~DataAccess() {
        if (array_ != nullptr) {
            SafeArrayUnaccessData(array_);
        }
    }
    const unsigned char* bytes() const { return static_cast<const unsigned char*>(data_); }
    unsigned char* bytes() { return static_cast<unsigned char*>(data_); }

private:
    SAFEARRAY* array_ = nullptr;
    void* data_ = nullptr;
};

// The element count recorded in a byte array (0 when there is none).
unsigned long recordedCount(const tagVARIANT& v) {
    return v.parray == nullptr ? 0 : v.parray->rgsabound[0].cElements;
}

}  // namespace

void PutBinaryIntoVariant(tagVARIANT* v, unsigned char* data, unsigned long length) {
    VariantClear(v);
    v->vt = kByteArray;
    if (length <= UINT32_MAX) {
        v->parray = SafeArrayCreateVector(VT_UI1, 0, static_cast<std::uint32_t>(length));
    }
    if (v->parray == nullptr) {
        fail("PutBinaryIntoVariant: could not create safe array");
    }
    DataAccess access(v->parray);
    if (length > 0) {
        std::memcpy(access.bytes(), data, length);
    }
}

unsigned long GetBinaryElement(const tagVARIANT& v, unsigned char* dest, unsigned long offset,
                               unsigned long maxLength) {
    if ((v.vt != kByteArray && v.vt != kCharArray) || v.parray == nullptr ||
        v.parray->cbElements != 1) {
        failFormat("Element is not an array of (unsigned) char: %d", v.vt);
    }
    const unsigned long total = recordedCount(v);
    if (offset >= total) {
        return 0;
    }
    // Compared without adding, so that a huge maximum cannot wrap around.
    const unsigned long n = maxLength > total - offset ? total - offset : maxLength;
    if (n > 0) {
        const DataAccess access(v.parray);
        std::memcpy(dest, access.bytes() + offset, n);
    }
    return n;
}

void GetBinaryElement(const tagVARIANT& v, int index, unsigned char*& data, unsigned long& length) {
    if (v.vt != (VT_ARRAY | VT_VARIANT)) {
        failFormat("Not an array of variant: %d", v.vt);
    }
    const KibVariantHolder element = detail::fetchVariant(v, index);
    if (element.vt() != kByteArray || element.get().parray == nullptr) {
        failFormat("Element is not an array of unsigned char: %d", element.vt());
    }
    const unsigned long count = recordedCount(element.get());
    auto buffer = std::make_unique<unsigned char[]>(count);
    const DataAccess access(element.get().parray);
    if (count > 0) {
        std::memcpy(buffer.get(), access.bytes(), count);
    }
    length = count;
    data = buffer.release();
}

unsigned long GetByteArray(const tagVARIANT& v, int index, unsigned char** data) {
    if (v.vt != (VT_ARRAY | VT_VARIANT)) {
        fail("Not an array of variant");
    }
    const KibVariantHolder element = detail::fetchVariant(v, index);
    if (element.vt() != kByteArray) {
        fail("Element is not an unsigned char array");
    }
    const unsigned long size = static_cast<unsigned long>(GetArrayLength(element.get()));
    auto* buffer = static_cast<unsigned char*>(std::malloc(size));
    if (buffer == nullptr) {
        fail("Could not allocate data buffer");
    }
    const DataAccess access(element.get().parray);
    if (size > 0) {
        std::memcpy(buffer, access.bytes(), size);
    }
    *data = buffer;
    return size;
}

}  // namespace VUtil
