// SPDX-License-Identifier: MIT
// The index's series of the collector's counters: the table "series" holds one row per
// minute and one column per counter or gauge (added when a name first comes; older rows
// hold NULL there), "series_names" says which columns are gauges. Samples are queued by
// any thread and written by the commit thread in its transaction; readers sum them into
// buckets.
#include <algorithm>
#include <cctype>

#include "DeviceLogIndex.h"
#include "PMutex.h"
#include "SqliteStatement.h"

using Statement = SqliteStatement;

namespace {

bool isSeriesName(const std::string& name) {
    return !name.empty() && name.size() <= DeviceLogIndex::kMaxSeriesName &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '_' ||
                      c == '-';
           });
}

// A column name as an SQL identifier (the names hold no quotes: isSeriesName).
std::string quoted(const std::string& name) { return "\"" + name + "\""; }

long long floorDiv(long long a, long long b) { return a / b - ((a % b != 0 && (a < 0)) ? 1 : 0); }

long long ceilDiv(long long a, long long b) { return -floorDiv(-a, b); }

}  // namespace

void DeviceLogIndex::recordSample(SeriesSample sample) {
    PMutexLocker lock(mutex_);
    samples_.push_back(std::move(sample));
    mutex_.broadcast();
}

bool DeviceLogIndex::addSeriesColumns(const SeriesSample& sample) {
    if (!seriesColumnsRead_) {
        Statement columns(db_,
                          "SELECT c.name, COALESCE(n.gauge, 0) FROM pragma_table_info('series') c "
                          "LEFT JOIN series_names n ON n.name = c.name WHERE c.name != 'minute'");
        while (columns.step() == SQLITE_ROW)
            seriesColumns_[columns.text(0)] = columns.integer(1) != 0;
        seriesColumnsRead_ = true;
    }
    std::vector<std::pair<std::string, bool>> names;  // name, gauge
    for (const auto& [name, value] : sample.increases) names.emplace_back(name, false);
    for (const auto& [name, value] : sample.gauges) names.emplace_back(name, true);
    for (const auto& [name, gauge] : names) {
        if (!isSeriesName(name) || seriesColumns_.count(name) != 0) continue;
        const std::string alter = "ALTER TABLE series ADD COLUMN " + quoted(name) + " INTEGER";
        Statement kind(db_, "INSERT OR REPLACE INTO series_names(name, gauge) VALUES(?1, ?2)");
        if (!exec(alter.c_str()) ||
            kind.bind(1, name).bind(2, gauge ? 1 : 0).step() != SQLITE_DONE) {
            return false;
        }
        seriesColumns_[name] = gauge;
    }
    return true;
}

bool DeviceLogIndex::writeSamples(const std::vector<SeriesSample>& samples) {
    bool ok = true;
    long long newest = 0;
    for (const SeriesSample& sample : samples) {
        if (!addSeriesColumns(sample)) {
            ok = false;
            // The columns are read again next time: an ALTER rolled back with the rest.
            seriesColumnsRead_ = false;
            seriesColumns_.clear();
            continue;
        }
        std::string names = "minute";
        std::string values = "?1";
        std::string updates;
        std::vector<std::int64_t> bound;
        const auto put = [&](const std::string& name, std::int64_t value, bool gauge) {
            if (!isSeriesName(name)) return;
            bound.push_back(value);
            const std::string column = quoted(name);
            names += ", " + column;
            values += ", ?" + std::to_string(bound.size() + 1);
            updates +=
                (updates.empty() ? "" : ", ") + column + " = " +
                (gauge ? "excluded." + column : "COALESCE(" + column + ", 0) + excluded." + column);
        };
        for (const auto& [name, value] : sample.increases) put(name, value, false);
        for (const auto& [name, value] : sample.gauges) put(name, value, true);
        const std::string sql = "INSERT INTO series(" + names + ") VALUES(" + values +
                                ") ON CONFLICT(minute) DO " +
                                (updates.empty() ? "NOTHING" : "UPDATE SET " + updates);
        Statement upsert(db_, sql.c_str());
        upsert.bind(1, sample.minute);
        for (std::size_t i = 0; i < bound.size(); ++i)
            upsert.bind(static_cast<int>(i + 2), static_cast<long long>(bound[i]));
        ok = upsert.step() == SQLITE_DONE && ok;
        newest = std::max(newest, sample.minute);
    }
    Statement prune(db_, "DELETE FROM series WHERE minute < ?1");
    ok = prune.bind(1, newest - kSeriesMinutes).step() == SQLITE_DONE && ok;
    return ok;
}

