// SPDX-License-Identifier: MIT
// The history's figures, side by side in one run:
// 1. compression of syslog-like and device-like text in generations of the size a device
//    log rotates at, with the word filter counted in, and what 30 days of a device
//    writing 10 lines a second take;
// 2. a search for a rare word through the console's search over a history of a given
//    compressed size (1 GB by default) that the real writer, index and history store
//    built: over everything, within one hour, and within one device; beside
//    `zstdcat | grep` over the same files.
// The history is built once into the folder given and kept for later runs (delete it to
// build it again). Searches run on a warm page cache: each is run once before it is timed.
//
//   history_bench [--dir PATH] [--gigabytes G] [--devices N] [--runs R] [--search-only]

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrlQuery>

#include "DeviceLogHistory.h"
#include "DeviceLogHistoryFrames.h"
#include "DeviceLogIndex.h"
#include "DeviceLogWriter.h"
#include "LogCatalog.h"
#include "LogCorpus.h"
#include "WebApi.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kRareWord = "segfault";
constexpr long long kStartMs = 1767225600000LL;  // 2026/01/01 00:00:00 UTC
constexpr std::size_t kGeneration = DeviceLogWriter::kRotateSize;

struct Options {
    std::string dir = "/var/tmp/nimb-history-bench";
    double gigabytes = 1.0;
    int devices = 16;
    int runs = 5;
    bool searchOnly = false;  // no compression figures, no zstdcat | grep (for profiling)
};

double seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Compresses `text` in generations of kGeneration bytes as the history does; returns the
// compressed size and adds the time taken to `spent`.
std::uint64_t compressGenerations(const std::string& text, double& spent) {
    std::uint64_t total = 0;
    const std::string in = "/tmp/nimb-history-bench-in." + std::to_string(getpid());
    const std::string out = in + ".zst";
    for (std::size_t at = 0; at < text.size(); at += kGeneration) {
        {
            std::ofstream file(in, std::ios::binary | std::ios::trunc);
            file.write(text.data() + at,
                       static_cast<std::streamsize>(std::min(kGeneration, text.size() - at)));
        }
        const int inFd = open(in.c_str(), O_RDONLY | O_CLOEXEC);
        const int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        std::uint64_t raw = 0, packed = 0;
        std::string error;
        const auto start = Clock::now();
        if (inFd < 0 || outFd < 0 ||
            !DeviceLogHistoryFrames::compress(inFd, outFd, 128 * 1024,
                                              DeviceLogHistoryFrames::kLevel, raw, packed, error)) {
            fprintf(stderr, "compression failed: %s\n", error.c_str());
            exit(1);
        }
        spent += seconds(start);
        close(inFd);
        close(outFd);
        total += packed;
    }
    unlink(in.c_str());
    unlink(out.c_str());
    return total;
}

void compressionFigures() {
    printf("== Compression, generations of %zu KiB, word filter included\n", kGeneration / 1024);
    struct Corpus {
        const char* name;
        std::string text;
    };
    const Corpus corpora[] = {{"syslog-like", nimbtest::syslogCorpus(32 << 20, 1)},
                              {"device-like", nimbtest::deviceCorpus(32 << 20, 2)}};
    double deviceRatio = 0;
    std::size_t deviceLines = 0;
    for (const Corpus& corpus : corpora) {
        double spent = 0;
        const std::uint64_t packed = compressGenerations(corpus.text, spent);
        const double ratio = static_cast<double>(corpus.text.size()) / packed;
        printf("  %-12s %6.1f MiB -> %5.2f MiB  ratio %5.2fx  %5.0f MB/s on one core\n",
               corpus.name, corpus.text.size() / 1048576.0, packed / 1048576.0, ratio,
               corpus.text.size() / spent / 1e6);
        if (std::string(corpus.name) == "device-like") {
            deviceRatio = ratio;
            deviceLines =
                static_cast<std::size_t>(std::count(corpus.text.begin(), corpus.text.end(), '\n'));
        }
    }
    const double lineBytes = 32.0 * (1 << 20) / deviceLines;
    for (const double bytes : {lineBytes, 120.0}) {
        const double month = 30.0 * 86400 * 10 * bytes;
        printf("  30 days of one device at 10 lines/s (%.0f B a line): %.0f MB raw, %.0f MB kept\n",
               bytes, month / 1e6, month / deviceRatio / 1e6);
    }
}

std::string deviceFile(int device) {
    char name[64];
    snprintf(name, sizeof(name), "bench%02d0011223344%02x-player.log", device, device);
    return name;
}

std::uint64_t historyBytes(const std::string& logs) {
    std::uint64_t total = 0;
    for (const auto& entry : fs::recursive_directory_iterator(logs + "/history")) {
        if (entry.is_regular_file() && entry.path().extension() == ".zst")
            total += entry.file_size();
    }
    return total;
}

