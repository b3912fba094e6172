// SPDX-License-Identifier: MIT
// nimb-web over HTTP: a real nimb-web child on a free loopback port, asked with a raw
// socket client, every endpoint and every refusal.
#include <ctime>
#include <set>

#include <archive.h>
#include <archive_entry.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "WebTestSupport.h"

namespace {

using namespace webtest;
using nimbtest::readFile;
using nimbtest::writeFile;
namespace fs = std::filesystem;

const char* const kLog = "puck-7001122334455-system.log";

QJsonObject json(const HttpResponse& response) {
    return QJsonDocument::fromJson(QByteArray::fromStdString(response.body)).object();
}

std::string error(const HttpResponse& response) {
    return json(response).value(QStringLiteral("error")).toString().toStdString();
}

// "yyyy/MM/dd hh:mm:ss" of `seconds` in local time, as the collector writes stamps.
std::string stampOf(std::time_t seconds) {
    char text[32];
    tm t{};
    localtime_r(&seconds, &t);
    std::strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &t);
    return text;
}

std::string header(const std::string& name, const std::string& serverTime) {
    return "\n===== " + name + " - sat1 === 2026/11/22 10:00:00 <-> " + serverTime + " =====\n";
}

class WebServerTest : public WebFixture {};

TEST_F(WebServerTest, ServesThePageWithAPolicyThatForbidsInlineScript) {
    startWeb();
    const HttpResponse page = get("/");
    ASSERT_EQ(page.status, 200);
    EXPECT_EQ(page.header("Content-Type"), "text/html; charset=utf-8");
    const std::string policy = page.header("Content-Security-Policy");
    EXPECT_NE(policy.find("script-src 'self'"), std::string::npos) << policy;
    EXPECT_EQ(policy.find("unsafe-inline"), std::string::npos) << policy;
    EXPECT_EQ(page.header("X-Content-Type-Options"), "nosniff");
    EXPECT_EQ(page.body.find("<script>"), std::string::npos) << "inline script in the page";
    EXPECT_EQ(get("/app.js").header("Content-Type"), "text/javascript; charset=utf-8");
    EXPECT_EQ(get("/app.css").status, 200);

    EXPECT_EQ(get("/nothing").status, 404);
    const HttpResponse post = request(port_, "/api/devices", {"Content-Length: 0"}, "POST");
    EXPECT_EQ(post.status, 405);
    EXPECT_EQ(error(post), "only GET is served");
    // No bus here: the counters say the collector is not answering, promptly.
    const HttpResponse metrics = get("/metrics");
    EXPECT_EQ(metrics.status, 200);
    EXPECT_NE(metrics.body.find("nimb_collector_up 0\n"), std::string::npos) << metrics.body;
    EXPECT_FALSE(json(get("/api/stats")).value(QStringLiteral("reachable")).toBool());
}

