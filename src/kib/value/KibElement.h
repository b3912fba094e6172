// SPDX-License-Identifier: MIT
// Element rules shared by the value primitives: which element types an array may
// hold, how wide they are, and how one element is released and copied. Internal to
// the value library; no state, any thread.
#pragma once

#include <cstdint>

#include "KibVariant.h"

namespace kibvalue {

// Bytes per element of an array of `vt`, or 0 when arrays of `vt` are not supported.
std::uint32_t elementSize(VARTYPE vt);

// Releases what the element at `slot` owns (a BSTR, or a VARIANT's contents) and
// leaves it zeroed. Returns a failure status only when a nested array is locked.
HRESULT releaseElement(VARTYPE vt, void* slot);

// Copies `src` into the uninitialised element storage `dest` (deep for VARIANTs,
// duplicated for BSTRs). On failure `dest` is left zeroed.
HRESULT copyElement(VARTYPE vt, void* dest, const void* src);

}  // namespace kibvalue
