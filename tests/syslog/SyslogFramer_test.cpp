// SPDX-License-Identifier: MIT
// Stream framing: both framings, split at every byte, the size cut, bad lengths.

#include "SyslogFramer.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Framed {
    std::vector<std::string> messages;
    std::vector<std::size_t> cuts;
    bool ok = true;
};

// Feeds `stream` in pieces of `piece` bytes (0: at once), then ends the connection.
Framed frame(const std::string& stream, std::size_t piece, std::size_t maxSize = 64) {
    SyslogFramer framer(maxSize);
    Framed out;
    const SyslogFramer::Deliver deliver = [&](std::string_view message, std::size_t cut) {
        out.messages.emplace_back(message);
        out.cuts.push_back(cut);
    };
    const std::size_t step = piece == 0 ? stream.size() : piece;
    for (std::size_t pos = 0; pos < stream.size() && out.ok; pos += step)
        out.ok = framer.feed(std::string_view(stream).substr(pos, step), deliver);
    if (out.ok) framer.finish(deliver);
    return out;
}

TEST(SyslogFramerTest, BothFramingsGiveTheSameMessagesAtEverySplit) {
    const std::vector<std::string> expected = {"<13>one", "<13>two 2", "<13>three\nlines"};
    const std::string counted = "7 <13>one9 <13>two 2\n15 <13>three\nlines";
    const std::string lines = "<13>one\r\n<13>two 2\n\n<13>three";
    for (std::size_t piece = 0; piece <= 8; ++piece) {
        SCOPED_TRACE(piece);
        const Framed byCount = frame(counted, piece);
        EXPECT_TRUE(byCount.ok);
        EXPECT_EQ(byCount.messages, expected);
        const Framed byLine = frame(lines, piece);
        EXPECT_TRUE(byLine.ok);
        // LF framing cannot carry the newline inside the third message; the CR stays for
        // the parser to drop.
        EXPECT_EQ(byLine.messages,
                  (std::vector<std::string>{"<13>one\r", "<13>two 2", "<13>three"}));
    }
}

TEST(SyslogFramerTest, LongMessagesKeepTheirStartAndCountTheRest) {
    const std::string big(100, 'a');
    for (std::size_t piece : {0, 1, 7}) {
        const Framed byLine = frame(big + "\n<13>next\n", piece, 64);
        ASSERT_EQ(byLine.messages.size(), 2u);
        EXPECT_EQ(byLine.messages[0], big.substr(0, 64));
        EXPECT_EQ(byLine.cuts[0], 36u);
        EXPECT_EQ(byLine.messages[1], "<13>next");
        const Framed byCount = frame("100 " + big + "4 next", piece, 64);
        ASSERT_EQ(byCount.messages.size(), 2u);
        EXPECT_EQ(byCount.cuts[0], 36u);
        EXPECT_EQ(byCount.messages[1], "next");
    }
}

TEST(SyslogFramerTest, BadLengthsEndTheConnection) {
    EXPECT_FALSE(frame("5 <13>a1234567890 x", 0).ok);  // more than 9 digits
    EXPECT_FALSE(frame("5 <13>ax", 0).ok);             // text where a length must be
    // A digit run that is not a length makes the connection line-framed.
    const Framed lines = frame("2026-11-24T10:00:00Z host app - - - x\n", 3);
    EXPECT_TRUE(lines.ok);
    EXPECT_EQ(lines.messages.size(), 1u);
    EXPECT_EQ(frame("1234567890123", 0).messages, std::vector<std::string>{"1234567890123"});
}

}  // namespace