TEST_F(WebServerTest, DevicesGroupTheirLogsWithTheNewestHeaderAndActivity) {
    const std::time_t now = std::time(nullptr);
    writeFile(logs() / (std::string(kLog) + ".back"),
              header("Old name", "2026/11/22 09:00:00") + stampOf(now - 7200) + " old\n");
    writeFile(logs() / kLog, header("Living room", "2026/11/22 10:00:00") + stampOf(now - 60) +
                                 " one\n" + stampOf(now - 30) + " two\ncontinued\n");
    writeFile(logs() / "puck-7001122334455-app.txt", header("Living room", "2026/11/22 08:00:00"));
    writeFile(logs() / "tv001A2b3C4d5E-kernel", std::string(5000, 'x') + "\n");
    writeFile(logs() / "NimbRemoteLogger.log", "own\n");
    writeFile(logs() / "errors.log", "");
    startWeb();

    const HttpResponse response = get("/api/devices?sort=size:desc");
    ASSERT_EQ(response.status, 200) << response.body;
    const QJsonArray devices = json(response).value(QStringLiteral("devices")).toArray();
    ASSERT_EQ(devices.size(), 2) << response.body;
    const QJsonObject tv = devices[0].toObject();
    EXPECT_EQ(tv.value(QStringLiteral("key")).toString(), QStringLiteral("tv001A2b3C4d5E"));
    EXPECT_EQ(tv.value(QStringLiteral("deviceId")).toString(), QStringLiteral("tv"));
    EXPECT_EQ(tv.value(QStringLiteral("mac")).toString(), QStringLiteral("00:1A:2b:3C:4d:5E"));

    const QJsonObject puck = devices[1].toObject();
    EXPECT_EQ(puck.value(QStringLiteral("name")).toString(), QStringLiteral("Living room"));
    EXPECT_EQ(puck.value(QStringLiteral("serverTime")).toString(),
              QStringLiteral("2026/11/22 10:00:00"));
    EXPECT_EQ(puck.value(QStringLiteral("deviceId")).toString(), QStringLiteral("puck-7"));
    const QJsonArray logsOfPuck = puck.value(QStringLiteral("logs")).toArray();
    ASSERT_EQ(logsOfPuck.size(), 2);
    const QJsonObject app = logsOfPuck[0].toObject();
    const QJsonObject system = logsOfPuck[1].toObject();
    EXPECT_EQ(system.value(QStringLiteral("file")).toString().toStdString(), kLog);
    EXPECT_EQ(system.value(QStringLiteral("log")).toString(), QStringLiteral("system.log"));
    EXPECT_TRUE(system.value(QStringLiteral("hasBack")).toBool());
    EXPECT_FALSE(app.value(QStringLiteral("hasBack")).toBool());
    EXPECT_EQ(system.value(QStringLiteral("size")).toInteger(),
              static_cast<qint64>(fs::file_size(logs() / kLog) +
                                  fs::file_size(logs() / (std::string(kLog) + ".back"))));
    // Every stamped line counts, and a line without a stamp takes the one above it.
    qint64 lines = 0;
    for (const QJsonValue count : puck.value(QStringLiteral("activity")).toArray())
        lines += count.toInteger();
    EXPECT_EQ(lines, 4);

    const QJsonArray suite = json(response).value(QStringLiteral("suiteLogs")).toArray();
    EXPECT_EQ(suite.size(), 2) << response.body;
    EXPECT_EQ(get("/api/devices?sort=title:asc").status, 200);
    const HttpResponse badSort = get("/api/devices?sort=Size:asc");
    EXPECT_EQ(badSort.status, 400);
    EXPECT_EQ(error(badSort),
              "unknown sort key \"Size:asc\" (title, size or lastModified, each :asc or :desc)");
}

TEST_F(WebServerTest, LogPiecesStartAtLinesAndContinueIntoTheBackFile) {
    std::string current;
    for (int i = 0; current.size() < 300 * 1024; ++i) current += "line " + std::to_string(i) + "\n";
    writeFile(logs() / kLog, current);
    writeFile(logs() / (std::string(kLog) + ".back"), "older\n");
    startWeb();

    const QJsonObject last = json(get(std::string("/api/log?file=") + kLog));
    const qint64 start = last.value(QStringLiteral("start")).toInteger();
    EXPECT_EQ(last.value(QStringLiteral("end")).toInteger(), static_cast<qint64>(current.size()));
    EXPECT_LE(static_cast<qint64>(current.size()) - start, 256 * 1024);
    EXPECT_EQ(current[start - 1], '\n');
    EXPECT_EQ(last.value(QStringLiteral("text")).toString().toStdString(), current.substr(start));
    const QJsonObject earlier = last.value(QStringLiteral("earlier")).toObject();
    EXPECT_EQ(earlier.value(QStringLiteral("before")).toInteger(), start);

    const QJsonObject first =
        json(get(std::string("/api/log?file=") + kLog + "&before=" + std::to_string(start)));
    EXPECT_EQ(first.value(QStringLiteral("start")).toInteger(), 0);
    EXPECT_EQ(first.value(QStringLiteral("text")).toString().toStdString(),
              current.substr(0, start));
    EXPECT_EQ(first.value(QStringLiteral("earlier"))
                  .toObject()
                  .value(QStringLiteral("file"))
                  .toString()
                  .toStdString(),
              std::string(kLog) + ".back");
    const QJsonObject back = json(get(std::string("/api/log?file=") + kLog + ".back"));
    EXPECT_EQ(back.value(QStringLiteral("text")).toString(), QStringLiteral("older\n"));
    EXPECT_FALSE(back.contains(QStringLiteral("earlier")));

    // A piece that is one line (or part of one) is kept whole.
    EXPECT_EQ(json(get(std::string("/api/log?file=") + kLog + "&limit=10"))
                  .value(QStringLiteral("text"))
                  .toString()
                  .toStdString(),
              current.substr(current.size() - 10));
    EXPECT_EQ(error(get(std::string("/api/log?file=") + kLog + "&before=x")),
              "before: expected a byte offset");
    EXPECT_EQ(error(get(std::string("/api/log?file=") + kLog + "&limit=0")),
              "limit: expected a positive byte count");
}

