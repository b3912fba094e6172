// SPDX-License-Identifier: MIT
// /api/timeline: the lines of several logs merged in time order, read from the pieces the
// collector's index names. A line's time is its own stamp, else the time its piece was
// received, held inside the piece's recorded time range, so that a piece's range always
// covers its lines; lines of the same second are ordered by log, generation and offset.
// A page is the `limit` lines nearest to a cursor on one side. It is found by reading
// the pieces around the cursor in windows of time that double in width: inside a window
// the pieces are read nearest first (by their last time going back, by their first time
// going forwards), so that once the lines found are as many as asked and all nearer
// than the next piece's range, nothing unread can come between. Work is bounded in time
// and bytes; a page cut short says where it stopped, and the next one goes on from there.
// Live: a token names the newest piece seen and how far each piece that may still grow
// was read; the next request reads only what came after.
// /api/time: the server's clock and zone.
#include <algorithm>
#include <chrono>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <tuple>

#include <QJsonArray>
#include <QTimeZone>

#include "DeviceLogLines.h"
#include "DeviceLogSeverity.h"
#include "LogCatalog.h"
#include "LogIndexView.h"
#include "LogSearch.h"
#include "SafeFolder.h"
#include "WebApi.h"
#include "WebApiParts.h"

namespace WebApi {

namespace {

using WebApiParts::isBackName;
using WebApiParts::kBack;
using WebApiParts::notFound;
using WebApiParts::number;
using WebApiParts::text;
using Clock = std::chrono::steady_clock;
using Level = DeviceLogSeverity::Level;

constexpr std::size_t kDefaultLines = 200;
constexpr std::size_t kMaxLines = 1000;
constexpr std::chrono::milliseconds kBudget{2000};
constexpr std::uint64_t kMaxBytes = 32ull << 20;     // piece text read for one page
constexpr std::uint64_t kMaxLiveBytes = 8ull << 20;  // and for one live request
constexpr std::size_t kMaxLiveLines = 2000;          // lines a live request gathers at most
constexpr std::size_t kMaxLineBytes = 4096;          // of a line's text, without a search
constexpr std::int64_t kFirstWindow = 3600;          // seconds; each further window doubles
constexpr int kMaxWindows = 40;
constexpr std::size_t kMaxPieces = 200000;  // pieces one index query gives at most
// A piece received this long ago cannot grow any more.
constexpr long long kGrowMs = (DeviceLogIndex::kMaxPieceSeconds + 60) * 1000;
// Pieces below the newest looked at to find those still growing when live starts.
constexpr std::int64_t kLiveLookBack = 4096;
constexpr std::size_t kMaxTokenPieces = 1024;

struct Key {
    std::int64_t time = 0;
    std::string file;
    std::int64_t generation = 0;
    std::uint64_t offset = 0;
    bool operator<(const Key& o) const {
        return std::tie(time, file, generation, offset) <
               std::tie(o.time, o.file, o.generation, o.offset);
    }
};

// A page's bound: beyond a line's key, or (`timeOnly`) a whole second: "before T" is
// every line before second T, "after T" every line from second T on.
struct Cursor {
    Key key;
    bool timeOnly = false;
};

struct Line {
    Key key;
    int level = static_cast<int>(Level::Unknown);
    bool header = false;
    bool marked = false;             // `parts` alternate plain and matched
    std::vector<std::string> parts;  // the text when not marked
    bool operator<(const Line& o) const { return key < o.key; }
};

std::string encode(const Key& key) {
    return std::to_string(key.time) + "." + std::to_string(key.generation) + "." +
           std::to_string(key.offset) + "." + key.file;
}

std::string encodeTime(std::int64_t time) { return std::to_string(time); }

std::int64_t asSigned(std::uint64_t n) {
    return static_cast<std::int64_t>(
        std::min<std::uint64_t>(n, std::numeric_limits<std::int64_t>::max()));
}

// "T" or "T.G.O.FILE"; false when malformed.
bool parseCursor(const std::string& value, Cursor& cursor) {
    std::uint64_t numbers[3] = {};
    std::size_t at = 0;
    for (int i = 0; i < 3; ++i) {
        const std::size_t dot = value.find('.', at);
        if (dot == std::string::npos) {
            if (i != 0 || !number(value, numbers[0])) return false;
            cursor.timeOnly = true;
            cursor.key.time = asSigned(numbers[0]);
            return true;
        }
        if (!number(value.substr(at, dot - at), numbers[i])) return false;
        at = dot + 1;
    }
    cursor.key.file = value.substr(at);
    if (!SafeFolder::isPlainName(cursor.key.file)) return false;
    cursor.key.time = asSigned(numbers[0]);
    cursor.key.generation = asSigned(numbers[1]);
    cursor.key.offset = numbers[2];
    return true;
}

// What a live token holds: the newest piece id read, and how far the pieces at or below
// it that may still have unread bytes were read.
struct Token {
    std::int64_t newest = 0;
    std::map<std::int64_t, std::uint64_t> read;
};

std::string encode(const Token& token) {
    std::string out = std::to_string(token.newest);
    char separator = ':';
    for (const auto& [id, length] : token.read) {
        out += separator + std::to_string(id) + "." + std::to_string(length);
        separator = ',';
    }
    return out;
}

// "N" or "N:ID.LEN,ID.LEN..."; false when malformed.
bool parseToken(const std::string& value, Token& token) {
    const std::size_t colon = value.find(':');
    std::uint64_t n = 0;
    if (!number(value.substr(0, colon), n)) return false;
    token.newest = asSigned(n);
    if (colon == std::string::npos) return true;
    std::size_t at = colon + 1;
    while (at <= value.size()) {
        const std::size_t comma = std::min(value.find(',', at), value.size());
        const std::string pair = value.substr(at, comma - at);
        const std::size_t dot = pair.find('.');
        std::uint64_t id = 0, length = 0;
        if (dot == std::string::npos || !number(pair.substr(0, dot), id) ||
            !number(pair.substr(dot + 1), length) || token.read.size() >= kMaxTokenPieces) {
            return false;
        }
        token.read[asSigned(id)] = length;
        at = comma + 1;
    }
    return true;
}

// One request: what it asks for and what it may still spend.
class Scan {
public:
    Scan(LogCatalog& catalog, std::uint64_t maxBytes)
        : catalog_(catalog), deadline_(Clock::now() + kBudget), maxBytes_(maxBytes) {}

