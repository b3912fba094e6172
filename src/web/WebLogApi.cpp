// SPDX-License-Identifier: MIT
// /api/log: a window of one log's text, read backwards (its end, the text before an
// offset, the text around one) or forwards (the text after an offset), in the log's
// files or, through the index, in its history generations; with where the text before
// it and after it continues, across generations: history (oldest first), ".back", the
// current file, whose end is the live end.
#include <algorithm>
#include <cerrno>
#include <limits>
#include <map>
#include <optional>

#include <unistd.h>

#include <QJsonArray>
#include <QTemporaryFile>

#include "DeviceLogHistoryFrames.h"
#include "DeviceLogSeverity.h"
#include "LogCatalog.h"
#include "LogIndexView.h"
#include "LogReader.h"
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

// One generation of a log as the index knows it: the file holding it now ("" when it
// is gone) and its size.
struct Generation {
    std::string path;
    std::uint64_t size = 0;
};
using Generations = std::map<std::int64_t, Generation>;

// Where a window's text continues: a file of the folder by its name (a log's current
// file or its ".back"), or, with `generation` set, that history generation of the log
// `file`. `offset` is where the text before ends, or where the text after starts.
struct Place {
    std::string file;
    std::int64_t generation = -1;
    std::uint64_t offset = 0;
};

struct Window {
    LogReader::Chunk chunk;
    std::int64_t generation = -1;  // the history generation read, -1 for a file by name
    std::optional<Place> earlier;
    std::optional<Place> later;
};

// What a request asks for.
struct Request {
    std::string file;
    std::size_t limit = LogReader::kDefaultChunk;
    std::optional<std::uint64_t> before;  // backwards: the end of the text
    std::optional<std::uint64_t> at;      // backwards around this offset
    std::optional<std::uint64_t> after;   // forwards: the start of the text
    std::int64_t generation = -1;
};

// The generations of `log` the index knows, oldest first.
Generations generationsOf(LogIndexView& index, const std::string& log) {
    Generations generations;
    DeviceLogIndex::Query q;
    q.file = log;
    q.limit = 10000000;
    for (const DeviceLogIndex::Piece& piece : index.query(q)) {
        Generation& generation = generations[piece.generation];
        if (!piece.path.empty()) generation.path = piece.path;
        generation.size = std::max(generation.size, piece.offset + piece.length);
    }
    return generations;
}

// The name of the folder's file at `path` ("" when it is not one: a history generation).
std::string nameInFolder(const std::string& folder, const std::string& path) {
    const std::string prefix = folder + "/";
    if (path.compare(0, prefix.size(), prefix) != 0) return {};
    const std::string name = path.substr(prefix.size());
    return SafeFolder::isPlainName(name) ? name : std::string();
}

// The newest generation still held that is older than `generation`, from its end.
std::optional<Place> olderThan(const Generations& generations, const std::string& log,
                               std::int64_t generation) {
    auto it = generations.lower_bound(generation);
    while (it != generations.begin()) {
        --it;
        if (!it->second.path.empty()) return Place{log, it->first, it->second.size};
    }
    return std::nullopt;
}

// The oldest generation still held that is newer than `generation`, from its start:
// by its name when it is the log's ".back" or current file. When the index holds none,
// the ".back", else the current file, whichever exists (the index may not have caught
// up with a rotation yet).
std::optional<Place> newerThan(const std::string& folder, const Generations& generations,
                               const std::string& log, std::int64_t generation) {
    for (auto it = generations.upper_bound(generation); it != generations.end(); ++it) {
        if (it->second.path.empty()) continue;
        const std::string name = nameInFolder(folder, it->second.path);
        if (!name.empty()) return Place{name, -1, 0};
        return Place{log, it->first, 0};
    }
    for (const std::string& name : {log + kBack, log}) {
        if (SafeFolder::openRegular(folder, name, nullptr).valid()) return Place{name, -1, 0};
    }
    return std::nullopt;
}

