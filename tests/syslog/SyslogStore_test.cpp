// SPDX-License-Identifier: MIT
// Where received messages go: file names (hostile ones included), the header line, the
// clock rewriting, the notes on cut messages and the sender and application caps. Each
// test files into its own logs folder and reads the files once the store is gone.

#include "SyslogStore.h"

#include <ctime>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "DeviceLogConverter.h"
#include "DeviceLogWriter.h"
#include "NimbTestSupport.h"

namespace {

using namespace nimbtest;

class SyslogStoreTest : public ConfigHomeTest {
protected:
    void SetUp() override {
        ConfigHomeTest::SetUp();
        fs::create_directory(logs());
        setSuiteSetting("LogsDir", logs().string());
    }
    fs::path logs() const { return fs::path(dir_.path()) / "logs"; }
    std::string file(const std::string& name) const { return readFile(logs() / name); }
    std::set<std::string> files() const {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(logs()))
            names.insert(entry.path().filename().string());
        return names;
    }
    // A writer for the logs folder; its destruction writes everything it was given.
    std::shared_ptr<DeviceLogWriter> writer() const {
        DeviceLogWriter::Options options;
        options.logsDir = logs().string();
        options.threads = 1;
        return std::make_shared<DeviceLogWriter>(options);
    }
    // Files every message from `address` at `arrival`, then releases the store and writes.
    void store(const std::vector<std::string>& messages, long long arrival,
               const std::string& address = "192.168.1.9") {
        SyslogStore target(settings_, counters_, writer());
        for (const std::string& message : messages) target.add(message, 0, address, arrival * 1000);
    }
    // Files each message from `address` at its own arrival (ms since 1970).
    void storeAt(const std::vector<std::pair<std::string, long long>>& messages,
                 const std::string& address = "192.168.1.9") {
        SyslogStore target(settings_, counters_, writer());
        for (const auto& [message, arrivalMs] : messages)
            target.add(message, 0, address, arrivalMs);
    }
    // `seconds` as a traditional stamp, "Nov 24 10:00:00" (the tests run in UTC).
    static std::string stamp(long long seconds) {
        const time_t value = static_cast<time_t>(seconds);
        tm t{};
        gmtime_r(&value, &t);
        char text[32];
        std::strftime(text, sizeof(text), "%b %d %H:%M:%S", &t);
        return text;
    }
    static long long utc(int month, int day, int hour, int minute, int second) {
        return DeviceLogConverter::utcSeconds(dateTime(2026, month, day, hour, minute, second));
    }

    ScopedTimeZone zone_{"UTC"};
    SyslogSettings settings_;
    SyslogCounters counters_;
};

TEST_F(SyslogStoreTest, OneFilePerSenderAndApplicationWithAHeader) {
    store(
        {"<13>Nov 24 10:00:00 router dnsmasq[1]: one", "<13>Nov 24 10:00:01 router dnsmasq[1]: two",
         "<13>Nov 24 10:00:01 router /usr/sbin/cron[2]: three", "<13>no stamp, no host"},
        utc(11, 24, 10, 0, 1));
    EXPECT_EQ(files(),
              (std::set<std::string>{"router-dnsmasq", "router-cron", "192.168.1.9-syslog"}));
    EXPECT_EQ(file("router-dnsmasq"),
              "\n===== router - syslog 192.168.1.9 clock -1 s === 2026/11/24 10:00:00 <-> "
              "2026/11/24 10:00:01 =====\n"
              "Nov 24 10:00:00 router dnsmasq[1]: one\nNov 24 10:00:01 router dnsmasq[1]: two\n");
    // Without a stamp of its own a line gets its arrival time.
    EXPECT_EQ(linesOf(file("192.168.1.9-syslog")).back(), "2026/11/24 10:00:01 no stamp, no host");
    EXPECT_NE(file("192.168.1.9-syslog").find("clock unknown"), std::string::npos);
    EXPECT_EQ(counters_.lines, 4u);
}

