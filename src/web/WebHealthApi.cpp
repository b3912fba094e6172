// SPDX-License-Identifier: MIT
// The Health page's answers beyond the counters of the moment: the collector's counters
// over time (from the index), the devices that went silent, and what the history holds
// against its budget.
#include <algorithm>
#include <map>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <QJsonArray>
#include <QStringList>

#include "DeviceLogHistory.h"
#include "LogCatalog.h"
#include "LogIndexView.h"
#include "SafeFolder.h"
#include "WebApi.h"
#include "WebApiParts.h"

namespace WebApi {

namespace {

using WebApiParts::displayName;
using WebApiParts::number;
using WebApiParts::text;

// Devices quiet for longer than this are no longer counted as having gone silent.
constexpr std::int64_t kSilentWindow = 7 * 86400;

// A number of seconds from the query, `fallback` when absent; false when malformed.
bool secondsParam(const QUrlQuery& query, const char* name, std::int64_t fallback,
                  std::int64_t& out) {
    if (!query.hasQueryItem(QString::fromLatin1(name))) {
        out = fallback;
        return true;
    }
    std::uint64_t value = 0;
    if (!number(param(query, name), value) || value > (1ULL << 40)) return false;
    out = static_cast<std::int64_t>(value);
    return true;
}

// The generations of one log's history folder: their count and bytes on disk (a
// compression under way not counted).
struct Held {
    std::uint64_t bytes = 0;
    std::uint64_t generations = 0;
};

Held heldIn(const std::string& folder) {
    Held held;
    std::map<std::string, bool> names;
    for (const SafeFolder::Entry& entry : SafeFolder::listRegular(folder)) {
        if (entry.name.find(".tmp") != std::string::npos) continue;
        held.bytes += entry.size;
        std::string name = entry.name;
        const std::string zst = DeviceLogHistory::kCompressedSuffix;
        if (name.size() > zst.size() &&
            name.compare(name.size() - zst.size(), zst.size(), zst) == 0)
            name.resize(name.size() - zst.size());
        names[name] = true;
    }
    held.generations = names.size();
    return held;
}

// Every log's history folder ("history/<log file>/"), real folders only, by log file.
std::map<std::string, Held> historyFolders(const std::string& logsDir) {
    std::map<std::string, Held> logs;
    const std::string root = logsDir + "/" + DeviceLogHistory::kFolderName;
    DIR* dir = ::opendir(root.c_str());
    if (dir == nullptr) return logs;
    while (const dirent* item = ::readdir(dir)) {
        const std::string name = item->d_name;
        struct stat st {};
        if (!SafeFolder::isPlainName(name) ||
            ::fstatat(::dirfd(dir), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
            !S_ISDIR(st.st_mode)) {
            continue;
        }
        const Held held = heldIn(root + "/" + name);
        if (held.generations != 0) logs[name] = held;
    }
    ::closedir(dir);
    return logs;
}

}  // namespace

WebReply healthSeries(LogCatalog& catalog, const QUrlQuery& query, std::int64_t now) {
    std::int64_t until = 0, since = 0, step = 0;
    if (!secondsParam(query, "until", now, until))
        return WebReply::error(400, QStringLiteral("until: expected seconds since 1970"));
    if (!secondsParam(query, "since", until - 3600, since))
        return WebReply::error(400, QStringLiteral("since: expected seconds since 1970"));
    if (!secondsParam(query, "step", 60, step))
        return WebReply::error(400, QStringLiteral("step: expected seconds"));
    if (since >= until) return WebReply::error(400, QStringLiteral("since must be before until"));
    std::vector<std::string> names;
    const QString listed = query.queryItemValue(QStringLiteral("names"), QUrl::FullyDecoded);
    for (const QString& name : listed.split(QLatin1Char(','), Qt::SkipEmptyParts))
        names.push_back(name.toStdString());
    if (names.size() > 64) return WebReply::error(400, QStringLiteral("names: at most 64"));

    QJsonObject object;
    const bool indexed = catalog.index().available();
    object.insert(QStringLiteral("indexed"), indexed);
    const DeviceLogIndex::Series series =
        catalog.index().series(since, until, step, kMaxSeriesPoints, names);
    object.insert(QStringLiteral("since"), static_cast<qint64>(series.since));
    object.insert(QStringLiteral("until"), static_cast<qint64>(series.until));
    object.insert(QStringLiteral("step"), static_cast<qint64>(series.step));
    object.insert(QStringLiteral("points"), static_cast<qint64>(series.present.size()));
    QJsonObject values;
    QJsonArray gauges;
    for (const DeviceLogIndex::Series::Column& column : series.columns) {
        QJsonArray list;
        for (std::size_t i = 0; i < column.values.size(); ++i) {
            if (series.present[i]) {
                list.append(static_cast<qint64>(column.values[i]));
            } else {
                list.append(QJsonValue::Null);
            }
        }
        values.insert(text(column.name), list);
        if (column.gauge) gauges.append(text(column.name));
    }
    object.insert(QStringLiteral("series"), values);
    object.insert(QStringLiteral("gauges"), gauges);
    return WebReply::json(object);
}

WebReply silentDevices(LogCatalog& catalog, std::int64_t now, std::int64_t silentAfter) {
    std::vector<LogCatalog::Device> devices = catalog.devices(now);
    std::sort(devices.begin(), devices.end(),
              [](const auto& a, const auto& b) { return a.lastWrite > b.lastWrite; });
    QJsonArray silent;
    qint64 longer = 0;
    for (const LogCatalog::Device& device : devices) {
        const std::int64_t quiet = now - device.lastWrite;
        if (quiet > kSilentWindow) {
            ++longer;
        } else if (quiet >= silentAfter) {
            QJsonObject item;
            item.insert(QStringLiteral("key"), text(device.key));
            item.insert(QStringLiteral("name"), text(displayName(device)));
            item.insert(QStringLiteral("lastWrite"), static_cast<qint64>(device.lastWrite));
            silent.append(item);
        }
    }
    QJsonObject object;
    object.insert(QStringLiteral("silentAfter"), static_cast<qint64>(silentAfter));
    object.insert(QStringLiteral("window"), static_cast<qint64>(kSilentWindow));
    object.insert(QStringLiteral("devices"), silent);
    object.insert(QStringLiteral("quietLonger"), longer);
    object.insert(QStringLiteral("total"), static_cast<qint64>(devices.size()));
    return WebReply::json(object);
}

WebReply historyUse(LogCatalog& catalog, std::int64_t now) {
    const DeviceLogHistory::Options options =
        DeviceLogHistory::optionsFromSettings(catalog.folder());
    // Each log's history under the device its files are grouped under; a log whose
    // files are all gone under the device its name tells.
    std::map<std::string, std::pair<std::string, std::string>> deviceOf;  // key, name
    for (const LogCatalog::Device& device : catalog.devices(now)) {
        for (const LogCatalog::LogInfo& log : device.logs)
            deviceOf[log.file] = {device.key, displayName(device)};
    }
    struct Use {
        std::string name;
        Held held;
        qint64 logs = 0;
    };
    std::map<std::string, Use> byDevice;
    Held total;
    for (const auto& [file, held] : historyFolders(catalog.folder())) {
        auto owner = deviceOf.find(file);
        std::pair<std::string, std::string> device;
        if (owner != deviceOf.end()) {
            device = owner->second;
        } else {
            LogCatalog::NameParts parts;
            const std::string key = LogCatalog::splitFileName(file, parts) ? parts.key : file;
            device = {key, key};
        }
        Use& use = byDevice[device.first];
        use.name = device.second;
        use.held.bytes += held.bytes;
        use.held.generations += held.generations;
        ++use.logs;
        total.bytes += held.bytes;
        total.generations += held.generations;
    }
    std::vector<std::pair<std::string, Use>> sorted(byDevice.begin(), byDevice.end());
    std::stable_sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) {
        return a.second.held.bytes > b.second.held.bytes;
    });
    QJsonArray devices;
    for (const auto& [key, use] : sorted) {
        QJsonObject item;
        item.insert(QStringLiteral("key"), text(key));
        item.insert(QStringLiteral("name"), text(use.name));
        item.insert(QStringLiteral("bytes"), static_cast<qint64>(use.held.bytes));
        item.insert(QStringLiteral("generations"), static_cast<qint64>(use.held.generations));
        item.insert(QStringLiteral("logs"), use.logs);
        devices.append(item);
    }
    QJsonObject object;
    object.insert(QStringLiteral("budget"),
                  static_cast<qint64>(DeviceLogHistory::budgetOf(options)));
    object.insert(QStringLiteral("budgetSet"), options.maxBytes > 0);
    object.insert(QStringLiteral("maxAgeDays"), options.maxAgeDays);
    object.insert(QStringLiteral("minFreePercent"), options.minFreePercent);
    object.insert(QStringLiteral("bytes"), static_cast<qint64>(total.bytes));
    object.insert(QStringLiteral("generations"), static_cast<qint64>(total.generations));
    object.insert(QStringLiteral("devices"), devices);
    return WebReply::json(object);
}

}  // namespace WebApi
