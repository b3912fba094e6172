// SPDX-License-Identifier: MIT
// The console over a logs folder with the collector's index, written by the real writer:
// activity split by severity at every line's time, the device's name and clock tie
// only from the header lines the collector wrote (a device's header-shaped text stays
// text), the severity filter and time range in search, hits grouped by device with
// their levels, a log opened around a hit, and each line's level.
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
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
#include "LogCorpus.h"
#include "NimbTestSupport.h"
#include "WebApi.h"

namespace {

namespace fs = std::filesystem;

const std::string kFile = "puck-7001122334455-cam.log";

class WebIndexTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(logs());
        now_ = std::time(nullptr);
        received_ = now_ - 3600;
    }
    std::string logs() const { return (fs::path(dir_.path()) / "logs").string(); }

    void writeLog(const std::vector<std::string>& texts) {
        std::string error;
        std::shared_ptr<DeviceLogIndex> index = DeviceLogIndex::openForWriting(logs(), error);
        ASSERT_TRUE(index) << error;
        DeviceLogWriter::Options options;
        options.logsDir = logs();
        options.index = index;
        DeviceLogWriter writer(options);
        DeviceLogIndex::Identity identity;
        identity.deviceId = "puck-7";
        identity.mac = "00:11:22:33:44:55";
        identity.displayName = "Kitchen Camera";
        identity.caller = "sat1";
        writer.setIdentity(kFile, identity);
        const auto log = writer.open(kFile);
        for (std::size_t i = 0; i < texts.size(); ++i) {
            LogTextInfo info;
            info.header = i == 0;
            info.receivedMs = (received_ + static_cast<long long>(i)) * 1000;
            ASSERT_TRUE(log->append(texts[i], nullptr, info));
        }
        writer.drain();
        index->flush();
    }

    QJsonObject call(WebReply reply) {
        EXPECT_EQ(reply.status, 200) << reply.body.toStdString();
        return QJsonDocument::fromJson(reply.body).object();
    }
    QJsonObject search(LogCatalog& catalog, const QString& query) {
        return call(WebApi::search(catalog, QUrlQuery(query), now_));
    }

    nimbtest::TempDir dir_;
    std::int64_t now_ = 0;
    long long received_ = 0;
};

int sum(const QJsonArray& counts) {
    int total = 0;
    for (const QJsonValue& v : counts) total += v.toInt();
    return total;
}

TEST_F(WebIndexTest, DevicesSearchAndLogsFollowTheIndex) {
    writeLog(
        {"\n===== Kitchen Camera - sat1 === 2026/11/24 12:00:00 <-> 2026/11/24 12:00:00 =====\n",
         "cam[1]: ERROR: sensor lost\n",
         "\n===== Forged Name - x === 1999/01/01 00:00:00 <-> 1999/01/01 00:00:00 =====\n",
         "cam[1]: WARN: sensor slow\n", "cam[1]: sensor back\n"});
    LogCatalog catalog(logs());

    // The device: the collector's header only; every line counted at its receive time.
    const QJsonObject list = call(WebApi::devices(catalog, QUrlQuery(), now_));
    const QJsonArray devices = list.value("devices").toArray();
    ASSERT_EQ(devices.size(), 1);
    const QJsonObject device = devices[0].toObject();
    EXPECT_EQ(device.value("name").toString(), "Kitchen Camera");
    EXPECT_EQ(device.value("deviceTime").toString(), "2026/11/24 12:00:00");
    EXPECT_TRUE(device.value("indexed").toBool());
    const QJsonObject severity = device.value("severity").toObject();
    EXPECT_EQ(sum(severity.value("errors").toArray()), 1);
    EXPECT_EQ(sum(severity.value("warnings").toArray()), 1);
    // "sensor back" and the forged header (blank lines are not counted).
    EXPECT_EQ(sum(severity.value("others").toArray()), 2);
    EXPECT_EQ(sum(device.value("activity").toArray()), 4);

    // Search: the level filter, the line's level, the device's name.
    QJsonObject found = search(catalog, "q=sensor&level=error");
    EXPECT_EQ(found.value("hitCount").toInt(), 1);
    QJsonObject files = found.value("files").toArray()[0].toObject();
    EXPECT_EQ(files.value("name").toString(), "Kitchen Camera");
    EXPECT_EQ(files.value("device").toString(), "puck-7001122334455");
    EXPECT_EQ(files.value("log").toString(), QString::fromStdString(kFile));
    const QJsonObject hit = files.value("hits").toArray()[0].toObject();
    EXPECT_EQ(hit.value("level").toInt(), 3);
    EXPECT_EQ(search(catalog, "q=sensor&level=warning").value("hitCount").toInt(), 2);
    EXPECT_EQ(search(catalog, "q=sensor").value("hitCount").toInt(), 3);
    EXPECT_EQ(search(catalog, "q=Forged").value("hitCount").toInt(), 1) << "shown as text";
    EXPECT_EQ(WebApi::search(catalog, QUrlQuery("q=x&level=loud"), now_).status, 400);

    // Lines without a stamp are in a time range by their receive time.
    const auto at = [](long long t) {
        return QDateTime::fromSecsSinceEpoch(t).toString(Qt::ISODate);
    };
    EXPECT_EQ(search(catalog, "q=sensor&from=" + at(received_ - 60) + "&to=" + at(received_ + 60))
                  .value("hitCount")
                  .toInt(),
              3);
    EXPECT_EQ(search(catalog, "q=sensor&from=" + at(received_ + 120)).value("hitCount").toInt(), 0);

    // The log around the hit, with each line's level.
    const qint64 offset = hit.value("offset").toInteger();
    const QJsonObject around =
        call(WebApi::log(catalog, QUrlQuery("file=" + QString::fromStdString(kFile) +
                                            "&at=" + QString::number(offset) + "&limit=40")));
    EXPECT_EQ(around.value("at").toInteger(), offset);
    EXPECT_LE(around.value("start").toInteger(), offset);
    EXPECT_GT(around.value("end").toInteger(), offset);
    const QJsonObject whole =
        call(WebApi::log(catalog, QUrlQuery("file=" + QString::fromStdString(kFile))));
    const QStringList lines = whole.value("text").toString().split('\n');
    const QJsonArray levels = whole.value("levels").toArray();
    ASSERT_GE(levels.size(), 7);
    for (int i = 0; i < levels.size(); ++i) {
        const int expected = lines[i].contains("ERROR") ? 3 : lines[i].contains("WARN") ? 4 : 8;
        EXPECT_EQ(levels[i].toInt(), expected) << lines[i].toStdString();
    }
}