// A history generation, backwards or forwards, cut at line boundaries as LogReader cuts.
std::optional<Window> readGeneration(const std::string& folder, LogIndexView& index,
                                     const Request& r) {
    const Generations generations = generationsOf(index, r.file);
    const auto held = generations.find(r.generation);
    if (held == generations.end() || held->second.path.empty()) return std::nullopt;
    const std::uint64_t size = held->second.size;
    Window w;
    w.generation = r.generation;
    LogReader::Chunk& c = w.chunk;
    c.file = r.file;
    if (r.after) {
        c.start = std::min(*r.after, size);
        c.end = std::min<std::uint64_t>(c.start + r.limit, size);
    } else {
        c.end = std::min(r.before.value_or(size), size);
        c.start = c.end > r.limit ? c.end - r.limit : 0;
    }
    if (!LogIndexView::readPath(folder, held->second.path, c.start,
                                static_cast<std::size_t>(c.end - c.start), c.text)) {
        return std::nullopt;
    }
    c.end = c.start + c.text.size();
    if (r.after && c.end < size) {
        // End at a line end unless the whole piece is one line.
        const std::size_t nl = c.text.rfind('\n');
        if (nl != std::string::npos) c.text.resize(nl + 1);
        c.end = c.start + c.text.size();
    } else if (!r.after && c.start > 0) {
        // Begin at a line start unless the whole piece is one line.
        const std::size_t nl = c.text.find('\n');
        if (nl != std::string::npos && nl + 1 < c.text.size()) {
            c.text.erase(0, nl + 1);
            c.start += nl + 1;
        }
    }
    w.earlier = c.start > 0 ? std::optional<Place>(Place{r.file, r.generation, c.start})
                            : olderThan(generations, r.file, r.generation);
    w.later = c.end < size ? std::optional<Place>(Place{r.file, r.generation, c.end})
                           : newerThan(folder, generations, r.file, r.generation);
    return w;
}

// A file of the folder by its name; before a ".back" come the log's history generations.
std::optional<Window> readFile(const std::string& folder, LogIndexView& index, const Request& r) {
    std::optional<LogReader::Chunk> chunk =
        r.after ? LogReader::readAfter(folder, r.file, *r.after, r.limit)
                : LogReader::read(folder, r.file, r.before, r.limit);
    if (!chunk) return std::nullopt;
    Window w;
    w.chunk = std::move(*chunk);
    const LogReader::Chunk& c = w.chunk;
    if (!c.earlierFile.empty()) {
        w.earlier = Place{c.earlierFile, -1, c.earlierBefore};
    } else if (c.start == 0 && isBackName(c.file) && index.available()) {
        const std::string log = c.file.substr(0, c.file.size() - kBack.size());
        const Generations generations = generationsOf(index, log);
        const std::string path = folder + "/" + c.file;
        for (const auto& [generation, held] : generations) {
            if (held.path == path) w.earlier = olderThan(generations, log, generation);
        }
    }
    if (!c.laterFile.empty()) w.later = Place{c.laterFile, -1, c.laterAfter};
    return w;
}

// A window of the file or generation asked for. A generation that is a file of the
// folder now (the ".back" or the current file) is read by its name, so that its size is
// the file's own and what comes before and after it is the file's.
std::optional<Window> readWindow(const std::string& folder, LogIndexView& index, Request r) {
    if (r.generation >= 0) {
        const Generations generations = generationsOf(index, r.file);
        const auto held = generations.find(r.generation);
        const std::string name =
            held == generations.end() ? std::string() : nameInFolder(folder, held->second.path);
        if (!name.empty()) {
            r.file = name;
            r.generation = -1;
        }
    }
    return r.generation >= 0 ? readGeneration(folder, index, r) : readFile(folder, index, r);
}