    std::set<std::string> files;  // the logs asked for
    bool allFiles = true;         // none named: every log
    LogSearch::Query search;      // pattern empty: no text filter
    Level level = Level::Unknown;
    std::int64_t from = std::numeric_limits<std::int64_t>::min();
    std::int64_t to = std::numeric_limits<std::int64_t>::max();
    std::optional<Cursor> before, after;
    std::size_t limit = kDefaultLines;

    // Non-empty when the text filter is refused.
    std::string prepare() {
        if (search.pattern.empty()) return {};
        search.maxHits = std::numeric_limits<std::size_t>::max();
        search.budget = kBudget;
        searcher_ = std::make_unique<LogSearch::Searcher>(search);
        return searcher_->error();
    }

    bool spent() const { return bytes_ >= maxBytes_ || Clock::now() > deadline_; }
    std::uint64_t bytes() const { return bytes_; }

    bool chosen(const std::string& file) const { return allFiles || files.count(file) != 0; }

    // Pieces of the chosen logs that the query finds and that can be read.
    std::vector<DeviceLogIndex::Piece> pieces(DeviceLogIndex::Query q) {
        if (!allFiles) q.files.assign(files.begin(), files.end());
        q.limit = kMaxPieces;
        q.withSource = false;
        std::vector<DeviceLogIndex::Piece> out;
        for (DeviceLogIndex::Piece& piece : catalog_.index().query(q)) {
            if (!piece.path.empty() && chosen(piece.file)) out.push_back(std::move(piece));
        }
        return out;
    }