// Builds the history through the writer: each device writes lines stamped over about 30
// days, with the rare word in a few of them. Returns the time of the rare lines.
void build(const Options& options, const std::string& logs, std::vector<long long>& rareTimes) {
    printf("== Building %.2f GB of compressed history in %s (once)\n", options.gigabytes,
           logs.c_str());
    fs::create_directories(logs);
    std::string error;
    std::shared_ptr<DeviceLogIndex> index = DeviceLogIndex::openForWriting(logs, error);
    if (!index) {
        fprintf(stderr, "index: %s\n", error.c_str());
        exit(1);
    }
    DeviceLogHistory::Options historyOptions;
    historyOptions.logsDir = logs;
    historyOptions.maxBytes = static_cast<long long>(options.gigabytes * 4e9);
    historyOptions.maxAgeDays = 0;
    historyOptions.minFreePercent = 0;
    auto history = std::make_shared<DeviceLogHistory>(historyOptions);
    DeviceLogWriter::Options writerOptions;
    writerOptions.logsDir = logs;
    writerOptions.index = index;
    writerOptions.history = history;
    DeviceLogWriter writer(writerOptions);

    // Raw bytes to write: the target over a ratio of about 8.5, spread over 30 days.
    const double raw = options.gigabytes * 1e9 * 8.5;
    const double perDevice = raw / options.devices;
    const unsigned stepMs = static_cast<unsigned>(2 * 30.0 * 86400 * 1000 / (perDevice / 108));
    std::vector<std::unique_ptr<nimbtest::DeviceLines>> lines;
    std::vector<std::shared_ptr<CBBLogSink>> sinks;
    for (int d = 0; d < options.devices; ++d) {
        lines.push_back(std::make_unique<nimbtest::DeviceLines>(100 + d, kStartMs, stepMs));
        DeviceLogIndex::Identity identity;
        identity.deviceId = "bench" + std::to_string(d);
        identity.displayName = "Bench player " + std::to_string(d);
        writer.setIdentity(deviceFile(d), identity);
        sinks.push_back(writer.open(deviceFile(d)));
    }
    std::mt19937 rng(5);
    // About six rare lines in all, at random places.
    const unsigned rareEvery = std::max(1u, static_cast<unsigned>(raw / (64 * 1024) / 6));
    const auto start = Clock::now();
    double written = 0;
    std::uint64_t texts = 0;
    while (written < raw) {
        for (int d = 0; d < options.devices; ++d) {
            std::string text;
            while (text.size() < 64 * 1024) lines[d]->append(text);
            if (rng() % rareEvery == 0 && rareTimes.size() < 12) {
                const long long ms = lines[d]->now();
                const time_t t = static_cast<time_t>(ms / 1000);
                struct tm utc {};
                gmtime_r(&t, &utc);
                char line[160];
                snprintf(line, sizeof(line),
                         "%04d/%02d/%02d %02d:%02d:%02d.000 [ERROR] - Decoder - %s at 0 ip "
                         "00007f3a in libavcodec\n",
                         utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min,
                         utc.tm_sec, kRareWord);
                text += line;
                rareTimes.push_back(ms / 1000);
            }
            LogTextInfo info;
            info.receivedMs = lines[d]->now();
            written += static_cast<double>(text.size());
            sinks[d]->append(std::move(text), nullptr, info);
        }
        if (++texts % 64 == 0) writer.drain();  // bounded memory
    }
    writer.drain();
    history->drain();
    index->flush();
    printf("  wrote %.2f GB in %.0f s; history %.3f GB compressed in %llu generations\n",
           written / 1e9, seconds(start), historyBytes(logs) / 1e9,
           static_cast<unsigned long long>(history->stats().files));
}

struct Timed {
    double seconds = 0;
    int hits = 0;
    int skipped = 0;
    int scanned = 0;
    QString device;      // of the first hit
    long long time = 0;  // of the first hit's line (its stamp)
};

Timed search(LogCatalog& catalog, const QString& query, int runs) {
    std::vector<double> times;
    Timed result;
    for (int i = 0; i <= runs; ++i) {
        const auto start = Clock::now();
        const WebReply reply = WebApi::search(catalog, QUrlQuery(query), std::time(nullptr));
        const double spent = seconds(start);
        if (reply.status != 200) {
            fprintf(stderr, "search %s: %d %s\n", qPrintable(query), reply.status,
                    reply.body.constData());
            exit(1);
        }
        const QJsonObject object = QJsonDocument::fromJson(reply.body).object();
        result.hits = object.value("hitCount").toInt();
        result.skipped = object.value("filesSkipped").toInt();
        result.scanned = object.value("filesScanned").toInt();
        const QJsonObject first = object.value("files").toArray().at(0).toObject();
        result.device = first.value("device").toString();
        const QString line = first.value("hits")
                                 .toArray()
                                 .at(0)
                                 .toObject()
                                 .value("parts")
                                 .toArray()
                                 .at(0)
                                 .toString();
        QDateTime stamp = QDateTime::fromString(line.left(19), "yyyy/MM/dd hh:mm:ss");
        stamp.setTimeSpec(Qt::UTC);
        result.time = stamp.isValid() ? stamp.toSecsSinceEpoch() : 0;
        if (i > 0) times.push_back(spent);  // the first run warms the cache
    }
    result.seconds = median(times);
    return result;
}

