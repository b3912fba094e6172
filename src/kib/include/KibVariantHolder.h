// SPDX-License-Identifier: MIT
// KibVariantHolder: sole owner of one VARIANT and everything in it (strings, arrays,
// nested values). It releases them in its destructor, moves freely, and copies only
// through copyFrom() / deepCopy(). Readers get a const view; writers fill it through
// out() or change it in place through edit(). Like the value it holds, one holder must not be used
// by two threads at once.
#pragma once

#include <utility>

#include "KibVariant.h"

class KibVariantHolder {
public:
    // An empty (VT_EMPTY) value.
    KibVariantHolder() noexcept { VariantInit(&value_); }

    // Takes ownership of `value`, which is left VT_EMPTY.
    static KibVariantHolder adopt(VARIANT& value) noexcept {
        KibVariantHolder holder;
        holder.value_ = value;
        VariantInit(&value);
        return holder;
    }

    KibVariantHolder(const KibVariantHolder&) = delete;
    KibVariantHolder& operator=(const KibVariantHolder&) = delete;

    KibVariantHolder(KibVariantHolder&& other) noexcept : value_(other.value_) {
        VariantInit(&other.value_);
    }
    KibVariantHolder& operator=(KibVariantHolder&& other) noexcept {
        if (this != &other) {
            reset();
            value_ = other.value_;
            VariantInit(&other.value_);
        }
        return *this;
    }

    ~KibVariantHolder() { reset(); }

    // Replaces the held value by a deep copy of `source`. On failure the holder is
    // left empty and the status is returned.
    HRESULT copyFrom(const VARIANT& source) { return VariantCopy(&value_, &source); }

    // A deep copy into `copy` (replacing what it held); the status of the copy.
    HRESULT deepCopy(KibVariantHolder& copy) const { return copy.copyFrom(value_); }

    // The held value, lent for reading; valid until the holder changes.
    const VARIANT& get() const noexcept { return value_; }
    VARTYPE vt() const noexcept { return value_.vt; }

    // Lends the held value for changing in place (storing array elements, for
    // instance); it stays owned by the holder and must be left a valid value.
    VARIANT& edit() noexcept { return value_; }

    // Releases the held value and lends the (now VT_EMPTY) storage for filling, for
    // instance as the target of SafeArrayGetElement or VariantCopy.
    VARIANT* out() noexcept {
        reset();
        return &value_;
    }

    // Gives up ownership: returns the value and leaves the holder empty.
    VARIANT release() noexcept {
        VARIANT value = value_;
        VariantInit(&value_);
        return value;
    }

    // Releases the held value. A value whose array is still accessed (locked) cannot
    // be released; it is then given up rather than left half-owned.
    void reset() noexcept {
        if (VariantClear(&value_) < 0) {
            VariantInit(&value_);
        }
    }

private:
    VARIANT value_{};
};