long long DeviceLogIndex::seriesStep(long long& sinceMinute, long long& untilMinute,
                                     long long stepMinutes, std::size_t maxPoints) {
    const long long most = static_cast<long long>(std::max<std::size_t>(maxPoints, 1));
    const auto buckets = [&](long long step) {
        return ceilDiv(untilMinute, step) - floorDiv(sinceMinute, step);
    };
    long long step = std::max(1LL, stepMinutes);
    if (buckets(step) > most) {
        static const long long kSteps[] = {2, 5, 10, 15, 30, 60, 120, 180, 360, 720, 1440};
        const long long* nice = std::find_if(
            std::begin(kSteps), std::end(kSteps),
            [&](long long candidate) { return candidate > step && buckets(candidate) <= most; });
        if (nice != std::end(kSteps)) {
            step = *nice;
        } else {
            step = std::max(step + 1, ceilDiv(untilMinute - sinceMinute, most));
            while (buckets(step) > most) ++step;
        }
    }
    sinceMinute = floorDiv(sinceMinute, step) * step;
    untilMinute = ceilDiv(untilMinute, step) * step;
    return step;
}

DeviceLogIndex::Series DeviceLogIndex::series(long long since, long long until, long long step,
                                              std::size_t maxPoints,
                                              const std::vector<std::string>& names) const {
    long long sinceMinute = floorDiv(since, 60);
    long long untilMinute = std::max(ceilDiv(until, 60), sinceMinute + 1);
    const long long stepMinutes =
        seriesStep(sinceMinute, untilMinute, ceilDiv(step, 60), maxPoints);
    Series result;
    result.since = sinceMinute * 60;
    result.until = untilMinute * 60;
    result.step = stepMinutes * 60;
    const auto count = static_cast<std::size_t>((untilMinute - sinceMinute) / stepMinutes);
    result.present.assign(count, false);

    PMutexLocker lock(dbMutex_);
    // The columns there are (an index written before the series existed has no table).
    Statement columns(db_,
                      "SELECT c.name, COALESCE(n.gauge, 0) FROM pragma_table_info('series') c "
                      "LEFT JOIN series_names n ON n.name = c.name WHERE c.name != 'minute' "
                      "ORDER BY c.name");
    while (columns.step() == SQLITE_ROW) {
        Series::Column column;
        column.name = columns.text(0);
        column.gauge = columns.integer(1) != 0;
        if (!isSeriesName(column.name)) continue;
        if (!names.empty() && std::find(names.begin(), names.end(), column.name) == names.end())
            continue;
        column.values.assign(count, 0);
        result.columns.push_back(std::move(column));
    }
    std::string sql = "SELECT (minute - ?1) / ?2";
    for (const Series::Column& column : result.columns)
        sql += (column.gauge ? ", MAX(" : ", SUM(") + quoted(column.name) + ")";
    sql += " FROM series WHERE minute >= ?1 AND minute < ?3 GROUP BY 1";
    Statement select(db_, sql.c_str());
    select.bind(1, sinceMinute).bind(2, stepMinutes).bind(3, untilMinute);
    while (select.step() == SQLITE_ROW) {
        const long long bucket = select.integer(0);
        if (bucket < 0 || bucket >= static_cast<long long>(count)) continue;
        result.present[static_cast<std::size_t>(bucket)] = true;
        for (std::size_t c = 0; c < result.columns.size(); ++c)
            result.columns[c].values[static_cast<std::size_t>(bucket)] =
                select.integer(static_cast<int>(c + 1));
    }
    return result;
}