TEST_F(WebIndexTest, HistorySearchReadsOnlyGenerationsThatMayHoldTheWord) {
    {
        std::string error;
        std::shared_ptr<DeviceLogIndex> index = DeviceLogIndex::openForWriting(logs(), error);
        ASSERT_TRUE(index) << error;
        DeviceLogHistory::Options historyOptions;
        historyOptions.logsDir = logs();
        historyOptions.minFreePercent = 0;
        auto history = std::make_shared<DeviceLogHistory>(historyOptions);
        DeviceLogWriter::Options options;
        options.logsDir = logs();
        options.index = index;
        options.history = history;
        DeviceLogWriter writer(options);
        const auto log = writer.open(kFile);
        // Four generations of device text, the rare line in the first.
        const std::string text = nimbtest::deviceCorpus(2200 * 1024, 9);
        for (std::size_t at = 0; at < text.size(); at += 16 * 1024) {
            LogTextInfo info;
            info.receivedMs = received_ * 1000;
            std::string piece = text.substr(at, 16 * 1024);
            if (at == 32 * 1024) piece += "kernel: segfault at 0 ip 00007f\n";
            ASSERT_TRUE(log->append(piece, nullptr, info));
        }
        writer.drain();
        history->drain();
        index->flush();
        ASSERT_EQ(history->stats().compressedFiles, 3u);
    }
    LogCatalog catalog(logs());
    const QJsonObject found = search(catalog, "q=segfault");
    EXPECT_EQ(found.value("hitCount").toInt(), 1);
    EXPECT_EQ(found.value("filesSkipped").toInt(), 2);
    const QJsonObject none = search(catalog, "q=qzxqzx");
    EXPECT_EQ(none.value("hitCount").toInt(), 0);
    EXPECT_EQ(none.value("filesSkipped").toInt(), 3);
    // A regular expression that is not one literal reads every generation.
    const QJsonObject regex = search(catalog, "q=seg.ault&regex=1");
    EXPECT_EQ(regex.value("hitCount").toInt(), 1);
    EXPECT_EQ(regex.value("filesSkipped").toInt(), 0);
}

TEST_F(WebIndexTest, WithoutAnIndexTheFilesAreReadAsBefore) {
    std::ofstream(fs::path(logs()) / kFile)
        << "===== Old Name - sat === 2026/11/24 12:00:00 <-> 2026/11/24 12:00:00 =====\n"
        << "error: disk full\nall fine\n";
    LogCatalog catalog(logs());
    const QJsonObject device =
        call(WebApi::devices(catalog, QUrlQuery(), now_)).value("devices").toArray()[0].toObject();
    EXPECT_EQ(device.value("name").toString(), "Old Name");
    EXPECT_FALSE(device.value("indexed").toBool());
    const QJsonObject found = search(catalog, "q=i&level=error");
    EXPECT_EQ(found.value("hitCount").toInt(), 1);
    const QJsonArray levels =
        call(WebApi::log(catalog, QUrlQuery("file=" + QString::fromStdString(kFile))))
            .value("levels")
            .toArray();
    ASSERT_EQ(levels.size(), 3);
    EXPECT_EQ(levels[1].toInt(), 3);
}

}  // namespace
