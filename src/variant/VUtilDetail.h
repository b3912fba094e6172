// SPDX-License-Identifier: MIT
// Helpers shared by the VUtil sources: throwing the standard exception, element access
// that checks the array's own element type before the primitives copy into a fixed-
// size target, and BSTR <-> CStdStr. Internal to the variant library.
#pragma once

#include "KibException.h"
#include "KibVariant.h"
#include "KibVariantHolder.h"
#include "StdString.h"

namespace VUtil::detail {

// Throws KibInvalidParameterException with `message`.
[[noreturn]] void fail(const char* message);
// Throws KibInvalidParameterException with the printf-style formatted text.
[[noreturn]] void failFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The array of `v` when its elements are of `elementVt`, else null. A value whose
// type code and array disagree is treated as having no array.
SAFEARRAY* arrayOf(const tagVARIANT& v, VARTYPE elementVt);

// SafeArrayGetElement / SafeArrayPutElement on the array of `v`, provided it holds
// elements of `elementVt`; otherwise E_INVALIDARG.
HRESULT readElement(const tagVARIANT& v, int index, VARTYPE elementVt, void* out);
HRESULT writeElement(tagVARIANT& v, int index, VARTYPE elementVt, const void* in);

// Element `index` of an array of VARIANTs, fetched with GetElement (its failures).
KibVariantHolder fetchVariant(const tagVARIANT& v, int index);

// The characters of a BSTR (null gives "").
CStdStr bstrText(BSTR text);
// A new BSTR with the characters of `text` (embedded NULs kept).
BSTR allocBstr(const CStdStr& text);

}  // namespace VUtil::detail
