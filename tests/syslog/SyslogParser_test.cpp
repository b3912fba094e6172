// SPDX-License-Identifier: MIT
// The parser against the corpus of real-world shapes (corpus/shapes.txt): every field
// that names a file or lands in the text, plus the cut at the maximum size.

#include "SyslogParser.h"

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Shape {
    std::string title;
    std::string raw, host, app, stamp, text;
};

// "\xHH" is one byte, "\\" a backslash.
std::string unescape(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size() && text[i + 1] == '\\') {
            out += '\\';
            ++i;
        } else if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x') {
            out += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else {
            out += text[i];
        }
    }
    return out;
}

std::vector<Shape> readShapes() {
    std::ifstream in(SYSLOG_CORPUS);
    std::vector<Shape> shapes;
    Shape shape;
    std::string line, comment;
    auto field = [&](const char* name, std::string& value) {
        const std::string prefix = std::string(name) + ":";
        if (line.rfind(prefix, 0) != 0) return false;
        value = unescape(line.size() > prefix.size() ? line.substr(prefix.size() + 1) : "");
        return true;
    };
    while (std::getline(in, line)) {
        if (line.rfind("# ", 0) == 0) comment = line.substr(2);
        if (field("raw", shape.raw)) shape.title = comment;
        field("host", shape.host);
        field("app", shape.app);
        field("stamp", shape.stamp);
        if (field("text", shape.text)) shapes.push_back(shape);
    }
    return shapes;
}

std::string describe(const SyslogStamp& stamp) {
    if (!stamp.present) return "none";
    std::ostringstream out;
    out << (stamp.hasYear ? stamp.year : 0) << "-" << stamp.month << "-" << stamp.day << " "
        << stamp.hour << ":" << stamp.minute << ":" << stamp.second << "." << stamp.millisecond;
    if (stamp.hasZone) out << " zone " << stamp.zoneMinutes;
    return out.str();
}

TEST(SyslogParserTest, CorpusShapesGiveTheirFields) {
    const std::vector<Shape> shapes = readShapes();
    ASSERT_GE(shapes.size(), 15u);
    for (const Shape& shape : shapes) {
        SCOPED_TRACE(shape.title);
        const SyslogMessage message = SyslogParser::parse(shape.raw, 8192);
        EXPECT_EQ(message.hostname, shape.host);
        EXPECT_EQ(message.appName, shape.app);
        EXPECT_EQ(describe(message.stamp), shape.stamp);
        EXPECT_EQ(message.text, shape.text);
        // The stamp, when read, is where the text begins.
        if (message.stamp.present) {
            EXPECT_GT(message.stampLength, 0u);
        }
        EXPECT_LE(message.stampLength, message.text.size());
    }
}

TEST(SyslogParserTest, LongMessageIsCutAndCounted) {
    const std::string body(10000, 'x');
    const SyslogMessage message = SyslogParser::parse("<13>Nov 24 17:20:58 vm app: " + body, 8192);
    EXPECT_EQ(message.truncatedBytes, 28 + body.size() - 8192);
    EXPECT_EQ(message.text.size(), 8192u - 4);  // the priority is not part of the text
    EXPECT_EQ(message.appName, "app");
}

TEST(SyslogParserTest, EveryPrefixOfAMessageParsesWithoutHarm) {
    const std::string full =
        "<165>1 2003-10-11T22:14:15.003Z host app - ID47 [a@1 b=\"c\\\"]\"] \xEF\xBB\xBFmsg";
    for (std::size_t length = 0; length <= full.size(); ++length) {
        const SyslogMessage message = SyslogParser::parse(full.substr(0, length), 8192);
        EXPECT_LE(message.stampLength, message.text.size()) << length;
    }
}

TEST(SyslogParserTest, StampReadersRejectNearMisses) {
    SyslogStamp stamp;
    for (const char* text :
         {"2026-13-01T00:00:00Z", "2026-11-24T24:00:00Z", "2026-11-24 17:20:58", "2026-11-24T17:20",
          "Foo 24 17:20:58", "Nov 24 17:61:58", "Nov 0 17:20:58", "Nov 24 17:20"}) {
        EXPECT_EQ(SyslogParser::readIsoStamp(text, stamp) + SyslogParser::readBsdStamp(text, stamp),
                  0u)
            << text;
    }
    // A zone that cannot be read leaves the stamp without one.
    EXPECT_EQ(SyslogParser::readIsoStamp("2026-11-24T17:20:58+1", stamp), 19u);
    EXPECT_FALSE(stamp.hasZone);
    EXPECT_EQ(SyslogParser::readIsoStamp("2026-11-24T17:20:58-05:30", stamp), 25u);
    EXPECT_EQ(stamp.zoneMinutes, -330);
}

}  // namespace