TEST_F(WebServerTest, HostileTextComesBackAsEscapedJsonText) {
    const std::string hostile =
        "<script>alert(1)</script></textarea><a href=\"javascript:x\">\x1b[31mred\xff\xfe\n";
    writeFile(logs() / kLog, hostile);
    startWeb();
    const HttpResponse response = get(std::string("/api/log?file=") + kLog);
    ASSERT_EQ(response.status, 200);
    EXPECT_EQ(response.header("Content-Type"), "application/json");
    const QString text = json(response).value(QStringLiteral("text")).toString();
    EXPECT_TRUE(text.startsWith(QStringLiteral("<script>alert(1)</script></textarea>")));
    EXPECT_TRUE(text.contains(QChar(0x1b)));
    EXPECT_EQ(text.count(QChar(0xfffd)), 2) << "invalid UTF-8 becomes replacement characters";
}

TEST_F(WebServerTest, OnlyPlainRegularFilesOfTheFoldersAreServed) {
    writeFile(logs() / kLog, "inside\n");
    writeFile(root() / "secret.log", "outside\n");
    writeFile(logs() / ".hidden", "hidden\n");
    fs::create_directory(logs() / "folder-x");
    fs::create_symlink(root() / "secret.log", logs() / "puck-7001122334455-link.log");
    fs::create_symlink(logs() / kLog, logs() / "puck-7001122334455-inner.log");
    ASSERT_EQ(::mkfifo((logs() / "puck-7001122334455-fifo.log").c_str(), 0600), 0);
    const bool haveDevice =
        ::mknod((logs() / "puck-7001122334455-null").c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0;
    writeFile(dumps() / "0123abcd-0000-0000-00000000-00000000.txt", "report\n");
    startWeb();

    std::vector<std::string> names = {"../secret.log",
                                      "..%2fsecret.log",
                                      "%2e%2e%2fsecret.log",
                                      "%252e%252e%252fsecret.log",
                                      "..%5csecret.log",
                                      "..\\secret.log",
                                      "puck-7001122334455-system.log%00.txt",
                                      root().string() + "/secret.log",
                                      ".hidden",
                                      "",
                                      ".",
                                      "..",
                                      "folder-x",
                                      "puck-7001122334455-link.log",
                                      "puck-7001122334455-inner.log",
                                      "puck-7001122334455-fifo.log",
                                      "missing.log",
                                      std::string(300, 'a')};
    if (haveDevice) names.push_back("puck-7001122334455-null");
    for (const std::string& name : names) {
        for (const char* endpoint : {"/api/log?file=", "/api/download?file=", "/api/tail?file=",
                                     "/api/search?q=e&file="}) {
            if (name.empty() && std::string(endpoint).find("search") != std::string::npos)
                continue;  // every log
            const HttpResponse response = get(endpoint + name);
            if (std::string(endpoint).find("search") != std::string::npos &&
                response.status == 200) {
                // A search over nothing readable finds nothing.
                EXPECT_EQ(json(response).value(QStringLiteral("hitCount")).toInt(), 0)
                    << endpoint << name;
                continue;
            }
            EXPECT_EQ(response.status, 404) << endpoint << name << " -> " << response.body;
        }
    }
    for (const std::string target :
         {"/api/archive?device=..%2f", "/api/archive?device=nobody",
          "/api/crash?id=..%2f..%2fetc%2fpasswd",
          "/api/crash?id=0123abcd-0000-0000-00000000-00000000%2f..", "/../secret.log",
          "/%2e%2e/secret.log", "/app.js/../../secret.log", "/index.html"}) {
        EXPECT_EQ(get(target).status, 404) << target;
    }
    EXPECT_EQ(get(std::string("/api/log?file=") + kLog).status, 200);
    EXPECT_EQ(get("/api/crash?id=0123abcd-0000-0000-00000000-00000000").status, 200);
}

TEST_F(WebServerTest, SearchMarksHitsWithContextAndKeepsToItsBounds) {
    const std::time_t now = std::time(nullptr);
    writeFile(logs() / kLog, stampOf(now - 7200) + " early needle\n" + stampOf(now - 60) +
                                 " before\n" + stampOf(now - 50) +
                                 " a needle and a needle\nafter\n");
    writeFile(logs() / "tv001A2b3C4d5E-kernel", "kernel needle\n");
    startWeb();

    const QJsonObject all = json(get("/api/search?q=needle"));
    EXPECT_EQ(all.value(QStringLiteral("hitCount")).toInt(), 3);
    EXPECT_FALSE(all.value(QStringLiteral("more")).toBool());
    const QJsonObject hit = all.value(QStringLiteral("files"))
                                .toArray()[0]
                                .toObject()
                                .value(QStringLiteral("hits"))
                                .toArray()[1]
                                .toObject();
    EXPECT_EQ(hit.value(QStringLiteral("before")).toString().toStdString(),
              stampOf(now - 60) + " before");
    EXPECT_EQ(hit.value(QStringLiteral("after")).toString(), QStringLiteral("after"));
    const QJsonArray parts = hit.value(QStringLiteral("parts")).toArray();
    ASSERT_EQ(parts.size(), 5);
    EXPECT_EQ(parts[1].toString(), QStringLiteral("needle"));
    EXPECT_EQ(parts[2].toString(), QStringLiteral(" and a "));
    EXPECT_EQ(parts[3].toString(), QStringLiteral("needle"));

    const auto hits = [&](const std::string& q) {
        return json(get("/api/search?" + q)).value(QStringLiteral("hitCount")).toInt();
    };
    EXPECT_EQ(hits("q=needle&device=tv001A2b3C4d5E"), 1);
    EXPECT_EQ(hits("q=a+needle"), 1) << "+ is a blank, as forms send it";
    EXPECT_EQ(hits("q=a%2Bneedle"), 0);
    EXPECT_EQ(hits(std::string("q=needle&file=") + kLog), 2);
    EXPECT_EQ(hits("q=n%5Bei%5Dedle%24&regex=1"), 3) << "n[ei]edle$";
    EXPECT_EQ(hits("q=needle&from=" +
                   QDateTime::fromSecsSinceEpoch(now - 600).toString(Qt::ISODate).toStdString()),
              1);
    EXPECT_EQ(hits("q=needle&to=" +
                   QDateTime::fromSecsSinceEpoch(now - 3600).toString(Qt::ISODate).toStdString()),
              1);
    const QJsonObject capped = json(get("/api/search?q=needle&max=1"));
    EXPECT_EQ(capped.value(QStringLiteral("hitCount")).toInt(), 1);
    EXPECT_TRUE(capped.value(QStringLiteral("more")).toBool());

    const std::vector<std::pair<std::string, std::string>> refused = {
        {"q=", "empty search"},
        {"q=(a&regex=1", "invalid regular expression: missing ): (a"},
        {"q=%5CpL%7B1000%7D&regex=1",
         "regular expression too costly: pattern too large - compile failed"},
        {"q=x&from=yesterday", "from: expected a time like 2026-11-22T10:00"},
        {"q=x&to=1", "to: expected a time like 2026-11-22T10:00"},
        {"q=x&max=0", "max: expected a positive count"},
        {"q=" + std::string(1025, 'x'), "search text longer than 1024 bytes"},
    };
    for (const auto& [q, message] : refused) {
        const HttpResponse response = get("/api/search?" + q);
        EXPECT_EQ(response.status, 400) << q;
        EXPECT_EQ(error(response), message) << q;
    }
}

std::vector<std::pair<std::string, std::string>> archiveEntries(const std::string& bytes) {
    std::vector<std::pair<std::string, std::string>> entries;
    archive* in = archive_read_new();
    archive_read_support_filter_gzip(in);
    archive_read_support_format_tar(in);
    if (archive_read_open_memory(in, bytes.data(), bytes.size()) == ARCHIVE_OK) {
        archive_entry* entry = nullptr;
        while (archive_read_next_header(in, &entry) == ARCHIVE_OK) {
            std::string data(static_cast<std::size_t>(archive_entry_size(entry)), '\0');
            archive_read_data(in, data.data(), data.size());
            entries.emplace_back(archive_entry_pathname(entry), data);
        }
    }
    archive_read_free(in);
    return entries;
}

TEST_F(WebServerTest, DownloadsALogBackFirstAndADeviceAsOneArchive) {
    writeFile(logs() / (std::string(kLog) + ".back"), "first\n");
    writeFile(logs() / kLog, "second\n");
    writeFile(logs() / "puck-7001122334455-app.txt", "app\n");
    writeFile(logs() / "tv001A2b3C4d5E-kernel", "other device\n");
    const std::string syslog =
        "\n===== my-router - syslog 192.0.2.7 clock unknown === 2026/11/22 10:00:00 <-> "
        "2026/11/22 10:00:00 =====\n";
    writeFile(logs() / "my-router-dnsmasq", syslog);
    writeFile(logs() / "my-router-kernel", "2026/11/22 10:00:00 no header of its own\n");
    writeFile(logs() / "my-kernel", "another sender\n");
    // $TMPDIR is the suite's crash-dump folder, read-only under the service: the
    // archive must not need it.
    writeFile(root() / "not-a-folder", "");
    extraEnvironment_["TMPDIR"] = (root() / "not-a-folder").string();
    startWeb();

    const HttpResponse log = get(std::string("/api/download?file=") + kLog);
    EXPECT_EQ(log.body, "first\nsecond\n");
    EXPECT_EQ(log.header("Content-Disposition"),
              std::string("attachment; filename=\"") + kLog + ".txt\"");

    const HttpResponse archive = get("/api/archive?device=puck-7001122334455");
    ASSERT_EQ(archive.status, 200);
    EXPECT_EQ(archive.header("Content-Type"), "application/gzip");
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"puck-7001122334455-app.txt", "app\n"},
        {std::string(kLog) + ".back", "first\n"},
        {kLog, "second\n"}};
    EXPECT_EQ(archiveEntries(archive.body), expected);

    // A syslog sender whose name holds "-" is one device, as the listing groups it.
    const HttpResponse router = get("/api/archive?device=my-router");
    ASSERT_EQ(router.status, 200) << router.body;
    const std::vector<std::pair<std::string, std::string>> routerFiles = {
        {"my-router-dnsmasq", syslog},
        {"my-router-kernel", "2026/11/22 10:00:00 no header of its own\n"}};
    EXPECT_EQ(archiveEntries(router.body), routerFiles);
    const HttpResponse search = get("/api/search?q=header&device=my-router");
    EXPECT_EQ(json(search).value(QStringLiteral("hitCount")).toInteger(), 1) << search.body;
}

