// SPDX-License-Identifier: MIT
#include "StdString.h"

#include <QString>

#include <gtest/gtest.h>

TEST(StdString, FormatReplacesAndAppendFormatAppends) {
    CStdStr s("old");
    s.Format("%s=%d", "x", 42);
    EXPECT_EQ(s, "x=42");
    s.AppendFormat(" (0x%1$x, %1$d)", 255);  // positional arguments too
    EXPECT_EQ(s, "x=42 (0xff, 255)");
}

TEST(StdString, AppendFormatGrowsPastTheFirstBuffer) {
    // Exactly at and around the 128-byte first buffer, and far beyond it.
    for (size_t length : {126u, 127u, 128u, 129u, 5000u}) {
        CStdStr s("<");
        const std::string payload(length, 'a');
        s.AppendFormat("%s>", payload.c_str());
        ASSERT_EQ(s.size(), length + 2) << length;
        EXPECT_EQ(s, "<" + payload + ">");
    }
}

TEST(StdString, ReplaceResumesAfterInsertedText) {
    CStdStr s("aaa");
    EXPECT_EQ(s.Replace("a", "aa"), 3);
    EXPECT_EQ(s, "aaaaaa");
    CStdStr path("a\\b\\c");
    EXPECT_EQ(path.Replace("\\", "."), 2);
    EXPECT_EQ(path, "a.b.c");
    EXPECT_EQ(path.Replace("", "x"), 0);
    EXPECT_EQ(path.Replace("zz", "x"), 0);
}

TEST(StdString, QStringConversionIsUtf8AndCutAtFirstNul) {
    const QString text = QString::fromUtf8("caf\xC3\xA9") + QChar(0) + QStringLiteral("tail");
    const CStdStr converted(text);
    EXPECT_EQ(converted, "caf\xC3\xA9");
    EXPECT_EQ(CStdStr("\xC3\xA9t\xC3\xA9").toQString(), QString::fromUtf8("\xC3\xA9t\xC3\xA9"));
}

TEST(StdString, NullCharPointerIsEmpty) {
    const char* none = nullptr;
    CStdStr s(none);
    EXPECT_TRUE(s.empty());
    s = "x";
    s = none;
    EXPECT_TRUE(s.empty());
}
