// SPDX-License-Identifier: MIT
// The Health page's memory through a real nimb-web: the lines a real collector received
// show in its series, and keep showing (added to, never dropped) after the collector
// restarts; devices that went quiet are listed with when they were last heard; the
// history's bytes per device against the budget of the settings.

#include <utime.h>

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "WebTestSupport.h"

namespace {

using namespace webtest;
using nimbtest::writeFile;

QJsonObject json(const HttpResponse& response) {
    return QJsonDocument::fromJson(QByteArray::fromStdString(response.body)).object();
}

class WebHealthTest : public WebFixture {
protected:
    // The lines written over the last hour by the series, and whether any value of any
    // name is negative.
    long long linesInSeries(bool& negative) {
        const QJsonObject series = json(get("/api/health/series")).value("series").toObject();
        long long lines = 0;
        for (const QString& name : series.keys()) {
            for (const QJsonValue v : series.value(name).toArray()) {
                negative = negative || v.toInteger() < 0;
                if (name == QLatin1String("linesWritten")) lines += v.toInteger();
            }
        }
        return lines;
    }
    void announceAndSend(const std::string& text) {
        ASSERT_EQ(
            callCollector(
                "SetLogSource",
                R"(["00:11:22:33:44:55", "puck-7", "Living room", {"date":"2026-11-22T10:00:00Z"}, {"str[]":["system.log"]}])"),
            0);
        ASSERT_EQ(
            callCollector("AppendLog", R"(["00:11:22:33:44:55", "system.log", ")" + text + R"("])"),
            0);
    }
};

TEST_F(WebHealthTest, SeriesShowsReceivedLinesAcrossACollectorRestart) {
    startCollector();
    startWeb();
    announceAndSend("a\\nb\\n");  // the header line with the blank line before it, a, b
    bool negative = false;
    long long lines = 0;
    const auto linesReach = [&](long long expected) {
        return nimbtest::waitUntil([&] { return (lines = linesInSeries(negative)) == expected; },
                                   std::chrono::seconds(10));
    };
    EXPECT_TRUE(linesReach(4)) << lines;
    stopCollector();
    startCollector();
    announceAndSend("c\\n");
    EXPECT_TRUE(linesReach(7)) << lines;
    EXPECT_FALSE(negative);

    EXPECT_EQ(get("/api/health/series?since=200&until=100").status, 400);
}

TEST_F(WebHealthTest, ListsSilentDevicesAndHistoryAgainstItsBudget) {
    writeFile(root() / "cfg/pellix/com.pellix.nimb.config.json", R"({"HistoryMaxMiB": 1})");
    setWebSetting("SilentAfterMinutes", 30);
    const long long now = QDateTime::currentSecsSinceEpoch();
    const auto device = [&](const std::string& file, long long quietFor) {
        writeFile(
            logs() / file,
            "\n===== Dev - sat === 2026/11/22 10:00:00 <-> 2026/11/22 10:00:01 =====\nline\n");
        const utimbuf times{now - quietFor, now - quietFor};
        ASSERT_EQ(::utime((logs() / file).c_str(), &times), 0);
    };
    device("cam000000000001-system.log", 0);
    device("cam000000000002-system.log", 2 * 3600);
    device("cam000000000003-system.log", 10 * 86400);
    // History: two generations of one log (one still plain), one of a log whose files went.
    for (const auto& [file, size] :
         std::map<std::string, std::size_t>{{"cam000000000001-system.log/1.zst", 3000},
                                            {"cam000000000001-system.log/2", 1000},
                                            {"gone000000000004-app.log/3.zst", 500}}) {
        nimbtest::fs::create_directories((logs() / "history" / file).parent_path());
        writeFile(logs() / "history" / file, std::string(size, 'x'));
    }
    startWeb();

    const QJsonObject silent = json(get("/api/health/silent"));
    const QJsonArray quiet = silent.value("devices").toArray();
    ASSERT_EQ(quiet.size(), 1) << QJsonDocument(silent).toJson().toStdString();
    EXPECT_EQ(quiet[0].toObject().value("key").toString(), QStringLiteral("cam000000000002"));
    EXPECT_EQ(quiet[0].toObject().value("lastWrite").toInteger(), now - 2 * 3600);
    EXPECT_EQ(silent.value("quietLonger").toInt(), 1);

    const QJsonObject history = json(get("/api/health/history"));
    EXPECT_EQ(history.value("budget").toInteger(), 1 << 20);
    EXPECT_EQ(history.value("bytes").toInt(), 4500);
    EXPECT_EQ(history.value("generations").toInt(), 3);
    const QJsonArray devices = history.value("devices").toArray();
    ASSERT_EQ(devices.size(), 2);
    EXPECT_EQ(devices[0].toObject().value("name").toString(), QStringLiteral("Dev"));
    EXPECT_EQ(devices[0].toObject().value("bytes").toInt(), 4000);
    EXPECT_EQ(devices[1].toObject().value("key").toString(), QStringLiteral("gone000000000004"));
}

}  // namespace