TEST_F(WebServerTest, CrashReportsAreListedNewestFirstWithTheirText) {
    const std::string older = "11111111-2222-3333-44444444-55555555";
    const std::string newer = "aaaaaaaa-2222-3333-44444444-55555555";
    writeFile(dumps() / (older + ".dmp"), std::string(2048, 'd'));
    const std::string report =
        "Crash reason: SIGSEGV\n"
        "Stack of the crashing thread:\n"
        "   0  app!crash(int) [/src/deep/crash.cpp:12]\n"
        "   1  app!run() [run.cpp:3]\n"
        "   2  libc.so.6 + 0x29d90\n"
        "   3  0x7f00\n"
        "   4  app!main\n";
    writeFile(dumps() / (older + ".txt"), report);
    writeFile(dumps() / (newer + ".dmp"), "d");
    writeFile(dumps() / "notes.txt", "not a crash\n");
    const auto past = fs::file_time_type::clock::now() - std::chrono::hours(2);
    fs::last_write_time(dumps() / (older + ".dmp"), past);
    fs::last_write_time(dumps() / (older + ".txt"), past);
    startWeb();

    const QJsonArray crashes = json(get("/api/crashes")).value(QStringLiteral("crashes")).toArray();
    ASSERT_EQ(crashes.size(), 2);
    EXPECT_EQ(crashes[0].toObject().value(QStringLiteral("id")).toString().toStdString(), newer);
    EXPECT_FALSE(crashes[0].toObject().value(QStringLiteral("hasReport")).toBool());
    EXPECT_EQ(crashes[1].toObject().value(QStringLiteral("dumpSize")).toInt(), 2048);
    // The innermost frames of the crashing thread, numbers and source folders left out.
    EXPECT_EQ(crashes[1].toObject().value(QStringLiteral("frames")).toArray(),
              QJsonArray({"app!crash(int) [crash.cpp:12]", "app!run() [run.cpp:3]",
                          "libc.so.6 + 0x29d90", "0x7f00"}));
    EXPECT_EQ(json(get("/api/crash?id=" + older)).value(QStringLiteral("text")).toString(),
              QString::fromStdString(report));
    EXPECT_EQ(get("/api/crash?id=" + newer).status, 404);
    EXPECT_EQ(get("/api/crash?id=notes").status, 404);
}

