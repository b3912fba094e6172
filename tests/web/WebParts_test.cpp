// SPDX-License-Identifier: MIT
// The console's parts that need no server: reading the collector's text (header
// lines, stamps, file names and how they group into devices), the listen address, the
// credential hashes and the device archive.
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "DeviceArchive.h"
#include "LogCatalog.h"
#include "LogSearch.h"
#include "LogText.h"
#include "NimbTestSupport.h"
#include "WebAuth.h"
#include "WebSettings.h"

namespace {

TEST(LogTextTest, HeaderLinesSplitIntoNamesAndTheClockTie) {
    LogText::Header h;
    ASSERT_TRUE(LogText::parseHeader(
        "===== Living - room - sat1 === 2026/11/22 10:00:00 <-> 2026/11/22 11:00:02 =====", h));
    EXPECT_EQ(h.displayName, "Living - room");
    EXPECT_EQ(h.satellite, "sat1");
    EXPECT_EQ(h.deviceTime, "2026/11/22 10:00:00");
    EXPECT_EQ(h.serverTime, "2026/11/22 11:00:02");
    for (const char* line :
         {"===== no tie =====", "===== a - b === x =====", "=====  =====",
          "2026/11/22 10:00:00 ===== a - b === x <-> y =====", "===== a - b === x <-> y"}) {
        EXPECT_FALSE(LogText::parseHeader(line, h)) << line;
    }
}

TEST(LogTextTest, StampsAreReadAsLocalTimeAcrossHours) {
    const nimbtest::ScopedTimeZone zone("Europe/Berlin");
    LogText::StampReader reader;
    std::int64_t first = 0, second = 0, third = 0;
    ASSERT_TRUE(reader.read("2026/03/29 01:59:59 before the change", first));
    ASSERT_TRUE(reader.read("2026/03/29 03:00:00 after it", second));
    EXPECT_EQ(second - first, 1) << "the hour cache must not skip daylight saving";
    ASSERT_TRUE(reader.read("2026/03/29 03:00:30", third));
    EXPECT_EQ(third - second, 30);
    std::int64_t unused = 0;
    for (const char* line : {"", "2026/13/01 00:00:00", "2026/11/22 24:00:00",
                             "2026-11-22 10:00:00", " 2026/11/22 10:00:00", "2026/11/22 10:00"}) {
        EXPECT_FALSE(reader.read(line, unused)) << line;
    }
}

TEST(LogCatalogTest, FileNamesSplitIntoDeviceMacAndLog) {
    struct Row {
        const char* name;
        bool device;
        const char* deviceId;
        const char* mac;
        const char* log;
        bool back;
    };
    const Row rows[] = {
        {"puck-7001122334455-system.log", true, "puck-7", "001122334455", "system.log", false},
        {"puck-7001122334455-system.log.back", true, "puck-7", "001122334455", "system.log", true},
        {"puck001A2b3C4d5E-", true, "puck", "001A2b3C4d5E", "", false},
        {"001122334455-a-b", true, "", "001122334455", "a-b", false},
        {"dev-xyz-log", true, "", "dev", "xyz-log", false},
        {"NimbRemoteLogger.log", false, "", "", "", false},
        {"errors.log.back", false, "", "", "", false},
    };
    for (const Row& row : rows) {
        LogCatalog::NameParts parts;
        ASSERT_EQ(LogCatalog::splitFileName(row.name, parts), row.device) << row.name;
        if (!row.device) continue;
        EXPECT_EQ(parts.deviceId, row.deviceId) << row.name;
        EXPECT_EQ(parts.mac, row.mac) << row.name;
        EXPECT_EQ(parts.logName, row.log) << row.name;
        EXPECT_EQ(parts.back, row.back) << row.name;
    }
}

// Syslog senders' files are "<host name>-<application>" without a MAC address, and both
// parts may hold "-": the sender's name comes from the header lines, of the file itself,
// of its ".back" after a rotation, or, for a file with none, of the sender's other files.
TEST(LogCatalogTest, SyslogSendersAreGroupedByTheNameInTheirHeaders) {
    const nimbtest::TempDir dir;
    const auto header = [](const std::string& sender) {
        return "\n===== " + sender +
               " - syslog 192.0.2.7 clock +3 s === 2026/11/22 10:00:03 <-> 2026/11/22 10:00:00 "
               "=====\n2026/11/22 10:00:00 dnsmasq[1]: started\n";
    };
    nimbtest::writeFile(dir / "my-router-dnsmasq", header("my-router"));
    nimbtest::writeFile(dir / "my-router-dnsmasq-dhcp", "2026/11/22 10:00:00 after rotation\n");
    nimbtest::writeFile(dir / "my-router-dnsmasq-dhcp.back", header("my-router"));
    nimbtest::writeFile(dir / "my-router-kernel", "2026/11/22 10:00:00 no header\n");
    nimbtest::writeFile(dir / "my-kernel", header("my"));
    nimbtest::writeFile(dir / "my-router-x", header("my"));  // sender "my", application "router-x"
    nimbtest::writeFile(dir / "192.0.2.9-syslog", header("192.0.2.9"));
    nimbtest::writeFile(dir / "tv001A2b3C4d5E-kernel", header("my-router"));

    LogCatalog catalog(dir.path());
    std::map<std::string, std::vector<std::string>> logsByKey;
    for (const LogCatalog::Device& device : catalog.devices(std::time(nullptr))) {
        for (const LogCatalog::LogInfo& log : device.logs)
            logsByKey[device.key].push_back(log.logName);
    }
    const std::map<std::string, std::vector<std::string>> expected = {
        {"192.0.2.9", {"syslog"}},
        {"my", {"kernel", "router-x"}},
        {"my-router", {"dnsmasq", "dnsmasq-dhcp", "kernel"}},
        {"tv001A2b3C4d5E", {"kernel"}},
    };
    EXPECT_EQ(logsByKey, expected);
    // Search and archive by device take the same files.
    EXPECT_EQ(catalog.deviceFiles("my-router", std::time(nullptr)),
              (std::vector<std::string>{"my-router-dnsmasq", "my-router-dnsmasq-dhcp",
                                        "my-router-dnsmasq-dhcp.back", "my-router-kernel"}));
    EXPECT_TRUE(catalog.deviceFiles("my-router-dnsmasq", std::time(nullptr)).empty());

    // Sender names apply only to names without a MAC address, and only whole.
    LogCatalog::NameParts parts;
    ASSERT_TRUE(LogCatalog::splitFileName("puck-7001122334455-log", parts, {"puck"}));
    EXPECT_EQ(parts.key, "puck-7001122334455");
    ASSERT_TRUE(LogCatalog::splitFileName("my-routers-log", parts, {"my-router"}));
    EXPECT_EQ(parts.key, "my");
}

TEST(WebSettingsTest, ListenAddressesAreNumericWithAPort) {
    WebSettings settings;
    QString error;
    ASSERT_TRUE(settings.setListen(QStringLiteral("[::1]:9000"), error));
    EXPECT_TRUE(settings.loopbackOnly());
    EXPECT_EQ(settings.port, 9000);
    ASSERT_TRUE(settings.setListen(QStringLiteral("192.168.1.5:80"), error));
    EXPECT_FALSE(settings.loopbackOnly());
    for (const char* bad :
         {"localhost:8470", "127.0.0.1", "127.0.0.1:0", "127.0.0.1:65536", ":8470", "1.2.3.4:x"}) {
        EXPECT_FALSE(settings.setListen(QString::fromLatin1(bad), error)) << bad;
    }
    EXPECT_EQ(settings.port, 80) << "a refused address changes nothing";
}

TEST(WebAuthTest, SecretsAreCheckedAgainstSaltedHashes) {
    const QString hash = WebAuth::hashSecret("open sesame");
    EXPECT_TRUE(WebAuth::verify("open sesame", hash));
    EXPECT_FALSE(WebAuth::verify("open sesame!", hash));
    for (const char* broken :
         {"", "pbkdf2-sha256$1$c2FsdA==", "md5$1$c2FsdA==$AAAA", "pbkdf2-sha256$0$c2FsdA==$AAAA"}) {
        EXPECT_FALSE(WebAuth::verify("x", QString::fromLatin1(broken))) << broken;
    }
    WebAuth open;
    EXPECT_TRUE(open.allows(""));
    WebAuth tokenOnly(hash, QString(), QString());
    EXPECT_FALSE(tokenOnly.allows(""));
    EXPECT_FALSE(tokenOnly.allows("Basic " + QByteArray(":open sesame").toBase64()));
    EXPECT_TRUE(tokenOnly.allows("Bearer open sesame"));
}

// Members keep their files' permission bits: unpacked, a log is no more readable than
// in the logs folder.
TEST(DeviceArchiveTest, MembersKeepTheirFilesModes) {
    nimbtest::TempDir dir;
    const std::map<std::string, mode_t> modes = {{"dev-system.log.back", 0600},
                                                 {"dev-system.log", 0660}};
    for (const auto& [name, mode] : modes) {
        nimbtest::writeFile(dir.path() + "/" + name, "text of " + name + "\n");
        ASSERT_EQ(::chmod((dir.path() + "/" + name).c_str(), mode), 0);
    }
    const std::string path = dir.path() + "/out.tar.gz";
    const int out = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_NE(out, -1);
    EXPECT_EQ(DeviceArchive::write(dir.path(), {"dev-system.log.back", "dev-system.log"}, out), "");
    ::close(out);

    std::map<std::string, mode_t> listed;
    archive* in = archive_read_new();
    archive_read_support_filter_gzip(in);
    archive_read_support_format_tar(in);
    ASSERT_EQ(archive_read_open_filename(in, path.c_str(), 16384), ARCHIVE_OK);
    archive_entry* entry = nullptr;
    while (archive_read_next_header(in, &entry) == ARCHIVE_OK) {
        EXPECT_EQ(archive_entry_filetype(entry), static_cast<mode_t>(AE_IFREG));
        listed[archive_entry_pathname(entry)] = archive_entry_perm(entry);
    }
    archive_read_free(in);
    EXPECT_EQ(listed, modes);
}

TEST(LogSearchTest, CountingPastTheCapStopsAtItsOwnBudget) {
    // Three slices of matching lines; one hit kept.
    std::string text;
    while (text.size() < 3 * 1024 * 1024) text += "match here\n";
    const auto count = [&](std::chrono::milliseconds budget, bool pastCap) {
        LogSearch::Query q;
        q.pattern = "match";
        q.maxHits = 1;
        q.countPastCap = pastCap;
        q.countBudget = budget;
        LogSearch::Searcher searcher(q);
        LogSearch::FileHits hits;
        const LogSearch::Accept all = [](std::uint64_t, std::string_view, int&) { return true; };
        searcher.search(text, 0, all, hits);
        EXPECT_EQ(hits.hits.size(), 1u);
        EXPECT_TRUE(searcher.result().more);
        return searcher.result();
    };
    const std::size_t lines = text.size() / 11;
    EXPECT_EQ(count(std::chrono::minutes(1), true).matchCount, lines);
    EXPECT_TRUE(count(std::chrono::minutes(1), true).countComplete);
    // A budget already spent: the first slice is counted, then counting stops.
    const LogSearch::Result cut = count(std::chrono::milliseconds(0), true);
    EXPECT_FALSE(cut.countComplete);
    EXPECT_GT(cut.matchCount, 1u);
    EXPECT_LT(cut.matchCount, lines);
    EXPECT_EQ(count(std::chrono::minutes(1), false).matchCount, 1u);
}

}  // namespace