    // The lines of `piece` from byte `begin` to byte `end` (relative to the piece) that pass
    // the filters, into `out`. Unless `wholeTail`, a last line without its newline is left
    // for later. `consumed` is where the next read of the piece starts. False when the
    // time ran out in the middle (nothing of the piece is kept then).
    bool read(const DeviceLogIndex::Piece& piece, std::uint64_t begin, std::uint64_t end,
              bool wholeTail, std::vector<Line>& out, std::uint64_t& consumed) {
        consumed = begin;
        std::string bytes;
        if (end <= begin) return true;
        if (!LogIndexView::readPath(catalog_.folder(), piece.path, piece.offset + begin,
                                    static_cast<std::size_t>(end - begin), bytes)) {
            consumed = end;  // gone meanwhile: nothing to show
            return true;
        }
        bytes_ += bytes.size();
        if (!wholeTail) {
            const std::size_t nl = bytes.rfind('\n');
            bytes.resize(nl == std::string::npos ? 0 : nl + 1);
        }
        consumed = begin + bytes.size();
        const std::uint64_t base = piece.offset + begin;
        struct Fact {
            std::int64_t time;
            int level;
        };
        std::map<std::uint64_t, Fact> facts;
        const auto accept = [&](std::uint64_t offset, std::string_view line, int& lineLevel) {
            if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
            if (line.empty()) return false;
            // A line's own label, else its piece's level when every line of the piece
            // has that one (syslog's priority); a line among labelled ones has none.
            Level own = piece.header ? Level::Unknown : DeviceLogSeverity::ofLine(line);
            if (own == Level::Unknown && !piece.header &&
                (piece.severities & DeviceLogSeverity::bit(Level::Unknown)) == 0)
                own = LogIndexView::soleLevel(piece.severities);
            if (level != Level::Unknown && (piece.header || own > level)) return false;
            long long when = DeviceLogLines::lineTime(line, piece.firstReceivedMs / 1000);
            if (piece.lines > 0)
                when = std::clamp(when, piece.firstTime, std::max(piece.firstTime, piece.lastTime));
            if (when < from || when > to) return false;
            const Key key{when, piece.file, piece.generation, offset};
            if (before && (before->timeOnly ? when >= before->key.time : !(key < before->key)))
                return false;
            if (after && (after->timeOnly ? when < after->key.time : !(after->key < key)))
                return false;
            lineLevel = static_cast<int>(own);
            facts[offset] = {when, lineLevel};
            return true;
        };
        if (searcher_) {
            LogSearch::FileHits hits;
            const bool goOn = searcher_->search(bytes, base, accept, hits);
            if (!goOn && searcher_->result().timedOut) return false;
            for (LogSearch::Hit& hit : hits.hits) {
                const Fact fact = facts[hit.offset];
                Line line{{fact.time, piece.file, piece.generation, hit.offset},
                          fact.level,
                          piece.header,
                          true,
                          std::move(hit.parts)};
                out.push_back(std::move(line));
            }
            return true;
        }
        std::size_t at = 0;
        const std::string_view all(bytes);
        while (at < all.size()) {
            const std::size_t nl = all.find('\n', at);
            const std::size_t stop = nl == std::string_view::npos ? all.size() : nl;
            int lineLevel = 0;
            const std::string_view line = all.substr(at, stop - at);
            if (accept(base + at, line, lineLevel)) {
                const Fact fact = facts[base + at];
                out.push_back({{fact.time, piece.file, piece.generation, base + at},
                               fact.level,
                               piece.header,
                               false,
                               {std::string(line.substr(0, kMaxLineBytes))}});
            }
            at = stop + 1;
        }
        return true;
    }

private:
    LogCatalog& catalog_;
    const Clock::time_point deadline_;
    const std::uint64_t maxBytes_;
    std::uint64_t bytes_ = 0;
    std::unique_ptr<LogSearch::Searcher> searcher_;
};

struct Page {
    std::vector<Line> lines;  // in time order
    std::optional<std::string> earlier, later;
    bool cut = false;  // the time or bytes allowed ran out: the page is short
};

// The `limit` lines before the scan's bound (its `before` cursor, else its `to`, else the
// newest), in time order.
Page pageBefore(Scan& scan, std::int64_t now) {
    Page page;
    std::set<Line> best;
    const std::int64_t floor = scan.from == std::numeric_limits<std::int64_t>::min()
                                   ? 1
                                   : std::max<std::int64_t>(1, scan.from);
    bool open = !scan.before && scan.to == std::numeric_limits<std::int64_t>::max();
    std::int64_t hi = open ? now : scan.to;
    if (scan.before)
        hi =
            std::min(hi, scan.before->timeOnly ? scan.before->key.time - 1 : scan.before->key.time);
    std::int64_t width = kFirstWindow;
    std::int64_t lo = std::max(floor, hi - width + 1);
    std::set<std::int64_t> seen;
    bool done = hi < floor, exhausted = hi < floor;
    const auto full = [&] { return best.size() >= scan.limit; };
    for (int round = 0; !done; ++round) {
        DeviceLogIndex::Query q;
        q.since = lo;
        q.until = open ? 0 : hi + 1;
        std::vector<DeviceLogIndex::Piece> pieces = scan.pieces(q);
        std::stable_sort(pieces.begin(), pieces.end(),
                         [](const auto& a, const auto& b) { return a.lastTime > b.lastTime; });
        for (const DeviceLogIndex::Piece& piece : pieces) {
            if (piece.lines == 0 || !seen.insert(piece.id).second) continue;
            if (full() && best.begin()->key.time > piece.lastTime) {
                done = true;
                break;
            }
            std::vector<Line> lines;
            std::uint64_t consumed = 0;
            if (scan.spent() || !scan.read(piece, 0, piece.length, true, lines, consumed)) {
                page.cut = true;
                page.earlier = encodeTime(piece.lastTime + 1);
                done = true;
                break;
            }
            for (Line& line : lines) {
                best.insert(std::move(line));
                if (best.size() > scan.limit) best.erase(best.begin());
            }
        }
        if (done) break;
        if (full() && best.begin()->key.time >= lo) break;
        if (lo <= floor) {
            exhausted = true;
            break;
        }
        if (round + 1 >= kMaxWindows) {
            page.cut = true;
            page.earlier = encodeTime(lo);
            break;
        }
        open = false;
        hi = lo - 1;
        width *= 2;
        lo = std::max(floor, hi - width + 1);
    }
    const bool filled = best.size() >= scan.limit;  // lines may have been left out
    page.lines.assign(std::make_move_iterator(best.begin()), std::make_move_iterator(best.end()));
    if (page.cut) {
        // A cut page holds only the lines after where it stopped.
        const std::int64_t stop = std::stoll(*page.earlier);
        page.lines.erase(std::remove_if(page.lines.begin(), page.lines.end(),
                                        [&](const Line& l) { return l.key.time < stop; }),
                         page.lines.end());
    } else if ((!exhausted || filled) && !page.lines.empty()) {
        page.earlier = encode(page.lines.front().key);
    }
    // "before T" and "after T" are each other's complement, as are a key's.
    if (scan.before) {
        page.later = !page.lines.empty()     ? encode(page.lines.back().key)
                     : scan.before->timeOnly ? encodeTime(scan.before->key.time)
                                             : encode(scan.before->key);
    }
    return page;
}

// The `limit` lines after the scan's `after` cursor, in time order.
Page pageAfter(Scan& scan, std::int64_t now) {
    Page page;
    std::set<Line> best;
    const Cursor& after = *scan.after;
    std::int64_t lo = std::max(scan.from, after.key.time);
    std::int64_t width = kFirstWindow;
    std::set<std::int64_t> seen;
    bool done = lo > scan.to, exhausted = lo > scan.to;
    const auto full = [&] { return best.size() >= scan.limit; };
    for (int round = 0; !done; ++round) {
        std::int64_t hi = lo + width - 1;
        const bool open = scan.to == std::numeric_limits<std::int64_t>::max() && hi >= now;
        if (scan.to != std::numeric_limits<std::int64_t>::max()) hi = std::min(hi, scan.to);
        DeviceLogIndex::Query q;
        q.since = std::max<std::int64_t>(1, lo);
        q.until = open ? 0 : hi + 1;
        for (const DeviceLogIndex::Piece& piece : scan.pieces(q)) {
            if (piece.lines == 0 || !seen.insert(piece.id).second) continue;
            if (full() && best.rbegin()->key.time < piece.firstTime) {
                done = true;
                break;
            }
            std::vector<Line> lines;
            std::uint64_t consumed = 0;
            if (scan.spent() || !scan.read(piece, 0, piece.length, true, lines, consumed)) {
                page.cut = true;
                page.later = encodeTime(piece.firstTime);
                done = true;
                break;
            }
            for (Line& line : lines) {
                best.insert(std::move(line));
                if (best.size() > scan.limit) best.erase(std::prev(best.end()));
            }
        }
        if (done) break;
        if (open || hi >= scan.to) {
            exhausted = true;
            break;
        }
        if (full() && best.rbegin()->key.time <= hi) break;
        if (round + 1 >= kMaxWindows) {
            page.cut = true;
            page.later = encodeTime(hi + 1);
            break;
        }
        lo = hi + 1;
        width *= 2;
    }
    const bool filled = best.size() >= scan.limit;  // lines may have been left out
    page.lines.assign(std::make_move_iterator(best.begin()), std::make_move_iterator(best.end()));
    if (page.cut) {
        const std::int64_t stop = std::stoll(*page.later);
        page.lines.erase(std::remove_if(page.lines.begin(), page.lines.end(),
                                        [&](const Line& l) { return l.key.time >= stop; }),
                         page.lines.end());
    } else if ((!exhausted || filled) && !page.lines.empty()) {
        page.later = encode(page.lines.back().key);
    }
    page.earlier = !page.lines.empty() ? encode(page.lines.front().key)
                   : after.timeOnly    ? encodeTime(after.key.time)
                                       : encode(after.key);
    return page;
}

// Whether `piece` may still grow: received recently enough and the newest of its log.
bool mayGrow(const DeviceLogIndex::Piece& piece, std::int64_t newestOfLog, std::int64_t nowMs) {
    return piece.id == newestOfLog && piece.firstReceivedMs + kGrowMs >= nowMs;
}

// The newest piece of each log among `pieces`.
std::map<std::string, std::int64_t> newestOfLogs(const std::vector<DeviceLogIndex::Piece>& pieces) {
    std::map<std::string, std::int64_t> newest;
    for (const DeviceLogIndex::Piece& p : pieces) {
        std::int64_t& id = newest[p.file];
        id = std::max(id, p.id);
    }
    return newest;
}

// A token for the present: the newest piece now, and the length of each piece that may
// still grow.
Token presentToken(LogCatalog& catalog, Scan& scan, std::int64_t nowMs) {
    Token token;
    token.newest = catalog.index().lastPieceId();
    DeviceLogIndex::Query q;
    q.fromId = std::max<std::int64_t>(1, token.newest - kLiveLookBack);
    q.order = DeviceLogIndex::Order::Place;
    const std::vector<DeviceLogIndex::Piece> pieces = scan.pieces(q);
    const auto newest = newestOfLogs(pieces);
    for (const DeviceLogIndex::Piece& p : pieces) {
        if (p.id <= token.newest && mayGrow(p, newest.at(p.file), nowMs) &&
            token.read.size() < kMaxTokenPieces) {
            token.read[p.id] = p.length;
        }
    }
    return token;
}

// The lines that arrived since `token`, in time order; `token` becomes the next one.
std::vector<Line> liveLines(Scan& scan, Token& token, std::int64_t nowMs, bool& cut) {
    DeviceLogIndex::Query q;
    q.fromId = token.newest + 1;
    if (!token.read.empty()) q.fromId = std::min(q.fromId, token.read.begin()->first);
    q.order = DeviceLogIndex::Order::Place;
    std::vector<DeviceLogIndex::Piece> pieces = scan.pieces(q);
    std::sort(pieces.begin(), pieces.end(),
              [](const auto& a, const auto& b) { return a.id < b.id; });
    const auto newest = newestOfLogs(pieces);
    Token next;
    next.newest = token.newest;
    std::vector<Line> lines;
    std::size_t i = 0;
    for (; i < pieces.size(); ++i) {
        const DeviceLogIndex::Piece& p = pieces[i];
        const auto known = token.read.find(p.id);
        if (p.id <= token.newest && known == token.read.end()) continue;
        if (scan.spent() || lines.size() >= kMaxLiveLines) {
            cut = true;
            break;
        }
        const std::uint64_t from = known != token.read.end() ? known->second : 0;
        const bool growing = mayGrow(p, newest.at(p.file), nowMs);
        std::uint64_t consumed = from;
        std::vector<Line> found;
        if (!scan.read(p, from, p.length, !growing, found, consumed)) {
            cut = true;
            break;
        }
        std::move(found.begin(), found.end(), std::back_inserter(lines));
        if ((consumed < p.length || growing) && next.read.size() < kMaxTokenPieces)
            next.read[p.id] = consumed;
        next.newest = std::max(next.newest, p.id);
    }
    // What a cut left unread stays as it was.
    for (; i < pieces.size(); ++i) {
        const auto known = token.read.find(pieces[i].id);
        if (known != token.read.end() && next.read.size() < kMaxTokenPieces)
            next.read.insert(*known);
    }
    token = std::move(next);
    std::sort(lines.begin(), lines.end());
    return lines;
}

QJsonObject zoneJson(std::int64_t nowMs) {
    const QTimeZone zone = QTimeZone::systemTimeZone();
    const QDateTime now = QDateTime::fromMSecsSinceEpoch(nowMs, zone);
    QJsonObject object;
    object.insert(QStringLiteral("id"), QString::fromUtf8(QTimeZone::systemTimeZoneId()));
    object.insert(QStringLiteral("abbreviation"), zone.abbreviation(now));
    object.insert(QStringLiteral("offset"), zone.offsetFromUtc(now));
    return object;
}

QJsonObject lineJson(const Line& line) {
    QJsonObject object;
    object.insert(QStringLiteral("t"), static_cast<qint64>(line.key.time));
    object.insert(QStringLiteral("file"), text(line.key.file));
    object.insert(QStringLiteral("generation"), static_cast<qint64>(line.key.generation));
    object.insert(QStringLiteral("offset"), static_cast<qint64>(line.key.offset));
    object.insert(QStringLiteral("key"), text(encode(line.key)));
    object.insert(QStringLiteral("level"), line.level);
    if (line.header) object.insert(QStringLiteral("header"), true);
    if (line.marked) {
        QJsonArray parts;
        for (const std::string& part : line.parts) parts.append(text(part));
        object.insert(QStringLiteral("parts"), parts);
    } else {
        object.insert(QStringLiteral("text"), text(line.parts.empty() ? "" : line.parts[0]));
    }
    return object;
}

// Each log the lines come from: its device (key and display name) and its log name.
QJsonObject logsJson(LogCatalog& catalog, const std::vector<Line>& lines, std::int64_t now) {
    std::set<std::string> files;
    for (const Line& line : lines) files.insert(line.key.file);
    QJsonObject object;
    if (files.empty()) return object;
    for (const LogCatalog::Device& device : catalog.devices(now)) {
        for (const LogCatalog::LogInfo& log : device.logs) {
            if (files.erase(log.file) == 0) continue;
            QJsonObject entry;
            entry.insert(QStringLiteral("device"), text(device.key));
            entry.insert(QStringLiteral("name"), text(WebApiParts::displayName(device)));
            entry.insert(QStringLiteral("log"), text(log.logName));
            object.insert(text(log.file), entry);
        }
    }
    for (const std::string& file : files) {
        LogCatalog::NameParts parts;
        QJsonObject entry;
        if (LogCatalog::splitFileName(file, parts)) {
            entry.insert(QStringLiteral("device"), text(parts.key));
            entry.insert(QStringLiteral("name"), text(parts.key));
            entry.insert(QStringLiteral("log"), text(parts.logName));
        } else {
            entry.insert(QStringLiteral("log"), text(file));
        }
        object.insert(text(file), entry);
    }
    return object;
}

// Fills the scan from the query; an error answer when a parameter is malformed.
std::optional<WebReply> parse(LogCatalog& catalog, const QUrlQuery& query, std::int64_t now,
                              Scan& scan, std::optional<Token>& live) {
    const auto has = [&](const char* name) { return query.hasQueryItem(QLatin1String(name)); };
    const auto all = [&](const char* name) {
        std::vector<std::string> values;
        for (const QString& v : query.allQueryItemValues(QLatin1String(name), QUrl::FullyDecoded))
            values.push_back(v.toStdString());
        return values;
    };
    for (const std::string& device : all("device")) {
        if (!SafeFolder::isPlainName(device)) return notFound();
        scan.allFiles = false;
        for (const std::string& name : catalog.deviceFiles(device, now))
            scan.files.insert(isBackName(name) ? name.substr(0, name.size() - kBack.size()) : name);
    }
    for (const std::string& file : all("file")) {
        if (!SafeFolder::isPlainName(file)) return notFound();
        scan.allFiles = false;
        scan.files.insert(file);
    }
    scan.search.pattern = param(query, "q");
    scan.search.regex = param(query, "regex") == "1";
    if (has("level") && !WebApiParts::parseLevel(param(query, "level"), scan.level))
        return WebReply::error(400, QStringLiteral("level: expected a severity such as error "
                                                   "or warning"));
    if (has("from") && !WebApiParts::parseTime(param(query, "from"), scan.from))
        return WebReply::error(400, QStringLiteral("from: expected a time like 2026-11-22T10:00"));
    if (has("to") && !WebApiParts::parseTime(param(query, "to"), scan.to))
        return WebReply::error(400, QStringLiteral("to: expected a time like 2026-11-22T10:00"));
    std::uint64_t limit = 0;
    if (has("limit")) {
        if (!number(param(query, "limit"), limit) || limit == 0)
            return WebReply::error(400, QStringLiteral("limit: expected a positive count"));
        scan.limit = static_cast<std::size_t>(std::min<std::uint64_t>(limit, kMaxLines));
    }
    if (int(has("before")) + int(has("after")) + int(has("live")) > 1)
        return WebReply::error(400, QStringLiteral("before, after and live: one at a time"));
    for (const char* name : {"before", "after"}) {
        if (!has(name)) continue;
        Cursor cursor;
        if (!parseCursor(param(query, name), cursor))
            return WebReply::error(400,
                                   QStringLiteral("%1: expected a cursor from an earlier answer")
                                       .arg(QLatin1String(name)));
        (std::string(name) == "before" ? scan.before : scan.after) = cursor;
    }
    if (has("live")) {
        Token token;
        if (!parseToken(param(query, "live"), token))
            return WebReply::error(400,
                                   QStringLiteral("live: expected a token from an earlier answer"));
        live = token;
    }
    const std::string refused = scan.prepare();
    if (!refused.empty()) return WebReply::error(400, text(refused));
    return std::nullopt;
}

}  // namespace

WebReply timeline(LogCatalog& catalog, const QUrlQuery& query, std::int64_t nowMs) {
    const std::int64_t now = nowMs / 1000;
    std::optional<Token> live;
    Scan scan(catalog, query.hasQueryItem(QStringLiteral("live")) ? kMaxLiveBytes : kMaxBytes);
    if (std::optional<WebReply> refused = parse(catalog, query, now, scan, live))
        return std::move(*refused);
    if (!catalog.index().available())
        return WebReply::error(409, QStringLiteral("the timeline needs the collector's index, "
                                                   "which this logs folder does not have"));
    QJsonObject object;
    std::vector<Line> lines;
    bool cut = false;
    if (!scan.allFiles && scan.files.empty()) {
        // Logs were named, none of them known: an empty timeline.
        if (!live) live = Token{};
    } else if (live) {
        lines = liveLines(scan, *live, nowMs, cut);
    } else {
        // The token first: what arrives while the page is read comes again live, never
        // not at all (the page drops lines it already shows).
        if (!scan.before && !scan.after) live = presentToken(catalog, scan, nowMs);
        Page page = scan.after ? pageAfter(scan, now) : pageBefore(scan, now);
        lines = std::move(page.lines);
        cut = page.cut;
        if (page.earlier) object.insert(QStringLiteral("earlier"), text(*page.earlier));
        if (page.later) object.insert(QStringLiteral("later"), text(*page.later));
    }
    QJsonArray items;
    for (const Line& line : lines) items.append(lineJson(line));
    object.insert(QStringLiteral("lines"), items);
    object.insert(QStringLiteral("logs"), logsJson(catalog, lines, now));
    if (live) object.insert(QStringLiteral("live"), text(encode(*live)));
    object.insert(QStringLiteral("cut"), cut);
    object.insert(QStringLiteral("bytesScanned"), static_cast<qint64>(scan.bytes()));
    object.insert(QStringLiteral("zone"), zoneJson(nowMs));
    return WebReply::json(object);
}

WebReply serverTime(std::int64_t nowMs) {
    QJsonObject object;
    object.insert(QStringLiteral("now"), static_cast<qint64>(nowMs));
    object.insert(QStringLiteral("zone"), zoneJson(nowMs));
    return WebReply::json(object);
}

}  // namespace WebApi