TEST_F(SyslogStoreTest, HostileHostNamesAreFiledUnderTheAddress) {
    const std::string longName(300, 'h');
    store({"<13>Nov 24 10:00:00 ../../etc evil: a", "<13>Nov 24 10:00:00 a/b evil: b",
           "<13>Nov 24 10:00:00 a\\b evil: c", "<13>Nov 24 10:00:00 tab\x01x evil: d",
           "<13>Nov 24 10:00:00 " + longName + " evil: e",
           "<13>Nov 24 10:00:00 .. ../../../../tmp/x: f", "<13>Nov 24 10:00:00 host /: g"},
          utc(11, 24, 10, 0, 0), "10.0.0.7");
    EXPECT_EQ(files(), (std::set<std::string>{"10.0.0.7-evil", "10.0.0.7-x", "host-syslog"}));
    EXPECT_EQ(linesOf(file("10.0.0.7-evil")).size(), 2u + 5u);  // header + 5 lines
    EXPECT_EQ(counters_.refusedNames, 6u);
    EXPECT_NE(file("10.0.0.7-evil").find("tab\\x01x evil: d"), std::string::npos);
}

TEST_F(SyslogStoreTest, APlantedLinkIsNeverWrittenThrough) {
    const fs::path outside = fs::path(dir_.path()) / "outside.txt";
    writeFile(outside, "keep\n");
    fs::create_symlink(outside, logs() / "nas-sshd");
    store({"<13>Nov 24 10:00:00 nas sshd[1]: owned", "<13>Nov 24 10:00:00 nas cron[1]: fine"},
          utc(11, 24, 10, 0, 0));
    EXPECT_EQ(readFile(outside), "keep\n");
    EXPECT_EQ(counters_.refusedFiles, 1u);
    EXPECT_NE(file("nas-cron").find("fine"), std::string::npos);
}

TEST_F(SyslogStoreTest, StampsAreRewrittenOnlyPastTheThreshold) {
    const long long arrival = utc(11, 24, 10, 0, 0);
    // One second off: left as sent. An hour behind: rewritten once lines every ten
    // seconds have shown it for half a minute, and the header says so; the lines before
    // keep their stamps under a header with the clock unknown.
    std::vector<std::pair<std::string, long long>> messages = {
        {"<13>Nov 24 10:00:01 near app: x", arrival * 1000}};
    for (int i = 0; i < 4; ++i)
        messages.emplace_back("<13>2026-11-24T08:59:" + std::to_string(20 + i * 10) +
                                  "Z far app: " + std::to_string(i),
                              (arrival - 40 + i * 10) * 1000);
    messages.emplace_back("<13>2026-11-24T09:00:00.500Z far app: y", arrival * 1000 + 400);
    messages.emplace_back("<13>2026-11-24T09:00:00Z far app: z", arrival * 1000 + 900);
    storeAt(messages);
    EXPECT_NE(file("near-app").find("\nNov 24 10:00:01 near app: x\n"), std::string::npos);
    const std::string far = file("far-app");
    EXPECT_EQ(far.rfind("\n===== far - syslog 192.168.1.9 clock unknown ===", 0), 0u);
    EXPECT_NE(far.find("\n2026-11-24T08:59:40Z far app: 2\n"), std::string::npos);
    EXPECT_NE(far.find("clock -3600 s, stamps rewritten === 2026/11/24 08:59:50 <-> "
                       "2026/11/24 09:59:50 =====\n2026/11/24 09:59:50 far app: 3\n"),
              std::string::npos);
    EXPECT_NE(far.find("\n2026/11/24 10:00:00 far app: y\n2026/11/24 10:00:00 far app: z\n"),
              std::string::npos);
}

TEST_F(SyslogStoreTest, ANewClockTieWritesANewHeader) {
    std::vector<std::pair<std::string, long long>> messages;
    // The sender's clock is set back by an hour after five lines, one line a second;
    // the estimate follows once the late stamps have held for 30 s.
    const long long start = utc(11, 24, 10, 0, 0);
    for (int i = 0; i < 200; ++i)
        messages.emplace_back("<13>" + stamp(start + i - (i < 5 ? 0 : 3600)) + " cam app: x",
                              (start + i) * 1000);
    storeAt(messages);
    const std::string text = file("cam-app");
    EXPECT_NE(text.find("clock +0 s ==="), std::string::npos);
    EXPECT_NE(text.find("clock -3600 s, stamps rewritten ==="), std::string::npos);
    EXPECT_EQ(text.find("=====", text.find("-3600 s") + 100), std::string::npos);  // only two
}

