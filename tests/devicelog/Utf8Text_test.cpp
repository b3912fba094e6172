// SPDX-License-Identifier: MIT
// The well-formedness check that lets device text skip the decode and encode: whatever
// it accepts must come back unchanged from that round trip, byte for byte.

#include "Utf8Text.h"

#include <random>
#include <string>

#include <QString>

#include <gtest/gtest.h>

namespace {

std::string roundTrip(const std::string& bytes) {
    const QByteArray utf8 =
        QString::fromUtf8(bytes.data(), static_cast<qsizetype>(bytes.size())).toUtf8();
    return std::string(utf8.constData(), static_cast<std::size_t>(utf8.size()));
}

bool wellFormed(const std::string& bytes) {
    return Utf8Text::isWellFormed(bytes.data(), bytes.size());
}

TEST(Utf8Text, AcceptsExactlyTheTextsTheRoundTripKeeps) {
    struct Case {
        std::string bytes;
        bool accepted;
    };
    const Case cases[] = {
        {"", true},
        {"plain ascii, long enough for whole words\n", true},
        {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", true},  // 2, 3 and 4 bytes
        {"\xf4\x8f\xbf\xbf", true},                           // U+10FFFF
        {std::string("a\0b", 3), false},                      // NUL
        {"\xef\xbb\xbfwith a byte-order mark", false},        // BOM
        {"\xc0\xaf", false},                                  // overlong "/"
        {"\xe0\x80\xaf", false},                              // overlong
        {"\xed\xa0\x80", false},                              // surrogate
        {"\xf4\x90\x80\x80", false},                          // above U+10FFFF
        {"\xc3", false},                                      // cut short
        {"abcdefg\xe2\x82", false},                           // cut short at the end
        {"\x80 lone continuation", false},
        {"\xff", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(wellFormed(c.bytes), c.accepted) << c.bytes;
        if (c.accepted) {
            EXPECT_EQ(roundTrip(c.bytes), c.bytes);
        }
    }
}

TEST(Utf8Text, RandomBytesItAcceptsSurviveTheRoundTrip) {
    std::mt19937 random(20261125);
    // Mostly text with some multi-byte characters and now and then a stray byte.
    const std::string pieces[] = {"a",
                                  "Z",
                                  " ",
                                  "\n",
                                  "\xc3\xa9",
                                  "\xe2\x82\xac",
                                  "\xf0\x9f\x98\x80",
                                  "\xed\x9f\xbf",
                                  "\xee\x80\x80"};
    int accepted = 0;
    for (int i = 0; i < 20000; ++i) {
        std::string bytes;
        const int length = static_cast<int>(random() % 40);
        for (int j = 0; j < length; ++j) {
            if (random() % 50 == 0) {
                bytes += static_cast<char>(random() % 256);
            } else {
                bytes += pieces[random() % (sizeof(pieces) / sizeof(pieces[0]))];
            }
        }
        if (!wellFormed(bytes)) continue;
        ++accepted;
        ASSERT_EQ(roundTrip(bytes), bytes);
    }
    EXPECT_GT(accepted, 5000);
}

TEST(Utf8Text, ControlCharactersAreEscapedForOneLine) {
    EXPECT_EQ(Utf8Text::escapeControls(std::string("a\tb\nc\x1b[0m\x7f\0\xc3\xa9", 13)),
              "a\\x09b\\x0ac\\x1b[0m\\x7f\\x00\xc3\xa9");
    EXPECT_EQ(Utf8Text::escapeControls("a\tb\n", true), "a\tb\\x0a");
}

}  // namespace
