// SPDX-License-Identifier: MIT
// The parser against the corpus of real-world shapes (corpus/shapes.txt): every field
// that names a file or lands in the text, plus the cut at the maximum size.

#include "SyslogParser.h"

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SyslogStore.h"

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

// Looser traditional forms as routers, switches and appliances send them: the name each
// is filed under (PEER: the sender's address), the application, and the stamp the text
// starts at ("": none, the text is everything after the priority).
TEST(SyslogParserTest, LooseTraditionalFormsNameTheirSender) {
    const std::vector<std::vector<std::string>> cases = {
        {"<13> Nov 25 10:00:00 host app: msg", "host", "app", "Nov 25 10:00:00"},
        {"<13>  2026-11-25T10:00:00Z nas.lan cron[7]: x", "nas.lan", "cron",
         "2026-11-25T10:00:00Z"},
        {"<13>Nov 25 10:00:00.250: -x.lan app: m", "PEER", "", "Nov 25 10:00:00.250"},
        {"<13>Nov 25 10:00:00: 10.0.0.2 app: m", "10.0.0.2", "app", "Nov 25 10:00:00"},
        {"<13>Nov 25 2026 10:00:00: fe80::1 app: m", "fe80::1", "app", "Nov 25 2026 10:00:00"},
        {"<13> Nov 5 2026 10:00:00: sw_2 app[1]: m", "sw_2", "app", "Nov 5 2026 10:00:00"},
        {"<189>32: *Mar  1 00:04:36.127: %SYS-5-CONFIG_I: Configured", "PEER", "%SYS-5-CONFIG_I",
         "Mar  1 00:04:36.127"},
        {"<187>1204: core-sw: .Nov 25 10:00:00.5 CET: %LINK-3-UPDOWN: up", "core-sw",
         "%LINK-3-UPDOWN", "Nov 25 10:00:00.5 CET"},
        {"<13>4: Nov 25 10:00:00 CRON: x", "PEER", "CRON", "Nov 25 10:00:00"},
        {"<13> Nov 25 10:00:00 ../etc app: x", "PEER", "", "Nov 25 10:00:00"},
        {"<13>Nov 25 10:00:00: host: x", "PEER", "host", "Nov 25 10:00:00"},
        {"<13>9: ../up: Nov 25 10:00:00: app: x", "PEER", "9", ""},
        {"<13>Nov 25 10:00:00:host app: x", "PEER", "", ""},
    };
    for (const std::vector<std::string>& c : cases) {
        SCOPED_TRACE(c[0]);
        const SyslogMessage message = SyslogParser::parse(c[0], 8192);
        std::string why;
        EXPECT_EQ(SyslogStore::senderName(message.hostname, "PEER", why), c[1]);
        EXPECT_EQ(message.appName, c[2]);
        EXPECT_EQ(message.stamp.present, !c[3].empty());
        EXPECT_EQ(message.text.substr(0, message.stampLength), c[3]);
        EXPECT_EQ(message.text, c[0].substr(c[3].empty() ? c[0].find('>') + 1 : c[0].find(c[3])));
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