// With `at`: a text that does not reach the end of its file ends at a line end, when
// that keeps the line holding `at`, so that what comes later starts at a line start.
void endAtLine(std::uint64_t at, Window& w) {
    LogReader::Chunk& c = w.chunk;
    if (!w.later || w.later->file != c.file || w.later->generation != w.generation ||
        w.later->offset != c.end) {
        return;
    }
    const std::size_t nl = c.text.rfind('\n');
    if (nl == std::string::npos || c.start + nl + 1 <= at) return;
    c.text.resize(nl + 1);
    c.end = c.start + c.text.size();
    w.later->offset = c.end;
}

QJsonObject placeJson(const Place& place, const char* offsetName) {
    QJsonObject object;
    object.insert(QStringLiteral("file"), text(place.file));
    if (place.generation >= 0)
        object.insert(QStringLiteral("generation"), static_cast<qint64>(place.generation));
    object.insert(QLatin1String(offsetName), static_cast<qint64>(place.offset));
    return object;
}

QJsonArray levelsJson(const std::vector<DeviceLogSeverity::Level>& levels) {
    QJsonArray array;
    for (const DeviceLogSeverity::Level level : levels) array.append(static_cast<int>(level));
    return array;
}

// Each line's level, and with the index which lines are the collector's header lines.
void insertLevels(LogIndexView& index, const Window& w, QJsonObject& object) {
    const LogReader::Chunk& c = w.chunk;
    if (index.available() && w.generation < 0) {
        std::vector<std::size_t> headers;
        object.insert(QStringLiteral("levels"),
                      levelsJson(index.levels(c.file, c.start, c.text, headers)));
        QJsonArray headerLines;
        for (const std::size_t line : headers) headerLines.append(static_cast<qint64>(line));
        object.insert(QStringLiteral("headers"), headerLines);
        return;
    }
    std::vector<DeviceLogSeverity::Level> levels;
    std::size_t at = 0;
    const std::string_view all(c.text);
    while (at < all.size()) {
        const std::size_t nl = all.find('\n', at);
        const std::size_t stop = nl == std::string_view::npos ? all.size() : nl;
        levels.push_back(DeviceLogSeverity::ofLine(all.substr(at, stop - at)));
        at = stop + 1;
    }
    object.insert(QStringLiteral("levels"), levelsJson(levels));
}

// Fills `r` from the query; an error answer when a parameter is malformed.
std::optional<WebReply> parse(const QUrlQuery& query, Request& r) {
    const auto has = [&](const char* name) { return query.hasQueryItem(QLatin1String(name)); };
    const auto offset = [&](const char* name, std::optional<std::uint64_t>& out) {
        std::uint64_t value = 0;
        if (!has(name)) return true;
        if (!number(param(query, name), value)) return false;
        out = value;
        return true;
    };
    r.file = param(query, "file");
    std::optional<std::uint64_t> value;
    if (!offset("limit", value) || (value && *value == 0))
        return WebReply::error(400, QStringLiteral("limit: expected a positive byte count"));
    if (value)
        r.limit = static_cast<std::size_t>(std::min<std::uint64_t>(*value, LogReader::kMaxChunk));
    if (!offset("before", r.before))
        return WebReply::error(400, QStringLiteral("before: expected a byte offset"));
    if (!offset("at", r.at))
        return WebReply::error(400, QStringLiteral("at: expected a byte offset"));
    if (!offset("after", r.after))
        return WebReply::error(400, QStringLiteral("after: expected a byte offset"));
    if (r.after && (r.before || r.at))
        return WebReply::error(400, QStringLiteral("after: not together with before or at"));
    // Half the piece before the line, half after it.
    if (r.at) r.before = *r.at + r.limit / 2;
    value.reset();
    if (!offset("generation", value))
        return WebReply::error(400, QStringLiteral("generation: expected a number"));
    if (value)
        r.generation = static_cast<std::int64_t>(
            std::min<std::uint64_t>(*value, std::numeric_limits<std::int64_t>::max()));
    return std::nullopt;
}

}  // namespace