TEST_F(WebServerTest, LiveTailSendsWholeLinesAndFollowsARotation) {
    const fs::path file = logs() / kLog;
    writeFile(file, "one\n");
    startWeb();
    const std::string inode = json(get(std::string("/api/log?file=") + kLog))
                                  .value(QStringLiteral("inode"))
                                  .toString()
                                  .toStdString();

    EventStream stream(port_, std::string("/api/tail?file=") + kLog);
    ASSERT_TRUE(stream.waitFor("text/event-stream")) << stream.received();
    const auto append = [](const fs::path& path, const std::string& text) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0644);
        ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        ::close(fd);
    };
    append(file, "two\nunfin");
    ASSERT_TRUE(stream.waitFor("two\\n")) << stream.received();
    EXPECT_EQ(stream.received().find("unfin"), std::string::npos) << "a line goes out whole";
    append(file, "ished\nthree\n");
    fs::rename(file, logs() / (std::string(kLog) + ".back"));
    append(file, "four\n");
    ASSERT_TRUE(stream.waitFor("four\\n")) << stream.received();
    const std::string& got = stream.received();
    EXPECT_LT(got.find("unfinished\\nthree\\n"), got.find("event: rotated"));
    EXPECT_LT(got.find("event: rotated"), got.find("four\\n"));
    EXPECT_EQ(got.find("one\\n"), std::string::npos) << "a tail starts at the end";

    // A page that read the old generation up to "one" resumes there, then goes on.
    EventStream resumed(port_, std::string("/api/tail?file=") + kLog + "&from=4&inode=" + inode);
    ASSERT_TRUE(resumed.waitFor("four\\n")) << resumed.received();
    EXPECT_LT(resumed.received().find("two\\nunfinished\\nthree\\n"),
              resumed.received().find("four"));
    EXPECT_EQ(resumed.received().find("one"), std::string::npos);

    // A line longer than a piece goes out in pieces, each cut between characters even
    // when the writer stopped inside one.
    const std::string euro = "\xE2\x82\xAC";
    std::string long1;
    for (int i = 0; i < 23333; ++i) long1 += euro;
    append(file, long1 + euro.substr(0, 1));
    ASSERT_TRUE(stream.waitFor(euro + euro + euro)) << "no piece of the long line was sent";
    append(file, euro.substr(1) + "five\n");
    ASSERT_TRUE(stream.waitFor("five\\n"));
    EXPECT_EQ(stream.received().find("\xEF\xBF\xBD"), std::string::npos) << "a character was split";

    const QJsonObject stats = json(get("/api/stats"));
    EXPECT_EQ(stats.value(QStringLiteral("tailClients")).toInt(), 2);
}

