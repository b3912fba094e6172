// SPDX-License-Identifier: MIT
#include "WebApi.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <tuple>

#include <QDateTime>
#include <QFile>
#include <QJsonArray>
#include <QRegularExpression>
#include <QTemporaryFile>
#include <QTimeZone>

#include "DeviceArchive.h"
#include "DeviceLogLines.h"
#include "DeviceLogSeverity.h"
#include "LogCatalog.h"
#include "LogIndexView.h"
#include "LogSearch.h"
#include "LogText.h"
#include "SafeFolder.h"
#include "WebApiParts.h"

namespace WebApi {

namespace {

constexpr std::size_t kMaxSearchHits = 1000;
constexpr std::size_t kMaxCrashes = 100;
constexpr std::size_t kMaxReportBytes = 1024 * 1024;
// The crash list shows the innermost frames of the crashing thread, read from the head
// of each report.
constexpr std::size_t kListedFrames = 4;
constexpr std::size_t kReportHeadBytes = 16 * 1024;
const char* const kArchiveTemplate = "/tmp/nimb-web-archive-XXXXXX";

using WebApiParts::displayName;
using WebApiParts::isBackName;
using WebApiParts::kBack;
using WebApiParts::maskUpTo;
using WebApiParts::notFound;
using WebApiParts::number;
using WebApiParts::parseLevel;
using WebApiParts::parseTime;
using WebApiParts::text;

// "12:34:56:78:9a:bc" for twelve hex digits, else the text as it is.
QString macText(const std::string& mac) {
    if (mac.size() != 12) return text(mac);
    QString out;
    for (std::size_t i = 0; i < 12; i += 2) {
        if (i > 0) out += QLatin1Char(':');
        out += text(mac.substr(i, 2));
    }
    return out;
}

QJsonArray countsJson(const std::array<std::uint32_t, LogCatalog::kBins>& counts) {
    QJsonArray array;
    for (const std::uint32_t count : counts) array.append(static_cast<qint64>(count));
    return array;
}

QJsonObject deviceJson(const LogCatalog::Device& device) {
    QJsonObject object;
    object.insert(QStringLiteral("key"), text(device.key));
    object.insert(QStringLiteral("deviceId"), text(device.deviceId));
    object.insert(QStringLiteral("mac"), macText(device.mac));
    object.insert(QStringLiteral("name"), text(displayName(device)));
    if (device.hasHeader) {
        object.insert(QStringLiteral("satellite"), text(device.header.satellite));
        object.insert(QStringLiteral("deviceTime"), text(device.header.deviceTime));
        object.insert(QStringLiteral("serverTime"), text(device.header.serverTime));
        // The clock tie as two instants, so that the page shows both in the zone chosen.
        std::int64_t deviceAt = 0, serverAt = 0;
        const QDateTime deviceUtc = QDateTime::fromString(text(device.header.deviceTime),
                                                          QStringLiteral("yyyy/MM/dd hh:mm:ss"));
        if (deviceUtc.isValid() && LogText::parseLocalTime(device.header.serverTime, serverAt)) {
            deviceAt =
                QDateTime(deviceUtc.date(), deviceUtc.time(), QTimeZone::utc()).toSecsSinceEpoch();
            QJsonObject tie;
            tie.insert(QStringLiteral("device"), static_cast<qint64>(deviceAt));
            tie.insert(QStringLiteral("server"), static_cast<qint64>(serverAt));
            object.insert(QStringLiteral("tie"), tie);
        }
    }
    object.insert(QStringLiteral("size"), static_cast<qint64>(device.size));
    object.insert(QStringLiteral("lastWrite"), static_cast<qint64>(device.lastWrite));
    QJsonArray logs;
    for (const LogCatalog::LogInfo& log : device.logs) {
        QJsonObject item;
        item.insert(QStringLiteral("file"), text(log.file));
        item.insert(QStringLiteral("log"), text(log.logName));
        item.insert(QStringLiteral("size"), static_cast<qint64>(log.size));
        item.insert(QStringLiteral("lastWrite"), static_cast<qint64>(log.lastWrite));
        item.insert(QStringLiteral("hasBack"), log.hasBack);
        logs.append(item);
    }
    object.insert(QStringLiteral("logs"), logs);
    QJsonArray activity;
    for (const std::uint32_t count : device.activity) activity.append(static_cast<qint64>(count));
    object.insert(QStringLiteral("activity"), activity);
    object.insert(QStringLiteral("indexed"), device.indexed);
    if (device.indexed) {
        QJsonObject severity;
        severity.insert(QStringLiteral("errors"),
                        countsJson(device.bySeverity[LogIndexView::kErrors]));
        severity.insert(QStringLiteral("warnings"),
                        countsJson(device.bySeverity[LogIndexView::kWarnings]));
        severity.insert(QStringLiteral("others"),
                        countsJson(device.bySeverity[LogIndexView::kOthers]));
        object.insert(QStringLiteral("severity"), severity);
    }
    return object;
}

// Orders devices by one of the listing's sort keys; false for an unknown key.
bool sortDevices(std::vector<LogCatalog::Device>& devices, const std::string& key) {
    const auto name = [](const LogCatalog::Device& d) {
        std::string n = displayName(d);
        std::transform(n.begin(), n.end(), n.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        return n;
    };
    using Less = std::function<bool(const LogCatalog::Device&, const LogCatalog::Device&)>;
    const std::map<std::string, Less> orders = {
        {"title:asc", [&](const auto& a, const auto& b) { return name(a) < name(b); }},
        {"title:desc", [&](const auto& a, const auto& b) { return name(a) > name(b); }},
        {"size:asc", [](const auto& a, const auto& b) { return a.size < b.size; }},
        {"size:desc", [](const auto& a, const auto& b) { return a.size > b.size; }},
        {"lastModified:asc",
         [](const auto& a, const auto& b) { return a.lastWrite < b.lastWrite; }},
        {"lastModified:desc",
         [](const auto& a, const auto& b) { return a.lastWrite > b.lastWrite; }},
    };
    const auto order = orders.find(key);
    if (order == orders.end()) return false;
    std::stable_sort(devices.begin(), devices.end(), order->second);
    return true;
}

// The files a search covers, each log's ".back" before the log itself.
std::vector<std::string> searchFiles(LogCatalog& catalog, const std::string& file,
                                     const std::string& device, std::int64_t now) {
    if (!file.empty()) return {file + kBack, file};
    std::vector<std::string> names;
    if (!device.empty()) {
        names = catalog.deviceFiles(device, now);
    } else {
        for (const SafeFolder::Entry& entry : SafeFolder::listRegular(catalog.folder()))
            names.push_back(entry.name);
    }
    // Sorting "x.back" before "x": compare with the suffix taken off.
    const auto base = [](const std::string& n) {
        const bool back =
            n.size() > kBack.size() && n.compare(n.size() - kBack.size(), kBack.size(), kBack) == 0;
        return std::make_pair(back ? n.substr(0, n.size() - kBack.size()) : n, !back);
    };
    std::sort(names.begin(), names.end(),
              [&](const std::string& a, const std::string& b) { return base(a) < base(b); });
    return names;
}

QJsonObject hitJson(const LogSearch::Hit& hit) {
    QJsonObject object;
    object.insert(QStringLiteral("offset"), static_cast<qint64>(hit.offset));
    object.insert(QStringLiteral("before"), text(hit.before));
    object.insert(QStringLiteral("after"), text(hit.after));
    QJsonArray parts;
    for (const std::string& part : hit.parts) parts.append(text(part));
    object.insert(QStringLiteral("parts"), parts);
    if (hit.level >= 0) object.insert(QStringLiteral("level"), hit.level);
    return object;
}

bool isCrashName(const QString& id) {
    static const QRegularExpression pattern(QStringLiteral("^[0-9A-Fa-f][0-9A-Fa-f-]{7,63}$"));
    return pattern.match(id).hasMatch();
}

// The innermost frames of the crashing thread as the reporter wrote them ("   0  module!
// function [/src/file.cpp:12]"), without the frame numbers and with the source file's
// folders left out: "module!function [file.cpp:12]". Empty for a report without a stack.
QJsonArray topFrames(const std::string& dumpFolder, const QString& id) {
    static const std::string kStack = "Stack of the crashing thread:\n";
    QJsonArray frames;
    const UniqueFd fd = SafeFolder::openRegular(dumpFolder, id.toStdString() + ".txt", nullptr);
    std::string head;
    if (!fd.valid() || !SafeFolder::readAt(fd.get(), 0, kReportHeadBytes, head)) return frames;
    std::size_t at = head.find(kStack);
    if (at == std::string::npos) return frames;
    at += kStack.size();
    while (static_cast<std::size_t>(frames.size()) < kListedFrames) {
        const std::size_t end = head.find('\n', at);
        if (end == std::string::npos || head.compare(at, 2, "  ") != 0) break;
        std::string frame = head.substr(at, end - at);
        at = end + 1;
        std::size_t start = frame.find_first_not_of(' ');
        start = frame.find_first_not_of("0123456789", start);
        start = frame.find_first_not_of(' ', start);
        if (start == std::string::npos) continue;
        frame.erase(0, start);
        const std::size_t open = frame.rfind(" [");
        const std::size_t slash = frame.rfind('/');
        if (open != std::string::npos && frame.back() == ']' && slash != std::string::npos &&
            slash > open) {
            frame.erase(open + 2, slash - open - 1);
        }
        frames.append(text(frame));
    }
    return frames;
}

}  // namespace

std::string param(const QUrlQuery& query, const char* name) {
    return query.queryItemValue(QString::fromLatin1(name), QUrl::FullyDecoded).toStdString();
}

WebReply devices(LogCatalog& catalog, const QUrlQuery& query, std::int64_t now) {
    std::vector<LogCatalog::Device> list = catalog.devices(now);
    const std::string sort =
        query.hasQueryItem(QStringLiteral("sort")) ? param(query, "sort") : "title:asc";
    if (!sortDevices(list, sort)) {
        return WebReply::error(400, QStringLiteral("unknown sort key \"%1\" (title, size or "
                                                   "lastModified, each :asc or :desc)")
                                        .arg(text(sort)));
    }
    QJsonArray items;
    for (const LogCatalog::Device& device : list) items.append(deviceJson(device));
    QJsonObject object;
    object.insert(QStringLiteral("devices"), items);
    object.insert(QStringLiteral("activityEnd"), static_cast<qint64>(LogCatalog::activityEnd(now)));
    object.insert(QStringLiteral("binMinutes"), LogCatalog::kBinMinutes);
    QJsonArray suite;
    for (const SafeFolder::Entry& entry : SafeFolder::listRegular(catalog.folder())) {
        LogCatalog::NameParts parts;
        if (!LogCatalog::splitFileName(entry.name, parts) &&
            entry.name.compare(entry.name.size() - std::min(entry.name.size(), kBack.size()),
                               kBack.size(), kBack) != 0) {
            suite.append(text(entry.name));
        }
    }
    object.insert(QStringLiteral("suiteLogs"), suite);
    return WebReply::json(object);
}

namespace {

// The text every match of `q` holds: the pattern itself, or a regular expression that
// is one literal; "" when there is none.
std::string literalOf(const LogSearch::Query& q) {
    if (q.regex && q.pattern.find_first_of("\\.^$|?*+()[]{}") != std::string::npos) return {};
    return q.pattern;
}

// Matching lines per minute (since 1970) and severity class.
using MatchTimes = std::map<std::int64_t, std::array<std::uint32_t, LogIndexView::kClasses>>;

// Where the matches lie: kHistogramBins bins over the query's range, or around the
// minutes the matches span when the range is open.
constexpr int kHistogramBins = 48;
QJsonObject histogramJson(const MatchTimes& times, const LogSearch::Query& q) {
    QJsonObject object;
    if (times.empty()) return object;
    const bool bounded = q.from != std::numeric_limits<std::int64_t>::min() &&
                         q.to != std::numeric_limits<std::int64_t>::max();
    std::int64_t start = bounded ? q.from / 60 * 60 : times.begin()->first * 60;
    const std::int64_t end = bounded ? q.to + 1 : (times.rbegin()->first + 1) * 60;
    const std::int64_t span = std::max<std::int64_t>(60, end - start);
    // Whole minutes, kHistogramBins of them covering the span; matches that span less are
    // centred.
    const std::int64_t bin = ((span + kHistogramBins - 1) / kHistogramBins + 59) / 60 * 60;
    const int bins = kHistogramBins;
    if (!bounded) start -= (bin * bins - span) / 2 / 60 * 60;
    std::array<std::vector<std::uint32_t>, LogIndexView::kClasses> counts;
    for (auto& c : counts) c.assign(static_cast<std::size_t>(bins), 0);
    for (const auto& [minute, classes] : times) {
        const std::int64_t i = (minute * 60 - start) / bin;
        if (i < 0 || i >= bins) continue;
        for (int c = 0; c < LogIndexView::kClasses; ++c)
            counts[c][static_cast<std::size_t>(i)] += classes[c];
    }
    const auto array = [](const std::vector<std::uint32_t>& values) {
        QJsonArray out;
        for (const std::uint32_t v : values) out.append(static_cast<qint64>(v));
        return out;
    };
    object.insert(QStringLiteral("from"), static_cast<qint64>(start));
    object.insert(QStringLiteral("binSeconds"), static_cast<qint64>(bin));
    object.insert(QStringLiteral("errors"), array(counts[LogIndexView::kErrors]));
    object.insert(QStringLiteral("warnings"), array(counts[LogIndexView::kWarnings]));
    object.insert(QStringLiteral("others"), array(counts[LogIndexView::kOthers]));
    return object;
}

// A search through the index: only pieces inside the time range, of the files asked
// for and holding a line of the level asked for are read; a matching line counts when
// its own time (its stamp, else when it was received) is in the range and its level
// (its label, else its piece's only level) is kept. History generations are included.
LogSearch::Result indexedSearch(LogCatalog& catalog, const LogSearch::Query& q,
                                const std::string& file, bool oneDevice,
                                DeviceLogSeverity::Level level, MatchTimes& times) {
    LogSearch::Searcher searcher(q);
    if (!searcher.error().empty()) return searcher.result();
    const bool filtered = level != DeviceLogSeverity::Level::Unknown;
    DeviceLogIndex::Query iq;
    if (q.from != std::numeric_limits<std::int64_t>::min())
        iq.since = std::max<std::int64_t>(1, q.from);
    if (q.to != std::numeric_limits<std::int64_t>::max()) iq.until = q.to + 1;
    // A piece whose lines state no level may still hold lines of the level asked for
    // in their text, so those are read too.
    if (filtered)
        iq.severities = maskUpTo(level) | DeviceLogSeverity::bit(DeviceLogSeverity::Level::Unknown);
    iq.file = file;
    iq.limit = 10000000;
    std::set<std::string> logs;  // the logs asked for (current names)
    for (const std::string& name : q.files) {
        logs.insert(isBackName(name) ? name.substr(0, name.size() - kBack.size()) : name);
    }
    // One device's logs are picked in the index; the whole folder's need no picking.
    if (oneDevice) iq.files.assign(logs.begin(), logs.end());
    // By log, oldest generation first, each in file order.
    iq.order = DeviceLogIndex::Order::Place;
    iq.withSource = false;
    std::vector<DeviceLogIndex::Piece> pieces;
    for (DeviceLogIndex::Piece& piece : catalog.index().query(iq)) {
        if (!piece.path.empty() && !piece.header && logs.count(piece.file) != 0)
            pieces.push_back(std::move(piece));
    }
    const std::string& folder = catalog.folder();
    // A history generation whose filter shows the text cannot hold the pattern is not read.
    const std::string literal = literalOf(q);
    std::size_t i = 0;
    while (i < pieces.size()) {
        std::size_t j = i + 1;
        while (j < pieces.size() && pieces[j].path == pieces[i].path) ++j;
        const std::string& path = pieces[i].path;
        if (!LogIndexView::mayHold(folder, path, literal)) {
            ++searcher.result().filesSkipped;
            i = j;
            continue;
        }
        LogSearch::FileHits hits;
        hits.log = pieces[i].file;
        hits.generation = pieces[i].generation;
        hits.file = path.compare(0, folder.size() + 1, folder + "/") == 0 &&
                            SafeFolder::isPlainName(path.substr(folder.size() + 1))
                        ? path.substr(folder.size() + 1)
                        : hits.log + "@" + std::to_string(hits.generation);
        ++searcher.result().filesScanned;
        bool goOn = true;
        // Runs of adjacent pieces are read as one text.
        for (std::size_t k = i; k < j && goOn;) {
            std::size_t m = k + 1;
            std::uint64_t end = pieces[k].offset + pieces[k].length;
            while (m < j && pieces[m].offset == end && end - pieces[k].offset < (8u << 20)) {
                end += pieces[m].length;
                ++m;
            }
            std::string text;
            if (LogIndexView::readPath(folder, path, pieces[k].offset,
                                       static_cast<std::size_t>(end - pieces[k].offset), text)) {
                const LogSearch::Accept accept = [&](std::uint64_t offset, std::string_view line,
                                                     int& lineLevel) {
                    const auto* piece = &pieces[k];
                    for (std::size_t p = k; p < m; ++p) {
                        if (offset >= pieces[p].offset) piece = &pieces[p];
                    }
                    auto own = DeviceLogSeverity::ofLine(line);
                    if (own == DeviceLogSeverity::Level::Unknown)
                        own = LogIndexView::soleLevel(piece->severities);
                    lineLevel = static_cast<int>(own);
                    if (filtered && own > level) return false;
                    const long long when =
                        DeviceLogLines::lineTime(line, piece->firstReceivedMs / 1000);
                    if (when < q.from || when > q.to) return false;
                    ++times[when / 60][LogIndexView::classOf(own)];
                    return true;
                };
                goOn = searcher.search(text, pieces[k].offset, accept, hits);
            }
            k = m;
        }
        if (!hits.hits.empty()) searcher.result().files.push_back(std::move(hits));
        if (!goOn) break;
        i = j;
    }
    return searcher.result();
}

}  // namespace

WebReply search(LogCatalog& catalog, const QUrlQuery& query, std::int64_t now) {
    const std::string& folder = catalog.folder();
    LogSearch::Query q;
    q.pattern = param(query, "q");
    q.regex = param(query, "regex") == "1";
    const std::string file = param(query, "file");
    const std::string device = param(query, "device");
    if ((!file.empty() && !SafeFolder::isPlainName(file)) ||
        (!device.empty() && !SafeFolder::isPlainName(device))) {
        return notFound();
    }
    if (query.hasQueryItem(QStringLiteral("from")) && !parseTime(param(query, "from"), q.from)) {
        return WebReply::error(400, QStringLiteral("from: expected a time like 2026-11-22T10:00"));
    }
    if (query.hasQueryItem(QStringLiteral("to")) && !parseTime(param(query, "to"), q.to)) {
        return WebReply::error(400, QStringLiteral("to: expected a time like 2026-11-22T10:00"));
    }
    std::uint64_t max = 0;
    if (query.hasQueryItem(QStringLiteral("max"))) {
        if (!number(param(query, "max"), max) || max == 0) {
            return WebReply::error(400, QStringLiteral("max: expected a positive count"));
        }
        q.maxHits = static_cast<std::size_t>(std::min<std::uint64_t>(max, kMaxSearchHits));
    }
    DeviceLogSeverity::Level level = DeviceLogSeverity::Level::Unknown;
    if (query.hasQueryItem(QStringLiteral("level")) && !parseLevel(param(query, "level"), level)) {
        return WebReply::error(400, QStringLiteral("level: expected a severity such as error "
                                                   "or warning"));
    }
    q.files = searchFiles(catalog, file, device, now);
    MatchTimes times;
    q.countPastCap = true;
    LogSearch::Result result = catalog.index().available()
                                   ? indexedSearch(catalog, q, file, !device.empty(), level, times)
                                   : LogSearch::run(folder, q);
    if (!result.error.empty()) return WebReply::error(400, text(result.error));
    if (level != DeviceLogSeverity::Level::Unknown && !catalog.index().available()) {
        // Without the index: each hit line's own label decides.
        for (LogSearch::FileHits& hits : result.files) {
            auto& list = hits.hits;
            list.erase(std::remove_if(list.begin(), list.end(),
                                      [&](LogSearch::Hit& hit) {
                                          std::string line;
                                          for (const std::string& part : hit.parts) line += part;
                                          const auto own = DeviceLogSeverity::ofLine(line);
                                          hit.level = static_cast<int>(own);
                                          return own > level;
                                      }),
                       list.end());
        }
    }
    // Devices by their names: which device each searched file belongs to.
    std::map<std::string, const LogCatalog::Device*> deviceOf;
    std::map<std::string, std::string> logNameOf;
    const std::vector<LogCatalog::Device> known = catalog.devices(now);
    for (const LogCatalog::Device& d : known) {
        for (const LogCatalog::LogInfo& l : d.logs) {
            deviceOf[l.file] = &d;
            logNameOf[l.file] = l.logName;
        }
    }
    QJsonArray files;
    std::size_t hitCount = 0;
    for (const LogSearch::FileHits& hits : result.files) {
        if (hits.hits.empty()) continue;
        QJsonArray items;
        for (const LogSearch::Hit& hit : hits.hits) items.append(hitJson(hit));
        hitCount += hits.hits.size();
        QJsonObject entry;
        entry.insert(QStringLiteral("file"), text(hits.file));
        const std::string log = !hits.log.empty() ? hits.log
                                : isBackName(hits.file)
                                    ? hits.file.substr(0, hits.file.size() - kBack.size())
                                    : hits.file;
        entry.insert(QStringLiteral("log"), text(log));
        if (hits.file != log && !isBackName(hits.file)) {
            entry.insert(QStringLiteral("generation"), static_cast<qint64>(hits.generation));
        }
        const auto owner = deviceOf.find(log);
        if (owner != deviceOf.end()) {
            entry.insert(QStringLiteral("device"), text(owner->second->key));
            entry.insert(QStringLiteral("name"), text(displayName(*owner->second)));
            entry.insert(QStringLiteral("logName"), text(logNameOf[log]));
        }
        entry.insert(QStringLiteral("hits"), items);
        files.append(entry);
    }
    result.hitCount = hitCount;
    QJsonObject object;
    object.insert(QStringLiteral("files"), files);
    object.insert(QStringLiteral("hitCount"), static_cast<qint64>(result.hitCount));
    object.insert(QStringLiteral("more"), result.more);
    object.insert(QStringLiteral("timedOut"), result.timedOut);
    object.insert(QStringLiteral("budgetMs"), static_cast<qint64>(q.budget.count()));
    object.insert(QStringLiteral("bytesScanned"), static_cast<qint64>(result.bytesScanned));
    object.insert(QStringLiteral("filesScanned"), static_cast<qint64>(result.filesScanned));
    object.insert(QStringLiteral("filesSkipped"), static_cast<qint64>(result.filesSkipped));
    object.insert(QStringLiteral("matchCount"), static_cast<qint64>(result.matchCount));
    object.insert(QStringLiteral("countComplete"), result.countComplete);
    if (!times.empty()) object.insert(QStringLiteral("histogram"), histogramJson(times, q));
    return WebReply::json(object);
}

WebReply download(const std::string& folder, const QUrlQuery& query) {
    const std::string file = param(query, "file");
    struct stat st {};
    const UniqueFd current = SafeFolder::openRegular(folder, file, &st);
    if (!current.valid()) return notFound();
    WebReply reply;
    reply.contentType = "text/plain; charset=utf-8";
    std::string part;
    if (file.size() <= kBack.size() ||
        file.compare(file.size() - kBack.size(), kBack.size(), kBack) != 0) {
        struct stat backSt {};
        const UniqueFd back = SafeFolder::openRegular(folder, file + kBack, &backSt);
        if (back.valid() && SafeFolder::readAt(back.get(), 0, backSt.st_size, part)) {
            reply.body.append(part.data(), static_cast<qsizetype>(part.size()));
        }
    }
    if (!SafeFolder::readAt(current.get(), 0, st.st_size, part)) {
        return WebReply::error(500, QStringLiteral("cannot read %1").arg(text(file)));
    }
    reply.body.append(part.data(), static_cast<qsizetype>(part.size()));
    reply.headers.emplace_back(
        "Content-Disposition",
        "attachment; filename=\"" + QByteArray::fromStdString(file) + ".txt\"");
    return reply;
}

WebReply archive(LogCatalog& catalog, const QUrlQuery& query, std::int64_t now) {
    const std::string device = param(query, "device");
    if (!SafeFolder::isPlainName(device)) return notFound();
    const std::vector<std::string> files = searchFiles(catalog, {}, device, now);
    if (files.empty()) return notFound();
    // Built in /tmp, not in $TMPDIR: the suite's programs take $TMPDIR as their crash
    // dump folder, which the service mounts read-only (its /tmp is private and writable).
    auto temp = std::make_shared<QTemporaryFile>(QString::fromLatin1(kArchiveTemplate));
    if (!temp->open())
        return WebReply::error(500, QStringLiteral("cannot create a temporary file"));
    const std::string error = DeviceArchive::write(catalog.folder(), files, temp->handle());
    if (!error.empty()) return WebReply::error(500, text(error));
    return WebApiParts::attachment(temp, "application/gzip", device + ".tar.gz");
}

WebReply crashes(const std::string& dumpFolder) {
    struct Crash {
        std::int64_t time = 0;
        std::uint64_t dumpSize = 0;
        bool hasDump = false, hasReport = false;
    };
    std::map<QString, Crash> byId;
    for (const SafeFolder::Entry& entry : SafeFolder::listRegular(dumpFolder)) {
        const QString name = text(entry.name);
        const bool dump = name.endsWith(QLatin1String(".dmp"));
        if (!dump && !name.endsWith(QLatin1String(".txt"))) continue;
        const QString id = name.left(name.size() - 4);
        if (!isCrashName(id)) continue;
        Crash& crash = byId[id];
        crash.time = std::max(crash.time, entry.mtime);
        (dump ? crash.hasDump : crash.hasReport) = true;
        if (dump) crash.dumpSize = entry.size;
    }
    std::vector<std::pair<QString, Crash>> list(byId.begin(), byId.end());
    std::sort(list.begin(), list.end(),
              [](const auto& a, const auto& b) { return a.second.time > b.second.time; });
    QJsonArray items;
    for (std::size_t i = 0; i < list.size() && i < kMaxCrashes; ++i) {
        QJsonObject item;
        item.insert(QStringLiteral("id"), list[i].first);
        item.insert(QStringLiteral("time"), static_cast<qint64>(list[i].second.time));
        item.insert(QStringLiteral("dumpSize"), static_cast<qint64>(list[i].second.dumpSize));
        item.insert(QStringLiteral("hasDump"), list[i].second.hasDump);
        item.insert(QStringLiteral("hasReport"), list[i].second.hasReport);
        if (list[i].second.hasReport) {
            item.insert(QStringLiteral("frames"), topFrames(dumpFolder, list[i].first));
        }
        items.append(item);
    }
    QJsonObject object;
    object.insert(QStringLiteral("crashes"), items);
    object.insert(QStringLiteral("more"), list.size() > kMaxCrashes);
    return WebReply::json(object);
}

WebReply crash(const std::string& dumpFolder, const QUrlQuery& query) {
    const std::string id = param(query, "id");
    if (!isCrashName(text(id))) return notFound();
    struct stat st {};
    const UniqueFd fd = SafeFolder::openRegular(dumpFolder, id + ".txt", &st);
    std::string report;
    if (!fd.valid() || !SafeFolder::readAt(fd.get(), 0, kMaxReportBytes, report)) return notFound();
    QJsonObject object;
    object.insert(QStringLiteral("id"), text(id));
    object.insert(QStringLiteral("text"), text(report));
    object.insert(QStringLiteral("cut"), static_cast<std::uint64_t>(st.st_size) > report.size());
    return WebReply::json(object);
}

WebReply stats(const StatsClient::Stats& stats, std::size_t tailClients) {
    QJsonObject object;
    object.insert(QStringLiteral("reachable"), stats.reachable);
    if (!stats.error.isEmpty()) object.insert(QStringLiteral("error"), stats.error);
    QJsonObject counters;
    for (const auto& [name, value] : stats.values) {
        counters.insert(text(name), static_cast<qint64>(value));
    }
    object.insert(QStringLiteral("counters"), counters);
    QJsonArray refusals;
    for (const StatsClient::Stats::Refusal& r : stats.refusals) {
        QJsonObject refusal;
        refusal.insert(QStringLiteral("time"), static_cast<qint64>(r.timeMs));
        refusal.insert(QStringLiteral("account"), text(r.account));
        refusal.insert(QStringLiteral("source"), text(r.source));
        refusal.insert(QStringLiteral("request"), text(r.request));
        refusal.insert(QStringLiteral("reason"), text(r.reason));
        refusals.append(refusal);
    }
    object.insert(QStringLiteral("refusals"), refusals);
    object.insert(QStringLiteral("tailClients"), static_cast<qint64>(tailClients));
    return WebReply::json(object);
}

WebReply metrics(const StatsClient::Stats& stats, std::size_t tailClients) {
    struct Metric {
        const char* name;
        const char* type;
        const char* help;
    };
    static const std::map<std::string, Metric> known = {
        {"requests",
         {"nimb_collector_requests_total", "counter",
          "SetLogSource and AppendLog requests served."}},
        {"linesWritten",
         {"nimb_collector_lines_written_total", "counter", "Lines handed to device log files."}},
        {"bytesWritten",
         {"nimb_collector_bytes_written_total", "counter", "Bytes handed to device log files."}},
        {"queueDepth",
         {"nimb_collector_queue_depth", "gauge", "Calls waiting for the collector's main thread."}},
        {"queueBytes",
         {"nimb_collector_queue_bytes", "gauge",
          "Bytes of text waiting for the collector's main thread."}},
        {"connected",
         {"nimb_collector_bus_connected", "gauge",
          "Whether the collector's bus connection is up."}},
        {"syslog.messages",
         {"nimb_syslog_messages_total", "counter", "Syslog messages written to files."}},
        {"syslog.bytes",
         {"nimb_syslog_bytes_total", "counter", "Bytes the syslog listeners received."}},
        {"syslog.truncated",
         {"nimb_syslog_truncated_total", "counter",
          "Syslog messages cut at the maximum message size."}},
        {"syslog.heldBack",
         {"nimb_syslog_held_back_total", "counter",
          "Times a syslog connection was held back over its sender's rate."}},
        {"syslog.refusedNames",
         {"nimb_syslog_refused_host_names_total", "counter",
          "Syslog host names not usable in a file name (filed under the address)."}},
        {"syslog.connections",
         {"nimb_syslog_connections", "gauge", "Open syslog TCP and TLS connections."}},
        {"syslog.senders", {"nimb_syslog_senders", "gauge", "Syslog senders with files."}},
        {"history.bytes",
         {"nimb_history_bytes", "gauge", "Bytes the history of rotated generations holds."}},
        {"history.files", {"nimb_history_files", "gauge", "Generations the history holds."}},
        {"history.removedFiles",
         {"nimb_history_removed_files_total", "counter", "Generations retention removed."}},
        {"history.removedBytes",
         {"nimb_history_removed_bytes_total", "counter", "Bytes retention removed."}},
        {"index.bytes", {"nimb_index_bytes", "gauge", "Size of the index database."}},
    };
    // Counters by kind: "<prefix><label value>" becomes "<name>{<label>="<value>"}".
    struct Family {
        const char* prefix;
        const char* name;
        const char* label;
        const char* help;
    };
    static const Family families[] = {
        {"errors.", "nimb_collector_errors_total", "kind", "Requests that failed, by kind."},
        {"syslog.dropped.", "nimb_syslog_dropped_total", "reason",
         "Syslog messages dropped, by reason."},
        {"syslog.closed.", "nimb_syslog_connections_closed_total", "reason",
         "Syslog connections refused or closed by the collector, by reason."},
        {"refused.", "nimb_collector_refused_total", "reason",
         "Requests refused for the caller's device account (identity) or reply inbox (inbox)."},
    };
    QByteArray out;
    const auto line = [&out](const char* name, const char* type, const char* help) {
        out += QByteArray("# HELP ") + name + ' ' + help + "\n# TYPE " + name + ' ' + type + '\n';
    };
    line("nimb_collector_up", "gauge", "Whether the collector answered GetStats.");
    out += QByteArray("nimb_collector_up ") + (stats.reachable ? "1" : "0") + '\n';
    for (const auto& [key, metric] : known) {
        const auto value = stats.values.find(key);
        if (value == stats.values.end()) continue;
        line(metric.name, metric.type, metric.help);
        out += QByteArray(metric.name) + ' ' +
               QByteArray::number(static_cast<qint64>(value->second)) + '\n';
    }
    for (const Family& family : families) {
        const std::size_t prefixLength = std::strlen(family.prefix);
        bool header = false;
        for (const auto& [key, value] : stats.values) {
            if (key.rfind(family.prefix, 0) != 0) continue;
            const std::string kind = key.substr(prefixLength);
            if (kind.empty() || !std::all_of(kind.begin(), kind.end(), [](char c) {
                    return std::isalnum(static_cast<unsigned char>(c)) != 0;
                }))
                continue;
            if (!header) line(family.name, "counter", family.help);
            header = true;
            out += QByteArray(family.name) + '{' + family.label + "=\"" +
                   QByteArray::fromStdString(kind) + "\"} " +
                   QByteArray::number(static_cast<qint64>(value)) + '\n';
        }
    }
    line("nimb_web_tail_clients", "gauge", "Live tails open in nimb-web.");
    out += "nimb_web_tail_clients " + QByteArray::number(static_cast<qint64>(tailClients)) + '\n';
    return WebReply::text(out, "text/plain; version=0.0.4; charset=utf-8");
}

}  // namespace WebApi