TEST_F(SyslogStoreTest, ABacklogAfterARestartKeepsItsStamps) {
    // A right clock, live every ten seconds; after a twenty-minute pause its queue
    // arrives within a second (stamps a second apart, a minute a second at the end),
    // then live lines again. Another sender's clock is an hour fast: its queued
    // lines are moved back by the hour, not to their arrival.
    const long long start = utc(11, 24, 10, 0, 0);
    std::vector<std::pair<std::string, long long>> messages;
    auto line = [](const char* host, long long seconds, int n) {
        return "<13>" + stamp(seconds) + " " + host + " app: " + std::to_string(n);
    };
    for (int i = 0; i < 30; ++i) {
        messages.emplace_back(line("nas", start + i * 10, i), (start + i * 10) * 1000 + 50);
        messages.emplace_back(line("cam", start + 3600 + i * 10, i), (start + i * 10) * 1000 + 50);
    }
    const long long back = start + 300 + 1200;
    for (int i = 0; i < 1200; ++i) {
        messages.emplace_back(line("nas", start + 300 + i, 100 + i), back * 1000 + i / 2);
        messages.emplace_back(line("cam", start + 3900 + i, 100 + i), back * 1000 + i / 2);
    }
    for (int i = 0; i < 30; ++i)
        messages.emplace_back(line("nas", back + 1 + i * 10, 2000 + i),
                              (back + 1 + i * 10) * 1000 + 50);
    storeAt(messages);
    const std::string nas = file("nas-app");
    EXPECT_EQ(linesOf(nas).size(), 2u + 30u + 1200u + 30u);  // one header
    EXPECT_NE(nas.find("clock +0 s ==="), std::string::npos);
    EXPECT_NE(nas.find("\nNov 24 10:05:00 nas app: 100\n"), std::string::npos);
    const std::string cam = file("cam-app");
    EXPECT_EQ(linesOf(cam).size(), 2u + 30u + 1200u);
    EXPECT_NE(cam.find("\n2026/11/24 10:05:00 cam app: 100\n"), std::string::npos);
    EXPECT_NE(cam.find("\n2026/11/24 10:24:59 cam app: 1299\n"), std::string::npos);
}

TEST_F(SyslogStoreTest, CutMessagesSayHowMuchWasCut) {
    settings_.maxMessageSize = 480;
    {
        SyslogStore target(settings_, counters_, writer());
        target.add("<13>Nov 24 10:00:00 nas app: " + std::string(1000, 'x'), 0, "10.0.0.1",
                   utc(11, 24, 10, 0, 0) * 1000);
        target.add("<13>Nov 24 10:00:00 nas app: short", 70, "10.0.0.1",
                   utc(11, 24, 10, 0, 0) * 1000);
    }
    const auto lines = linesOf(file("nas-app"));
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[2].size(), 476u + std::string(" [truncated: 549 bytes cut]").size());
    EXPECT_EQ(lines[3], "Nov 24 10:00:00 nas app: short [truncated: 70 bytes cut]");
    EXPECT_EQ(counters_.truncated, 2u);
}

TEST_F(SyslogStoreTest, SenderAndApplicationCapsHold) {
    settings_.maxSenders = 2;
    settings_.maxAppsPerSender = 2;
    store({"<13>Nov 24 10:00:00 a one: 1", "<13>Nov 24 10:00:00 a two: 2",
           "<13>Nov 24 10:00:00 a three: 3", "<13>Nov 24 10:00:00 b one: 4",
           "<13>Nov 24 10:00:00 c one: 5"},
          utc(11, 24, 10, 0, 0));
    // The third application shares the sender's "syslog" file; the third sender is dropped.
    EXPECT_EQ(files(), (std::set<std::string>{"a-one", "a-two", "a-syslog", "b-one"}));
    EXPECT_NE(file("a-syslog").find("a three: 3"), std::string::npos);
    EXPECT_EQ(counters_.senderCapDropped, 1u);
    EXPECT_EQ(counters_.lines, 4u);
}

}  // namespace