double zstdcatGrep(const std::string& logs, int runs, int& count) {
    const std::string command = "cd '" + logs +
                                "' && find history -name '*.zst' -print0 | sort -z | "
                                "xargs -0 zstdcat -q | grep -c " +
                                kRareWord;
    std::vector<double> times;
    for (int i = 0; i <= runs && i < 3; ++i) {
        const auto start = Clock::now();
        FILE* pipe = popen(command.c_str(), "r");
        char buffer[64] = {};
        if (pipe == nullptr || fgets(buffer, sizeof(buffer), pipe) == nullptr) {
            fprintf(stderr, "zstdcat | grep failed\n");
            exit(1);
        }
        pclose(pipe);
        count = atoi(buffer);
        if (i > 0) times.push_back(seconds(start));
    }
    return median(times);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; i += 2) {
        std::string flag = argv[i];
        if (flag == "--search-only") {
            options.searchOnly = true;
            --i;
            continue;
        }
        if (i + 1 >= argc) flag.clear();
        if (flag == "--dir")
            options.dir = argv[i + 1];
        else if (flag == "--gigabytes")
            options.gigabytes = atof(argv[i + 1]);
        else if (flag == "--devices")
            options.devices = atoi(argv[i + 1]);
        else if (flag == "--runs")
            options.runs = std::max(1, atoi(argv[i + 1]));
        else {
            fprintf(stderr,
                    "usage: history_bench [--dir PATH] [--gigabytes G] [--devices N] "
                    "[--runs R]\n");
            return 2;
        }
    }
    if (options.gigabytes <= 0 || options.gigabytes > 4 || options.devices < 1 ||
        options.devices > 256) {
        fprintf(stderr, "history_bench: --gigabytes is 0 to 4, --devices 1 to 256\n");
        return 2;
    }
    if (!options.searchOnly) compressionFigures();

    const std::string logs = options.dir + "/logs";
    const std::string ready = options.dir + "/ready";
    std::vector<long long> rareTimes;
    if (!fs::exists(ready)) {
        fs::remove_all(options.dir);
        build(options, logs, rareTimes);
        std::ofstream out(ready);
        for (const long long t : rareTimes) out << t << "\n";
    } else {
        std::ifstream in(ready);
        for (long long t; in >> t;) rareTimes.push_back(t);
        printf("== Reusing the history in %s (%.3f GB compressed)\n", logs.c_str(),
               historyBytes(logs) / 1e9);
        // Brings an index made by an older build up to this build's schema.
        std::string error;
        if (!DeviceLogIndex::openForWriting(logs, error))
            fprintf(stderr, "index: %s\n", error.c_str());
    }
    if (rareTimes.empty()) {
        fprintf(stderr, "no rare line was written; build again with more data\n");
        return 1;
    }

    printf("== Search for a rare word (\"%s\", %zu lines), median of %d warm runs\n", kRareWord,
           rareTimes.size(), options.runs);
    LogCatalog catalog(logs);
    const auto iso = [](long long t) {
        return QDateTime::fromSecsSinceEpoch(t, Qt::UTC).toString(Qt::ISODate);
    };
    const QString word = QStringLiteral("q=") + kRareWord;
    const Timed all = search(catalog, word, options.runs);
    if (all.hits == 0 || all.time == 0 || all.device.isEmpty()) {
        fprintf(stderr, "the rare word was not found with its device and time\n");
        return 1;
    }
    // Within one hour around the first hit, and within the first hit's device.
    const Timed hour =
        search(catalog, word + "&from=" + iso(all.time - 1800) + "&to=" + iso(all.time + 1800),
               options.runs);
    const Timed device = search(catalog, word + "&device=" + all.device, options.runs);
    const Timed absent = search(catalog, QStringLiteral("q=qzxqzxqzx"), options.runs);
    int grepCount = 0;
    const double grep = options.searchOnly ? 1.0 : zstdcatGrep(logs, options.runs, grepCount);
    const auto row = [&](const char* what, const Timed& t) {
        printf(
            "  %-34s %8.1f ms  %3d hits  %6d generations read, %6d ruled out  1/%.0f of "
            "zstdcat|grep\n",
            what, t.seconds * 1000, t.hits, t.scanned, t.skipped, grep / t.seconds);
    };
    row("console search, all history", all);
    row("console search, one hour", hour);
    row("console search, one device", device);
    row("console search, absent word", absent);
    printf("  %-34s %8.1f ms  %3d hits\n", "zstdcat | grep -c, all history", grep * 1000,
           grepCount);
    return 0;
}
