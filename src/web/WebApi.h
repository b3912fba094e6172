// SPDX-License-Identifier: MIT
// WebApi: the answers of the JSON API and the downloads, as plain functions of the
// folders and the request's query. Each validates its parameters (names must be plain
// names of regular files in the folder; anything else is 404) and builds a WebReply.
// Blocking file work; called on worker threads (tail and static files live in
// WebServer).
#pragma once

#include <cstdint>
#include <string>

#include <QUrlQuery>

#include "StatsClient.h"
#include "WebReply.h"

class LogCatalog;

namespace WebApi {

// /api/devices?sort=KEY (title, size or lastModified, each :asc or :desc).
WebReply devices(LogCatalog& catalog, const QUrlQuery& query, std::int64_t now);
// /api/log?file=NAME[&before=OFFSET | &at=OFFSET | &after=OFFSET][&generation=N]
// [&limit=BYTES]: with `at`, the text around that offset; with `after`, the text from
// there on; with `generation` (from the index), a history generation of the log NAME.
// Each answer has the level of each of its lines, and where the text before it and
// after it continues (across generations; nothing after the current file's end).
// In WebLogApi.cpp.
WebReply log(LogCatalog& catalog, const QUrlQuery& query);
// /api/search?q=TEXT[&regex=1][&file=NAME | &device=KEY][&from=TIME][&to=TIME][&max=N]
//   [&level=LEVEL]: with the index, only the pieces it names are read.
WebReply search(LogCatalog& catalog, const QUrlQuery& query, std::int64_t now);
// /api/timeline?[device=KEY...][file=NAME...][q=TEXT[&regex=1]][&level=LEVEL][&from=TIME]
//   [&to=TIME][&before=CURSOR | &after=CURSOR | &live=TOKEN][&limit=N]: the lines of the
// chosen logs (every indexed log when none is chosen) merged in time order, from the
// index; a page before or after a cursor, or the lines that arrived since a live token.
// `nowMs` is the server's clock. In WebTimelineApi.cpp.
WebReply timeline(LogCatalog& catalog, const QUrlQuery& query, std::int64_t nowMs);
// /api/time: the server's clock and time zone. In WebTimelineApi.cpp.
WebReply serverTime(std::int64_t nowMs);
// /api/download?file=NAME: its ".back" then the file itself, as one text file.
WebReply download(const std::string& folder, const QUrlQuery& query);
// /api/download?file=NAME&history=1: the whole log as one zstd file (`zstdcat` gives its
// text): its history generations oldest first, its ".back", the file (streamed from a
// temporary file in /tmp). In WebLogApi.cpp.
WebReply historyDownload(LogCatalog& catalog, const QUrlQuery& query);
// /api/archive?device=KEY: the device's files as .tar.gz (streamed from a temporary
// file in /tmp).
WebReply archive(LogCatalog& catalog, const QUrlQuery& query, std::int64_t now);
// /api/crashes: crash dumps and reports in the dump folder, newest first.
WebReply crashes(const std::string& dumpFolder);
// /api/crash?id=ID: the readable report of one crash.
WebReply crash(const std::string& dumpFolder, const QUrlQuery& query);
// /api/stats: the collector's counters and the console's own.
WebReply stats(const StatsClient::Stats& stats, std::size_t tailClients);
// /metrics: the same in the Prometheus text format.
WebReply metrics(const StatsClient::Stats& stats, std::size_t tailClients);

// The most points /api/health/series answers with.
constexpr std::size_t kMaxSeriesPoints = 500;
// /api/health/series[?since=S][&until=U][&step=SECONDS][&names=A,B]: the collector's
// counters over time (seconds since 1970; the last hour by default), in buckets of whole
// minutes, step raised until at most kMaxSeriesPoints: per name one value per bucket (a
// counter's increase over it, a gauge's greatest value; null where no minute has a
// row). In WebHealthApi.cpp.
WebReply healthSeries(LogCatalog& catalog, const QUrlQuery& query, std::int64_t now);
// /api/health/silent: the devices heard from in the last week but not for `silentAfter`
// seconds, most recently heard first. In WebHealthApi.cpp.
WebReply silentDevices(LogCatalog& catalog, std::int64_t now, std::int64_t silentAfter);
// /api/health/history: the history's bytes in all and per device, against its budget
// (from the same settings and file system as the collector's). In WebHealthApi.cpp.
WebReply historyUse(LogCatalog& catalog, std::int64_t now);

// A query value, fully decoded, as UTF-8 bytes (NULs kept, so that checks see them).
std::string param(const QUrlQuery& query, const char* name);

}  // namespace WebApi
