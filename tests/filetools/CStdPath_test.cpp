// SPDX-License-Identifier: MIT
#include "CStdPath.h"

#include <gtest/gtest.h>

TEST(CStdPath, AppendPathPutsExactlyOneSlashBetweenTheParts) {
    struct Case {
        const char* base;
        const char* tail;
        const char* joined;
    };
    for (const Case& c :
         {Case{"a", "b", "a/b"}, Case{"a/", "/b", "a/b"}, Case{"/a//", "//b/c/", "/a/b/c/"},
          Case{"/", "etc", "/etc"}, Case{"/", "/", "/"}, Case{"", "b", "b"}, Case{"a", "", "a"},
          Case{"/opt/x/", "bin", "/opt/x/bin"}}) {
        EXPECT_EQ(CStdPath::AppendPath(c.base, c.tail), c.joined) << c.base << " + " << c.tail;
    }
}