WebReply log(LogCatalog& catalog, const QUrlQuery& query) {
    Request r;
    if (std::optional<WebReply> refused = parse(query, r)) return std::move(*refused);
    if (!SafeFolder::isPlainName(r.file)) return notFound();
    LogIndexView& index = catalog.index();
    std::optional<Window> w = readWindow(catalog.folder(), index, r);
    if (!w) return notFound();
    if (r.at) endAtLine(*r.at, *w);
    const LogReader::Chunk& c = w->chunk;
    QJsonObject object;
    object.insert(QStringLiteral("file"), text(c.file));
    object.insert(QStringLiteral("text"), text(c.text));
    object.insert(QStringLiteral("start"), static_cast<qint64>(c.start));
    object.insert(QStringLiteral("end"), static_cast<qint64>(c.end));
    object.insert(QStringLiteral("inode"), QString::number(c.inode));
    if (r.at) object.insert(QStringLiteral("at"), static_cast<qint64>(*r.at));
    if (w->generation >= 0)
        object.insert(QStringLiteral("generation"), static_cast<qint64>(w->generation));
    if (w->earlier) object.insert(QStringLiteral("earlier"), placeJson(*w->earlier, "before"));
    if (w->later) object.insert(QStringLiteral("later"), placeJson(*w->later, "after"));
    insertLevels(index, *w, object);
    return WebReply::json(object);
}

namespace {

// zstd level of the parts a history download compresses itself (fast; the history's
// own generations are copied at the level they were kept at).
constexpr int kDownloadLevel = 3;

// Appends what `in` holds to `out`, as it is.
bool copyAll(int in, int out) {
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t n = ::read(in, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return n == 0;
        for (ssize_t done = 0; done < n;) {
            const ssize_t w = ::write(out, buffer + done, static_cast<std::size_t>(n - done));
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) return false;
            done += w;
        }
    }
}

// Appends the text of `in` to `out` as zstd frames.
bool compressInto(int in, int out) {
    std::uint64_t raw = 0, packed = 0;
    std::string error;
    return DeviceLogHistoryFrames::compress(in, out, 128 * 1024, kDownloadLevel, raw, packed,
                                            error);
}

}  // namespace

WebReply historyDownload(LogCatalog& catalog, const QUrlQuery& query) {
    const std::string file = param(query, "file");
    if (!SafeFolder::isPlainName(file) || isBackName(file)) return notFound();
    const std::string& folder = catalog.folder();
    struct stat st {};
    const UniqueFd current = SafeFolder::openRegular(folder, file, &st);
    const UniqueFd back = SafeFolder::openRegular(folder, file + kBack, &st);
    const Generations generations =
        catalog.index().available() ? generationsOf(catalog.index(), file) : Generations();
    if (!current.valid() && !back.valid() && generations.empty()) return notFound();
    // Built in /tmp, as the device archive is, then streamed.
    auto temp = std::make_shared<QTemporaryFile>(QStringLiteral("/tmp/nimb-web-history-XXXXXX"));
    if (!temp->open())
        return WebReply::error(500, QStringLiteral("cannot create a temporary file"));
    const int out = temp->handle();
    bool ok = true;
    // Oldest first: the history (a compressed generation's frames copied as they are),
    // then the ".back", then the file.
    for (const auto& [number, generation] : generations) {
        bool compressed = false;
        const UniqueFd in(LogIndexView::openGeneration(folder, generation.path, compressed));
        if (!in.valid()) continue;  // the current file, its ".back", or removed meanwhile
        ok = ok && (compressed ? copyAll(in.get(), out) : compressInto(in.get(), out));
    }
    for (const UniqueFd* plain : {&back, &current}) {
        if (plain->valid()) ok = ok && compressInto(plain->get(), out);
    }
    if (!ok) return WebReply::error(500, QStringLiteral("cannot write the download"));
    return WebApiParts::attachment(temp, "application/zstd", file + ".zst");
}

}  // namespace WebApi