TEST_F(WebServerTest, CredentialsAreRequiredOffLoopbackAndChecked) {
    const nimbtest::ChildResult open =
        runWeb({"--listen", "0.0.0.0:" + std::to_string(NatsServer::freePort()), "--logs-dir",
                logs().string()});
    EXPECT_EQ(open.exitCode(), 1);
    EXPECT_NE(open.output.find("nimb-web: refusing to listen on 0.0.0.0:"), std::string::npos)
        << open.output;
    const nimbtest::ChildResult bad = runWeb({"--listen", "localhost"});
    EXPECT_EQ(bad.exitCode(), 2);
    EXPECT_NE(bad.output.find("nimb-web: invalid listen address \"localhost\" (expected ADDR:PORT, "
                              "e.g. 127.0.0.1:8470)"),
              std::string::npos)
        << bad.output;
    EXPECT_EQ(runWeb({"--frobnicate"}).exitCode(), 2);

    nimbtest::writeFile(root() / "secret.txt", "s3cret\n");
    const auto hashOf = [&]() {
        const nimbtest::ChildResult run = nimbtest::runChild(
            {"/bin/sh", "-c",
             std::string(NIMB_WEB) + " --hash-secret < " + (root() / "secret.txt").string()},
            environment(), root() / "hash.txt", false);
        std::string hash = run.output;
        while (!hash.empty() && hash.back() == '\n') hash.pop_back();
        return hash;
    };
    const std::string hash = hashOf();
    EXPECT_EQ(hash.rfind("pbkdf2-sha256$100000$", 0), 0u) << hash;
    EXPECT_NE(hash, hashOf()) << "each hash has its own salt";
    setWebSetting("TokenHash", hash);
    setWebSetting("User", "admin");
    setWebSetting("PasswordHash", hash);
    writeFile(logs() / kLog, "x\n");
    startWeb({}, "0.0.0.0");

    const HttpResponse none = get("/api/devices");
    EXPECT_EQ(none.status, 401);
    EXPECT_EQ(none.header("WWW-Authenticate"), "Basic realm=\"nimb-web\", charset=\"UTF-8\"");
    EXPECT_EQ(get("/", {"Authorization: Bearer s3cret"}).status, 200);
    EXPECT_EQ(get("/api/devices",
                  {"Authorization: Basic " + QByteArray("admin:s3cret").toBase64().toStdString()})
                  .status,
              200);
    EXPECT_EQ(get("/api/devices",
                  {"Authorization: Basic " + QByteArray("root:s3cret").toBase64().toStdString()})
                  .status,
              401);
    EXPECT_EQ(get("/api/devices", {"Authorization: Bearer wrong"}).status, 401);
    EXPECT_EQ(get(std::string("/api/tail?file=") + kLog).status, 401);
}

