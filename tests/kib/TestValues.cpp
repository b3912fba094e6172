// SPDX-License-Identifier: MIT
#include "TestValues.h"

namespace testvalues {

namespace {

testing::AssertionResult sameString(BSTR a, BSTR b) {
    if ((a == nullptr) != (b == nullptr))
        return testing::AssertionFailure() << "null vs non-null string";
    if (a == nullptr) return testing::AssertionSuccess();
    if (SysStringLen(a) != SysStringLen(b) || std::memcmp(a, b, SysStringLen(a)) != 0) {
        return testing::AssertionFailure() << "strings differ: '" << a << "' vs '" << b << "'";
    }
    return testing::AssertionSuccess();
}

testing::AssertionResult sameElement(VARTYPE t, const void* a, const void* b) {
    if (t == VT_VARIANT)
        return sameValue(*static_cast<const VARIANT*>(a), *static_cast<const VARIANT*>(b));
    if (t == VT_BSTR) return sameString(*static_cast<const BSTR*>(a), *static_cast<const BSTR*>(b));
    if (t == VT_BOOL) {
        const bool x = *static_cast<const VARIANT_BOOL*>(a) != 0;
        const bool y = *static_cast<const VARIANT_BOOL*>(b) != 0;
        return x == y ? testing::AssertionSuccess() : testing::AssertionFailure() << "bools differ";
    }
    if (std::memcmp(a, b, KibArrayElementSize(t)) != 0)
        return testing::AssertionFailure() << "scalars differ (type " << t << ")";
    return testing::AssertionSuccess();
}

}  // namespace

testing::AssertionResult sameValue(const VARIANT& a, const VARIANT& b) {
    if (a.vt != b.vt) return testing::AssertionFailure() << "types " << a.vt << " vs " << b.vt;
    if (a.vt == VT_EMPTY || a.vt == VT_NULL) return testing::AssertionSuccess();
    if ((a.vt & VT_ARRAY) == 0) return sameElement(a.vt, &a.llVal, &b.llVal);
    const SAFEARRAY* x = a.parray;
    const SAFEARRAY* y = b.parray;
    if (x->rgsabound[0].cElements != y->rgsabound[0].cElements)
        return testing::AssertionFailure() << "lengths differ";
    if (x->rgsabound[0].lLbound != y->rgsabound[0].lLbound)
        return testing::AssertionFailure() << "bounds differ";
    const VARTYPE t = static_cast<VARTYPE>(a.vt & ~VT_ARRAY);
    for (std::uint32_t i = 0; i < x->rgsabound[0].cElements; ++i) {
        auto r = sameElement(t, static_cast<const char*>(x->pvData) + i * x->cbElements,
                             static_cast<const char*>(y->pvData) + i * y->cbElements);
        if (!r) return r << " at element " << i;
    }
    return testing::AssertionSuccess();
}

}  // namespace testvalues
