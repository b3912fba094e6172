// SPDX-License-Identifier: MIT
// The VARIANT owner: release on destruction and on reuse, moves, explicit deep copy.
#include "KibVariantHolder.h"

#include <cstdint>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "TestValues.h"

namespace {

using testvalues::strings;

std::string element(const VARIANT& v, std::int32_t i) {
    BSTR s = nullptr;
    EXPECT_EQ(SafeArrayGetElement(v.parray, &i, &s), S_OK);
    std::string text(s ? s : "");
    SysFreeString(s);
    return text;
}

}  // namespace

TEST(KibVariantHolder, MovesOwnershipAndCopiesOnlyOnRequest) {
    KibVariantHolder a = strings({"one", "two"});
    KibVariantHolder b = std::move(a);
    EXPECT_EQ(a.vt(), VT_EMPTY);  // NOLINT(bugprone-use-after-move): moved-from is empty
    EXPECT_EQ(b.vt(), VT_ARRAY | VT_BSTR);

    KibVariantHolder copy;
    ASSERT_EQ(b.deepCopy(copy), S_OK);
    EXPECT_NE(copy.get().parray, b.get().parray);
    b = strings({"three"});  // the old array is released
    EXPECT_EQ(element(copy.get(), 1), "two");
    EXPECT_EQ(element(b.get(), 0), "three");
}

TEST(KibVariantHolder, AdoptAndReleaseHandOverTheValue) {
    VARIANT raw;
    VariantInit(&raw);
    raw.vt = VT_BSTR;
    raw.bstrVal = SysAllocString("owned");
    KibVariantHolder holder = KibVariantHolder::adopt(raw);
    EXPECT_EQ(raw.vt, VT_EMPTY);
    EXPECT_STREQ(holder.get().bstrVal, "owned");

    VARIANT back = holder.release();
    EXPECT_EQ(holder.vt(), VT_EMPTY);
    EXPECT_EQ(VariantClear(&back), S_OK);
}
