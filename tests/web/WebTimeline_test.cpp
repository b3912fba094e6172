// SPDX-License-Identifier: MIT
// The timeline over a logs folder written by the real writer and index: two devices whose
// lines alternate in time, one of them rotated into a history, merged in time order with
// their devices' and logs' names; pages walked back from the newest and forwards from the
// oldest giving every line once; the severity, text, device and time filters; lines that
// arrive after a live token, and only those.
#include <ctime>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrlQuery>

#include <gtest/gtest.h>

#include "DeviceLogHistory.h"
#include "DeviceLogIndex.h"
#include "DeviceLogWriter.h"
#include "LogCatalog.h"
#include "NimbTestSupport.h"
#include "WebApi.h"

namespace {

namespace fs = std::filesystem;

const std::string kCam = "puck-7001122334455-cam.log";
const std::string kHall = "puck-8aabbccddeeff-sensor.log";

class WebTimelineTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(logs());
        received_ = std::time(nullptr);
        start_ = received_ - 7200;
        std::string error;
        index_ = DeviceLogIndex::openForWriting(logs(), error);
        ASSERT_TRUE(index_) << error;
        DeviceLogHistory::Options historyOptions;
        historyOptions.logsDir = logs();
        historyOptions.maxAgeDays = 0;
        historyOptions.minFreePercent = 0;
        history_ = std::make_shared<DeviceLogHistory>(historyOptions);
        DeviceLogWriter::Options options;
        options.logsDir = logs();
        options.index = index_;
        options.rotateSize = 400;
        options.history = history_;
        writer_ = std::make_unique<DeviceLogWriter>(options);
        for (const auto& [file, name] :
             {std::pair{kCam, "Kitchen Camera"}, {kHall, "Hall Sensor"}}) {
            DeviceLogIndex::Identity identity;
            identity.deviceId = "puck-" + std::string(file == kCam ? "7" : "8");
            identity.displayName = name;
            writer_->setIdentity(file, identity);
            write(file,
                  "\n===== " + std::string(name) + " - sat1 === 2026/11/24 12:00:00 <-> " +
                      "2026/11/24 12:00:00 =====\n",
                  true);
        }
    }
    std::string logs() const { return (fs::path(dir_.path()) / "logs").string(); }

    // Received now (as the live side expects), stamped with the lines' own times.
    void write(const std::string& file, const std::string& text, bool header) {
        LogTextInfo info;
        info.header = header;
        info.receivedMs = received_ * 1000;
        ASSERT_TRUE(writer_->open(file)->append(text, nullptr, info));
        writer_->drain();
    }
    // Line `n` at start + 10 n seconds: even ones the camera's, odd ones the sensor's;
    // every fifth an error.
    void writeLines(int from, int to) {
        for (int n = from; n < to; ++n) {
            const long long at = start_ + 10 * n;
            const QString stamp =
                QDateTime::fromSecsSinceEpoch(at).toString(QStringLiteral("yyyy/MM/dd hh:mm:ss"));
            char line[128];
            std::snprintf(line, sizeof line, "%s app: %sevent %03d\n", stamp.toUtf8().constData(),
                          n % 5 == 0 ? "ERROR: " : "", n);
            write(n % 2 == 0 ? kCam : kHall, line, false);
        }
        history_->drain();
        index_->flush();
    }

    QJsonObject get(const QString& query) {
        const WebReply reply = WebApi::timeline(catalog_, QUrlQuery(query), now() * 1000);
        EXPECT_EQ(reply.status, 200) << query.toStdString() << ": " << reply.body.toStdString();
        return QJsonDocument::fromJson(reply.body).object();
    }
    static long long now() { return std::time(nullptr); }

    // The numbers of the event lines of an answer, in its order (-1 for other lines).
    static std::vector<int> events(const QJsonObject& reply) {
        std::vector<int> out;
        for (const QJsonValue& v : reply.value("lines").toArray()) {
            QString text = v.toObject().value("text").toString();
            for (const QJsonValue& part : v.toObject().value("parts").toArray())
                text += part.toString();
            const int at = text.indexOf("event ");
            out.push_back(at < 0 ? -1 : text.mid(at + 6, 3).toInt());
        }
        return out;
    }
    static std::vector<int> range(int from, int to) {
        std::vector<int> out;
        for (int n = from; n < to; ++n) out.push_back(n);
        return out;
    }

    nimbtest::TempDir dir_;
    long long start_ = 0;
    long long received_ = 0;
    std::shared_ptr<DeviceLogIndex> index_;
    std::shared_ptr<DeviceLogHistory> history_;
    std::unique_ptr<DeviceLogWriter> writer_;
    LogCatalog catalog_{logs()};
};