TEST_F(WebServerTest, CountersComeFromTheCollectorAndReachMetrics) {
    const int udpPort = NatsServer::freePort();
    writeFile(root() / "cfg/pellix/com.pellix.nimb.syslog.json",
              "{\"UdpPort\": " + std::to_string(udpPort) + "}");
    startCollector();
    startWeb();
    ASSERT_EQ(
        callCollector(
            "SetLogSource",
            R"(["00:11:22:33:44:55", "puck-7", "Living room", {"date":"2026-11-22T10:00:00Z"}, {"str[]":["system.log"]}])"),
        0);
    ASSERT_EQ(callCollector("AppendLog", R"(["00:11:22:33:44:55", "system.log", "a\nb\n"])"), 0);
    ASSERT_EQ(callCollector("AppendLog", R"(["00:11:22:33:44:55"])"), 2);
    ASSERT_EQ(callCollector("AppendLog", R"(["00:11:22:33:44:55", "never.log", "x\n"])"), 1);

    QJsonObject counters;
    // Reads the counters until `name` reaches `value` (at most 10 s).
    const auto countersReach = [&](const char* name, int value) {
        return nimbtest::waitUntil(
            [&] {
                counters = json(get("/api/stats")).value(QStringLiteral("counters")).toObject();
                return counters.value(QLatin1String(name)).toInt() == value;
            },
            std::chrono::seconds(10));
    };
    // The header line with the blank line before it, then a and b.
    ASSERT_TRUE(countersReach("linesWritten", 4)) << QJsonDocument(counters).toJson().toStdString();
    EXPECT_EQ(counters.value(QStringLiteral("requests")).toInt(), 2);
    EXPECT_EQ(counters.value(QStringLiteral("errors.invalid")).toInt(), 1);
    EXPECT_EQ(counters.value(QStringLiteral("errors.unknown")).toInt(), 1);
    EXPECT_EQ(counters.value(QStringLiteral("connected")).toInt(), 1);
    EXPECT_EQ(counters.value(QStringLiteral("syslog.messages")).toInt(-1), 0);

    // A syslog datagram moves the syslog counters.
    ASSERT_TRUE(nimbtest::waitUntil([&] {
        return readFile(root() / "collector.txt").find("Syslog: listening") != std::string::npos;
    }));
    const std::string datagram = "<13>Nov 22 10:00:00 router app: one";
    const int udp = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<uint16_t>(udpPort));
    inet_pton(AF_INET, "127.0.0.1", &peer.sin_addr);
    ASSERT_EQ(sendto(udp, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&peer),
                     sizeof(peer)),
              static_cast<ssize_t>(datagram.size()));
    close(udp);
    ASSERT_TRUE(countersReach("syslog.messages", 1))
        << QJsonDocument(counters).toJson().toStdString();
    EXPECT_EQ(counters.value(QStringLiteral("syslog.bytes")).toInt(),
              static_cast<int>(datagram.size()));
    EXPECT_EQ(counters.value(QStringLiteral("syslog.senders")).toInt(), 1);

    const std::string metrics = get("/metrics").body;
    for (const char* line :
         {"nimb_collector_up 1\n", "nimb_collector_requests_total 2\n",
          "nimb_collector_lines_written_total 4\n",
          "nimb_collector_errors_total{kind=\"invalid\"} 1\n",
          "nimb_collector_errors_total{kind=\"busy\"} 0\n",
          "nimb_collector_errors_total{kind=\"unknown\"} 1\n",
          "# TYPE nimb_collector_queue_depth gauge\n",
          "# TYPE nimb_syslog_messages_total counter\n", "nimb_syslog_messages_total 1\n",
          "nimb_syslog_senders 1\n", "nimb_syslog_dropped_total{reason=\"rate\"} 0\n",
          "# TYPE nimb_syslog_connections_closed_total counter\n",
          "nimb_syslog_connections_closed_total{reason=\"idle\"} 0\n"}) {
        EXPECT_NE(metrics.find(line), std::string::npos) << line << metrics;
    }
}

}  // namespace
