// SPDX-License-Identifier: MIT
// The console over a logs folder with the collector's index, written by the real writer:
// activity split by severity at every line's time, the device's name and clock tie
// only from the header lines the collector wrote (a device's header-shaped text stays
// text), the severity filter and time range in search, hits grouped by device with
// their levels, a log opened around a hit, and each line's level; "earlier" and "later"
// walking a log's generations (history compressed and plain, ".back", current file);
// a log that has only its ".back" counted on its device.
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <sys/stat.h>

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrlQuery>

#include <gtest/gtest.h>

#include "DeviceLogHistory.h"
#include "DeviceLogIndex.h"
#include "DeviceLogWriter.h"
#include "IndexedLogWriter.h"
#include "LogCatalog.h"
#include "LogCorpus.h"
#include "LogIndexView.h"
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

    // Writes `texts` (the first is the header) as one write each. With `rotateSize` the
    // log rotates as it fills and its older generations go to a history, compressed.
    void writeLog(const std::vector<std::string>& texts, long long rotateSize = 0) {
        IndexedLogWriter log(logs(), kFile, rotateSize);
        ASSERT_TRUE(log.ok());
        for (std::size_t i = 0; i < texts.size(); ++i)
            log.append(texts[i], i == 0, (received_ + static_cast<long long>(i)) * 1000);
        if (log.history() != nullptr) generations_ = log.history()->list(kFile);
    }

    // Leaves the compressed history generation `entry` as the plain file it was before
    // its compression (as one still waiting for it is).
    void uncompress(const DeviceLogHistory::Entry& entry) {
        const std::string plain = entry.path.substr(0, entry.path.size() - 4);  // ".zst"
        ASSERT_EQ(entry.path.substr(plain.size()), ".zst");
        std::string text;
        ASSERT_TRUE(LogIndexView::readPath(logs(), plain, 0, entry.rawBytes, text));
        ASSERT_EQ(text.size(), entry.rawBytes);
        std::ofstream(plain, std::ios::binary) << text;
        fs::remove(entry.path);
    }

    QJsonObject call(WebReply reply) {
        EXPECT_EQ(reply.status, 200) << reply.body.toStdString();
        return QJsonDocument::fromJson(reply.body).object();
    }
    QJsonObject search(LogCatalog& catalog, const QString& query) {
        return call(WebApi::search(catalog, QUrlQuery(query), now_));
    }

    QJsonObject logAt(const QString& params) {
        return call(WebApi::log(catalog_, QUrlQuery("limit=200&" + params)));
    }

    // The texts of a rotating log: its header, then `count` numbered lines.
    static std::vector<std::string> numberedLines(int count) {
        std::vector<std::string> texts = {
            "\n===== Kitchen Camera - sat1 === 2026/11/24 12:00:00 <-> 2026/11/24 12:00:00 "
            "=====\n"};
        for (int i = 0; i < count; ++i) {
            char line[64];
            std::snprintf(line, sizeof line, "cam[1]: line %04d of the numbered lines\n", i);
            texts.emplace_back(line);
        }
        return texts;
    }

    nimbtest::TempDir dir_;
    std::int64_t now_ = 0;
    long long received_ = 0;
    std::vector<DeviceLogHistory::Entry> generations_;
    LogCatalog catalog_{logs()};
};

// Where a reply's text continues ("earlier" or "later"), as query parameters; "" at the end.
QString next(const QJsonObject& reply, const char* key, const char* offset) {
    const QJsonObject place = reply.value(key).toObject();
    if (place.isEmpty()) return {};
    QUrlQuery query;
    query.addQueryItem("file", place.value("file").toString());
    query.addQueryItem(offset, QString::number(place.value(offset).toInteger()));
    if (place.contains("generation"))
        query.addQueryItem("generation", QString::number(place.value("generation").toInteger()));
    return query.toString(QUrl::FullyEncoded);
}