TEST_F(WebTimelineTest, MergesDevicesAndGenerationsInTimeOrderAndPagesBothWays) {
    writeLines(0, 60);
    ASSERT_FALSE(history_->list(kCam).empty()) << "the camera's first lines are in its history";

    // Everything: the events in time order, from several generations, then the two
    // announcements (unstamped: at their receive time, now), each line's log named with
    // its device.
    const QJsonObject all = get("limit=1000");
    std::vector<int> numbers = events(all);
    std::vector<int> expected = range(0, 60);
    expected.insert(expected.end(), {-1, -1});
    EXPECT_EQ(numbers, expected);
    std::set<qint64> generations;
    qint64 last = 0;
    for (const QJsonValue& v : all.value("lines").toArray()) {
        const QJsonObject line = v.toObject();
        EXPECT_GE(line.value("t").toInteger(), last);
        last = line.value("t").toInteger();
        if (line.value("file").toString() == QString::fromStdString(kCam))
            generations.insert(line.value("generation").toInteger());
    }
    EXPECT_GE(generations.size(), 3u) << "history, .back and current file";
    const QJsonObject cam =
        all.value("logs").toObject().value(QString::fromStdString(kCam)).toObject();
    EXPECT_EQ(cam.value("name").toString(), "Kitchen Camera");
    EXPECT_EQ(cam.value("log").toString(), "cam.log");
    EXPECT_EQ(cam.value("device").toString(), "puck-7001122334455");
    EXPECT_FALSE(all.contains("earlier"));
    EXPECT_FALSE(all.value("cut").toBool());

    // Back from the newest, 7 lines at a time: every line once, in order.
    std::vector<int> walked;
    QJsonObject page = get("limit=7");
    for (int steps = 0; steps < 20; ++steps) {
        const std::vector<int> piece = events(page);
        ASSERT_LE(piece.size(), 7u);
        walked.insert(walked.begin(), piece.begin(), piece.end());
        if (!page.contains("earlier")) break;
        page = get("limit=7&before=" + QUrl::toPercentEncoding(page.value("earlier").toString()));
    }
    EXPECT_EQ(walked, numbers);
    // And forwards from the oldest line.
    const QString first = all.value("lines").toArray()[0].toObject().value("key").toString();
    walked = {numbers.front()};
    page = get("limit=5&after=" + QUrl::toPercentEncoding(first));
    for (int steps = 0; steps < 20; ++steps) {
        const std::vector<int> piece = events(page);
        walked.insert(walked.end(), piece.begin(), piece.end());
        if (!page.contains("later")) break;
        page = get("limit=5&after=" + QUrl::toPercentEncoding(page.value("later").toString()));
    }
    EXPECT_EQ(walked, numbers);
}

TEST_F(WebTimelineTest, FiltersBySeverityTextDeviceAndTime) {
    writeLines(0, 40);
    EXPECT_EQ(events(get("limit=1000&level=error")),
              std::vector<int>({0, 5, 10, 15, 20, 25, 30, 35}));
    const QJsonObject found = get("limit=1000&q=event 01");
    EXPECT_EQ(events(found), range(10, 20));
    const QJsonArray parts = found.value("lines").toArray()[0].toObject().value("parts").toArray();
    ASSERT_EQ(parts.size(), 3);
    EXPECT_EQ(parts[1].toString(), "event 01");
    EXPECT_EQ(events(get("limit=1000&regex=1&q=event 0[23]5")), std::vector<int>({25, 35}));
    // One device (its announcement first), or one log by name.
    std::vector<int> odd;
    for (int n = 1; n < 40; n += 2) odd.push_back(n);
    odd.push_back(-1);
    EXPECT_EQ(events(get("limit=1000&device=puck-8aabbccddeeff")), odd);
    EXPECT_EQ(events(get("limit=1000&level=error&file=" + QString::fromStdString(kCam))),
              std::vector<int>({0, 10, 20, 30}));
    EXPECT_TRUE(get("file=nothing.log").value("lines").toArray().isEmpty());
    // A time range, as the page sends it (UTC).
    const auto utc = [](long long t) {
        return QDateTime::fromSecsSinceEpoch(t, Qt::UTC).toString(Qt::ISODate);
    };
    EXPECT_EQ(events(get("limit=1000&from=" + utc(start_ + 100) + "&to=" + utc(start_ + 149))),
              range(10, 15));

    for (const char* bad : {"before=1&after=2", "before=x", "after=1.2.3./etc", "live=1:2",
                            "level=loud", "from=yesterday", "regex=1&q=(a", "limit=0"}) {
        EXPECT_EQ(WebApi::timeline(catalog_, QUrlQuery(bad), now() * 1000).status, 400) << bad;
    }
    EXPECT_EQ(WebApi::timeline(catalog_, QUrlQuery("device=../x"), now() * 1000).status, 404);
}

TEST_F(WebTimelineTest, LiveGivesWhatArrivedAfterTheToken) {
    writeLines(0, 10);
    const QJsonObject first = get("limit=3");
    ASSERT_TRUE(first.contains("live"));
    QString token = first.value("live").toString();
    EXPECT_TRUE(get("live=" + QUrl::toPercentEncoding(token)).value("lines").toArray().isEmpty());
    // Lines that grow the open pieces and lines in new ones (the camera rotates).
    writeLines(10, 30);
    QJsonObject live = get("live=" + QUrl::toPercentEncoding(token));
    EXPECT_EQ(events(live), range(10, 30));
    token = live.value("live").toString();
    EXPECT_TRUE(get("live=" + QUrl::toPercentEncoding(token)).value("lines").toArray().isEmpty());
    writeLines(30, 32);
    live = get("live=" + QUrl::toPercentEncoding(token) + "&level=error");
    EXPECT_EQ(events(live), std::vector<int>({30}));
}

}  // namespace
