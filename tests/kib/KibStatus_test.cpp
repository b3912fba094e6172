// SPDX-License-Identifier: MIT
// Status texts come from one table: every code has its own text.

#include "KibStatus.h"

#include <set>
#include <string>

#include <gtest/gtest.h>

TEST(KibStatusTest, EveryCodeHasItsOwnTextAndOthersAreUnknown) {
    std::set<std::string> texts{KibStatusText(KIB_OK)};
    for (unsigned n = 1; n <= kKibLastErrorNumber; ++n) {
        const std::string text = KibStatusText(kibErrorCode(n));
        EXPECT_NE(text, "unknown status") << n;
        EXPECT_TRUE(texts.insert(text).second) << "text used twice: " << text;
    }
    EXPECT_STREQ(KibStatusText(KIB_E_CONNECTION_LOST), "connection lost");
    EXPECT_STREQ(KibStatusText(kibErrorCode(kKibLastErrorNumber + 1)), "unknown status");
    EXPECT_STREQ(KibStatusText(2), "unknown status");
}
