// SPDX-License-Identifier: MIT
// The history's word filter: whatever a text holds within a line the filter says it may
// hold, in any letter case and across the pieces the text was added in; words it does
// not hold are ruled out nearly always; text too varied to summarize, and needles the
// filter cannot judge, are never ruled out.

#include "DeviceLogTrigrams.h"

#include <random>
#include <string>

#include <gtest/gtest.h>

#include "LogCorpus.h"

namespace {

std::string randomWord(std::mt19937& rng, std::size_t length) {
    std::string word;
    for (std::size_t i = 0; i < length; ++i) word.push_back(static_cast<char>('a' + rng() % 26));
    return word;
}

TEST(DeviceLogTrigrams, NeverRulesOutWhatTheTextHolds) {
    std::mt19937 rng(7);
    // Log text with a few lines of other scripts and upper case, added in uneven pieces
    // so that sequences span the calls.
    std::string text = nimbtest::deviceCorpus(256 * 1024, 11) +
                       "Kernel: SEGFAULT at 0000 ip ÄÖÜ Grüße – 日本語のログ\n" +
                       nimbtest::syslogCorpus(256 * 1024, 12);
    DeviceLogTrigrams trigrams;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t n = std::min<std::size_t>(1 + rng() % 5000, text.size() - at);
        trigrams.add(std::string_view(text).substr(at, n));
        at += n;
    }
    const std::string filter = trigrams.finish();
    ASSERT_FALSE(filter.empty());
    EXPECT_LT(filter.size(), text.size() / DeviceLogTrigrams::kMaxShare);

    for (const char* word : {"segfault", "SegFault", "Grüße", "日本語", "ip Ä", "DEBUG"}) {
        EXPECT_TRUE(DeviceLogTrigrams::mayHold(filter, word)) << word;
    }
    for (int i = 0; i < 2000; ++i) {
        const std::size_t at = rng() % (text.size() - 40);
        std::string needle = text.substr(at, 3 + rng() % 30);
        needle = needle.substr(0, needle.find('\n'));
        if (i % 2 == 1) {
            for (char& c : needle) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
        }
        ASSERT_TRUE(DeviceLogTrigrams::mayHold(filter, needle)) << needle;
    }

    // Words the text does not hold: almost all ruled out. Too little text gets no filter.
    int ruledOut = 0;
    for (int i = 0; i < 1000; ++i)
        ruledOut += !DeviceLogTrigrams::mayHold(filter, randomWord(rng, 8));
    EXPECT_GT(ruledOut, 990);
    DeviceLogTrigrams joined;
    joined.add("alpha\nbeta\n");
    EXPECT_TRUE(joined.finish().empty());
}

TEST(DeviceLogTrigrams, WhatCannotBeJudgedIsNeverRuledOut) {
    DeviceLogTrigrams trigrams;
    // Random bytes hold too many sequences: no filter, everything may be there.
    std::mt19937 rng(3);
    std::string noise(512 * 1024, '\0');
    for (char& c : noise) c = static_cast<char>(rng());
    trigrams.add(noise);
    EXPECT_EQ(trigrams.finish(), "");
    EXPECT_TRUE(DeviceLogTrigrams::mayHold("", "anything"));

    // A filter is built fresh after finish(), and short needles, needles across a line
    // end and damaged encodings are never ruled out.
    trigrams.add(nimbtest::syslogCorpus(512 * 1024, 5));
    std::string filter = trigrams.finish();
    ASSERT_FALSE(filter.empty());
    EXPECT_FALSE(DeviceLogTrigrams::mayHold(filter, "qzxqzxqzx"));
    EXPECT_TRUE(DeviceLogTrigrams::mayHold(filter, "qz"));
    EXPECT_TRUE(DeviceLogTrigrams::mayHold(filter, "qzx\nqzx"));
    for (const char probes : {'\0', '\x11', '\xff'}) {
        filter[0] = probes;
        EXPECT_TRUE(DeviceLogTrigrams::mayHold(filter, "qzxqzxqzx"));
    }
    EXPECT_TRUE(DeviceLogTrigrams::mayHold(std::string(1, '\x05'), "qzxqzxqzx"));
}

}  // namespace