// Where a reply's text is: its file, and its generation when it is a history generation.
std::string where(const QJsonObject& reply) {
    std::string place = reply.value("file").toString().toStdString();
    if (reply.contains("generation"))
        place += "@" + std::to_string(reply.value("generation").toInteger());
    return place;
}

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
    // Where the matches lie, by severity, counted past the cap of hits shown.
    const QJsonObject capped = search(catalog, "q=sensor&max=1");
    EXPECT_EQ(capped.value("hitCount").toInt(), 1);
    EXPECT_TRUE(capped.value("more").toBool());
    EXPECT_EQ(capped.value("matchCount").toInt(), 3);
    EXPECT_TRUE(capped.value("countComplete").toBool());
    const QJsonObject histogram = capped.value("histogram").toObject();
    EXPECT_EQ(sum(histogram.value("errors").toArray()), 1);
    EXPECT_EQ(sum(histogram.value("warnings").toArray()), 1);
    EXPECT_EQ(sum(histogram.value("others").toArray()), 1);
    EXPECT_LE(histogram.value("from").toInteger(), received_);
    EXPECT_GE(histogram.value("binSeconds").toInt(), 60);
    EXPECT_LE(histogram.value("others").toArray().size(), 48);
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

TEST_F(WebIndexTest, HistorySearchReadsOnlyGenerationsThatMayHoldTheWordAndDownloadsHaveIt) {
    std::string written;
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
            written += piece;
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

    // The download with history: every generation, the ".back" and the file, in order,
    // as one zstd file.
    const WebReply download =
        WebApi::historyDownload(catalog, QUrlQuery("file=" + QString::fromStdString(kFile)));
    ASSERT_EQ(download.status, 200);
    EXPECT_EQ(download.contentType, "application/zstd");
    ASSERT_TRUE(download.file);
    const std::string zst = (fs::path(dir_.path()) / "download.zst").string();
    {
        std::ofstream out(zst, std::ios::binary);
        const QByteArray bytes = download.file->readAll();
        out.write(bytes.constData(), bytes.size());
    }
    std::string unpacked;
    if (FILE* pipe = popen(("zstdcat -q '" + zst + "'").c_str(), "r")) {
        char buffer[65536];
        for (std::size_t n; (n = fread(buffer, 1, sizeof(buffer), pipe)) > 0;)
            unpacked.append(buffer, n);
        pclose(pipe);
    }
    EXPECT_TRUE(unpacked == written) << unpacked.size() << " of " << written.size();
    EXPECT_EQ(WebApi::historyDownload(catalog, QUrlQuery("file=../x")).status, 404);
    EXPECT_EQ(WebApi::historyDownload(catalog, QUrlQuery("file=nothing.log")).status, 404);

    // The index keeps history places relative to the logs folder: a moved folder still
    // finds its history.
    const std::string moved = logs() + "-moved";
    fs::rename(logs(), moved);
    LogCatalog movedCatalog(moved);
    EXPECT_EQ(search(movedCatalog, "q=segfault").value("hitCount").toInt(), 1);
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

TEST_F(WebIndexTest, EarlierAndLaterWalkEveryGenerationInOrder) {
    const std::vector<std::string> texts = numberedLines(120);
    writeLog(texts, 600);
    std::string all;
    for (const std::string& text : texts) all += text;
    // History generations, the middle one left plain; a ".back" and the current file.
    ASSERT_GE(generations_.size(), 3u);
    for (const auto& generation : generations_) ASSERT_NE(generation.compressedBytes, 0u);
    uncompress(generations_[1]);
    ASSERT_TRUE(fs::exists(fs::path(logs()) / (kFile + ".back")));
    const QString file = QString::fromStdString(kFile);

    // From the end, "earlier" back to the first byte of the oldest generation.
    std::string text;
    std::set<std::string> places;
    QJsonObject reply = logAt("file=" + file);
    for (int steps = 0; steps < 200; ++steps) {
        const std::string piece = reply.value("text").toString().toStdString();
        ASSERT_LE(piece.size(), 200u);
        text.insert(0, piece);
        places.insert(where(reply));
        const QString earlier = next(reply, "earlier", "before");
        if (earlier.isEmpty()) break;
        reply = logAt(earlier);
    }
    EXPECT_EQ(text, all);
    // Every generation was read: each history one, the ".back" and the file.
    EXPECT_EQ(places.size(), generations_.size() + 2);

    // A hit in the oldest generation opened at its line, then "later" to the live end.
    const QJsonObject found = search(catalog_, "q=line 0002 ");
    ASSERT_EQ(found.value("hitCount").toInt(), 1);
    const QJsonObject hits = found.value("files").toArray()[0].toObject();
    ASSERT_TRUE(hits.contains("generation"));
    const qint64 offset = hits.value("hits").toArray()[0].toObject().value("offset").toInteger();
    const QJsonObject around = logAt(
        "file=" + file + "&generation=" + QString::number(hits.value("generation").toInteger()) +
        "&at=" + QString::number(offset));
    const std::string shown = around.value("text").toString().toStdString();
    ASSERT_NE(shown.find("line 0002 "), std::string::npos);
    EXPECT_EQ(shown.back(), '\n') << "a text short of its file's end ends at a line end";
    text = shown;
    places.clear();
    reply = around;
    for (int steps = 0; steps < 200; ++steps) {
        const QString later = next(reply, "later", "after");
        if (later.isEmpty()) break;
        reply = logAt(later);
        const std::string piece = reply.value("text").toString().toStdString();
        ASSERT_LE(piece.size(), 200u);
        text += piece;
        places.insert(where(reply));
    }
    ASSERT_LE(text.size(), all.size());
    EXPECT_EQ(all.substr(all.size() - text.size()), text) << "in order, nothing twice";
    EXPECT_EQ(text.size(), all.size() - static_cast<std::size_t>(around.value("start").toInteger()))
        << "nothing left out";
    EXPECT_EQ(places.size(), generations_.size() + 2) << "the hit's generation and all after it";
    // The last piece is the current file's end, where the live tail takes over.
    struct stat st {};
    ASSERT_EQ(::stat((fs::path(logs()) / kFile).c_str(), &st), 0);
    EXPECT_EQ(reply.value("file").toString(), file);
    EXPECT_EQ(reply.value("end").toInteger(), st.st_size);
    EXPECT_EQ(reply.value("inode").toString(), QString::number(st.st_ino));
    EXPECT_FALSE(reply.contains("later"));

    // A generation read forwards that is a file now is read by its name.
    std::string error;
    const auto index = DeviceLogIndex::openForReading(logs(), error);
    ASSERT_TRUE(index) << error;
    DeviceLogIndex::Query q;
    q.file = kFile;
    std::int64_t back = -1;
    for (const auto& piece : index->query(q)) {
        if (piece.path == logs() + "/" + kFile + ".back") back = piece.generation;
    }
    ASSERT_GE(back, 0);
    reply = logAt("file=" + file + "&generation=" + QString::number(back) + "&after=0");
    EXPECT_EQ(reply.value("file").toString(), file + ".back");
    EXPECT_FALSE(reply.contains("generation"));
    EXPECT_EQ(WebApi::log(catalog_, QUrlQuery("file=" + file + "&after=0&before=10")).status, 400);
    EXPECT_EQ(WebApi::log(catalog_, QUrlQuery("file=" + file + "&after=x")).status, 400);
}

TEST_F(WebIndexTest, ALogWithOnlyItsBackCountsOnItsDevice) {
    writeLog(numberedLines(40), 600);
    const auto device = [&] {
        return call(WebApi::devices(catalog_, QUrlQuery(), now_))
            .value("devices")
            .toArray()[0]
            .toObject();
    };
    EXPECT_EQ(sum(device().value("activity").toArray()), 40);
    // Its current file removed: the ".back" and the history still count, and the
    // index still names the device.
    fs::remove(fs::path(logs()) / kFile);
    const QJsonObject onlyBack = device();
    EXPECT_EQ(sum(onlyBack.value("activity").toArray()), 40);
    EXPECT_EQ(sum(onlyBack.value("severity").toObject().value("others").toArray()), 40);
    EXPECT_EQ(onlyBack.value("name").toString(), "Kitchen Camera");
    const QJsonObject log = onlyBack.value("logs").toArray()[0].toObject();
    EXPECT_EQ(log.value("file").toString(), QString::fromStdString(kFile));
    EXPECT_TRUE(log.value("hasBack").toBool());
}

}  // namespace
