// SPDX-License-Identifier: MIT
#include "AlertEngine.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <deque>
#include <filesystem>
#include <set>

#include <sys/stat.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrlQuery>

#include <re2/re2.h>

#include "DeviceLogNames.h"
#include "LogIndexView.h"
#include "RotatingLogFile.h"
#include "Utf8Text.h"

namespace {

// A piece whose first text came in less than this long ago may still grow.
constexpr long long kGrowingMs = (DeviceLogIndex::kMaxPieceSeconds + 30) * 1000LL;
// Pieces asked of the index at a time, and bytes read in one round at most.
constexpr std::size_t kPiecesPerQuery = 1000;
constexpr std::uint64_t kBytesPerRound = 16 * 1024 * 1024;
// Silence is looked for this often.
constexpr long long kSilenceCheckMs = 5000;
// A device heard this long before alerts first started counts as active for silence.
constexpr long long kActiveAtStartMs = 3600 * 1000LL;

long long nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// nimb-web reports on its standard error; device text in it is escaped.
void report(const std::string& text) {
    std::fprintf(stderr, "nimb-web: alerts: %s\n", Utf8Text::escapeControls(text).c_str());
}

std::string lower(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(), [](unsigned char c) {
        return static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    });
    return out;
}

// One line of device text as a notification carries it: bounded, without its "\r", no
// control characters other than tabs.
std::string noticeLine(std::string_view line) {
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    std::string out(line.substr(0, AlertEngine::kMaxLineBytes));
    for (char& c : out) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && c != '\t') || byte == 0x7f) c = ' ';
    }
    return out;
}

std::string clockText(long long ms) {
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &utc);
    return text;
}

std::string plural(std::int64_t n, const char* word) {
    return std::to_string(n) + " " + word + (n == 1 ? "" : "s");
}

std::string deviceName(const DeviceLogIndex::Piece& piece) {
    if (!piece.source.displayName.empty()) return piece.source.displayName;
    if (!piece.source.deviceId.empty()) return piece.source.deviceId;
    return DeviceLogNames::deviceOfFile(piece.file);
}

// The log's own name: its file name without the device part ("system.log").
std::string logName(const std::string& file) {
    const std::string device = DeviceLogNames::deviceOfFile(file);
    if (device.size() + 1 < file.size() && file.compare(0, device.size(), device) == 0 &&
        file[device.size()] == '-')
        return file.substr(device.size() + 1);
    return file;
}

}  // namespace

// A rule made ready for matching.
struct AlertEngine::Compiled {
    AlertRule rule;
    std::unique_ptr<RE2> pattern;
    std::string needle;  // lower case

    bool wantsPiece(const DeviceLogIndex::Piece& piece) const {
        if (!rule.device.empty()) {
            const DeviceLogIndex::Identity& s = piece.source;
            if (s.deviceId != rule.device && s.displayName != rule.device && s.mac != rule.device &&
                piece.file.compare(0, rule.device.size(), rule.device) != 0)
                return false;
        }
        if (!rule.log.empty() && piece.file != rule.log) {
            const std::string suffix = "-" + rule.log;
            if (piece.file.size() <= suffix.size() ||
                piece.file.compare(piece.file.size() - suffix.size(), suffix.size(), suffix) != 0)
                return false;
        }
        return true;
    }
    bool matches(std::string_view line, DeviceLogSeverity::Level level) const {
        if (rule.level != DeviceLogSeverity::Level::Unknown &&
            (level == DeviceLogSeverity::Level::Unknown || level > rule.level))
            return false;
        if (pattern) return RE2::PartialMatch(line, *pattern);
        if (needle.empty()) return true;
        return lower(line).find(needle) != std::string::npos;
    }
};

// What a match rule carries between rounds (and restarts, as JSON).
struct AlertEngine::Runtime {
    long long quietUntilMs = 0;
    long long lastFiredMs = 0;
    // Matches within the rule's window, by receive time, and the last lines of them.
    std::deque<long long> window;
    std::vector<std::string> windowLines;
    AlertState::Place windowPlace;
    std::string windowSeverity;
    // Matches while quiet, for the digest.
    std::int64_t pending = 0;
    std::vector<std::string> pendingLines;
    AlertState::Place pendingPlace;
    long long pendingFirstMs = 0, pendingLastMs = 0;
    std::string pendingSeverity;

    static QJsonObject place(const AlertState::Place& p) {
        return {{"file", QString::fromStdString(p.file)},
                {"generation", static_cast<qint64>(p.generation)},
                {"offset", static_cast<qint64>(p.offset)}};
    }
    static AlertState::Place place(const QJsonObject& json) {
        return {json.value("file").toString().toStdString(),
                static_cast<std::int64_t>(json.value("generation").toDouble()),
                static_cast<std::uint64_t>(json.value("offset").toDouble())};
    }
    static QJsonArray list(const std::vector<std::string>& lines) {
        QJsonArray array;
        for (const std::string& line : lines) array.append(QString::fromStdString(line));
        return array;
    }
    static std::vector<std::string> list(const QJsonArray& array) {
        std::vector<std::string> lines;
        for (const QJsonValue line : array) lines.push_back(line.toString().toStdString());
        return lines;
    }
    std::string toJson() const {
        QJsonArray times;
        for (const long long t : window) times.append(static_cast<qint64>(t));
        const QJsonObject json{{"quietUntil", static_cast<qint64>(quietUntilMs)},
                               {"lastFired", static_cast<qint64>(lastFiredMs)},
                               {"window", times},
                               {"windowLines", list(windowLines)},
                               {"windowPlace", place(windowPlace)},
                               {"windowSeverity", QString::fromStdString(windowSeverity)},
                               {"pending", static_cast<qint64>(pending)},
                               {"pendingLines", list(pendingLines)},
                               {"pendingPlace", place(pendingPlace)},
                               {"pendingFirst", static_cast<qint64>(pendingFirstMs)},
                               {"pendingLast", static_cast<qint64>(pendingLastMs)},
                               {"pendingSeverity", QString::fromStdString(pendingSeverity)}};
        return QJsonDocument(json).toJson(QJsonDocument::Compact).toStdString();
    }
    static std::unique_ptr<Runtime> fromJson(const std::string& text) {
        auto r = std::make_unique<Runtime>();
        const QJsonObject json = QJsonDocument::fromJson(QByteArray::fromStdString(text)).object();
        r->quietUntilMs = static_cast<long long>(json.value("quietUntil").toDouble());
        r->lastFiredMs = static_cast<long long>(json.value("lastFired").toDouble());
        for (const QJsonValue t : json.value("window").toArray())
            r->window.push_back(static_cast<long long>(t.toDouble()));
        r->windowLines = list(json.value("windowLines").toArray());
        r->windowPlace = place(json.value("windowPlace").toObject());
        r->windowSeverity = json.value("windowSeverity").toString().toStdString();
        r->pending = static_cast<std::int64_t>(json.value("pending").toDouble());
        r->pendingLines = list(json.value("pendingLines").toArray());
        r->pendingPlace = place(json.value("pendingPlace").toObject());
        r->pendingFirstMs = static_cast<long long>(json.value("pendingFirst").toDouble());
        r->pendingLastMs = static_cast<long long>(json.value("pendingLast").toDouble());
        r->pendingSeverity = json.value("pendingSeverity").toString().toStdString();
        return r;
    }
};

// One round of reading and what it changes.
struct AlertEngine::Round {
    long long now = 0;
    std::vector<std::shared_ptr<Compiled>> rules;
    AlertState::Batch batch;
    std::uint64_t bytes = 0;
    std::set<std::string> touched;  // rules whose runtime changed
};

AlertEngine::AlertEngine(Options options, Sender sender)
    : options_(std::move(options)), sender_(std::move(sender)) {}

AlertEngine::~AlertEngine() {
    {
        PMutexLocker lock(mutex_);
        stopping_ = true;
        mutex_.broadcast();
    }
    if (evaluator_.joinable()) evaluator_.join();
    if (deliverer_.joinable()) deliverer_.join();
}

bool AlertEngine::start(const AlertConfig& config, std::string& error) {
    state_ = AlertState::open(options_.statePath, error);
    if (!state_) {
        PMutexLocker lock(mutex_);
        status_.problem = error;
        return false;
    }
    index_ = std::make_unique<LogIndexView>(options_.logsDir);
    read_ = state_->load();
    for (const auto& [id, json] : read_.rules) runtimes_[id] = Runtime::fromJson(json);
    setConfig(config);
    {
        PMutexLocker lock(mutex_);
        status_.running = true;
    }
    evaluator_ = std::thread([this] { evaluateLoop(); });
    deliverer_ = std::thread([this] { deliverLoop(); });
    return true;
}

void AlertEngine::setConfig(const AlertConfig& config) {
    std::vector<std::shared_ptr<Compiled>> compiled;
    for (const AlertRule& rule : config.rules) {
        auto one = std::make_shared<Compiled>();
        one->rule = rule;
        if (rule.regex) {
            RE2::Options options;
            options.set_log_errors(false);
            one->pattern = std::make_unique<RE2>(rule.text, options);
            if (!one->pattern->ok()) continue;
        } else {
            one->needle = lower(rule.text);
        }
        compiled.push_back(std::move(one));
    }
    PMutexLocker lock(mutex_);
    config_ = config;
    compiled_ = std::move(compiled);
    deliverWanted_ = true;
    mutex_.broadcast();
}

AlertConfig AlertEngine::config() const {
    PMutexLocker lock(mutex_);
    return config_;
}

AlertEngine::Status AlertEngine::status() const {
    PMutexLocker lock(mutex_);
    return status_;
}

std::vector<AlertState::Fired> AlertEngine::fired(std::size_t limit) const {
    return state_ ? state_->recent(limit) : std::vector<AlertState::Fired>{};
}

std::vector<std::shared_ptr<AlertEngine::Compiled>> AlertEngine::compiledRules() const {
    PMutexLocker lock(mutex_);
    return compiled_;
}

std::string AlertEngine::linkTo(const AlertState::Place& place) const {
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("file"), QString::fromStdString(place.file));
    query.addQueryItem(QStringLiteral("generation"), QString::number(place.generation));
    query.addQueryItem(QStringLiteral("at"), QString::number(place.offset));
    return options_.consoleUrl + "#/log?" + query.toString(QUrl::FullyEncoded).toStdString();
}

void AlertEngine::evaluateLoop() {
    long long lastSilenceCheck = 0;
    while (true) {
        Round round;
        round.now = nowMs();
        round.rules = compiledRules();
        const bool read = readRound(round);
        endQuietPeriods(round);
        if (round.now - lastSilenceCheck >=
            std::min<long long>(kSilenceCheckMs, options_.minuteMs)) {
            watchSilence(round);
            lastSilenceCheck = round.now;
        }
        for (const std::string& id : round.touched) {
            const auto it = runtimes_.find(id);
            if (it != runtimes_.end()) round.batch.rules[id] = it->second->toJson();
        }
        std::string error;
        const bool fired = !round.batch.fired.empty();
        if (!round.batch.empty() && !state_->commit(round.batch, error)) {
            report(error);
            // What was read is read again next round: nothing is lost, and reading on
            // from the stored place repeats no notification.
            read_ = state_->load();
            runtimes_.clear();
            for (const auto& [id, json] : read_.rules) runtimes_[id] = Runtime::fromJson(json);
        }
        PMutexLocker lock(mutex_);
        status_.indexAvailable = read;
        if (read) status_.lastReadMs = round.now;
        status_.problem = read ? error : "the collector's index is not there (yet)";
        status_.rules.clear();
        for (const auto& [id, runtime] : runtimes_)
            status_.rules[id] = {runtime->quietUntilMs, runtime->pending, runtime->lastFiredMs};
        if (fired) {
            deliverWanted_ = true;
            mutex_.broadcast();
        }
        if (stopping_) return;
        // A round that stopped at its byte budget goes on at once.
        if (round.bytes < kBytesPerRound) {
            mutex_.waitUntil(std::chrono::steady_clock::now() +
                             std::chrono::milliseconds(options_.pollMs));
        }
        if (stopping_) return;
    }
}

bool AlertEngine::readRound(Round& round) {
    if (!index_->available()) return false;
    if (!read_.initialized) initialize(round);
    std::int64_t from = read_.scanFrom;
    std::int64_t stillOpen = 0;  // the first piece that may still grow or was not read whole
    std::int64_t last = from - 1;
    std::set<std::string> blocked;
    while (round.bytes < kBytesPerRound) {
        DeviceLogIndex::Query query;
        query.order = DeviceLogIndex::Order::Id;
        query.fromId = std::max<std::int64_t>(from, 1);
        query.limit = kPiecesPerQuery;
        const std::vector<DeviceLogIndex::Piece> pieces = index_->query(query);
        for (const DeviceLogIndex::Piece& piece : pieces) {
            const bool growing = piece.firstReceivedMs > round.now - kGrowingMs;
            // A log whose files moved on since the index last said where they are waits
            // for the index, with every piece of it after that one.
            bool postponed = blocked.count(piece.file) != 0;
            if (!postponed && round.bytes < kBytesPerRound && !readPiece(round, piece, growing)) {
                blocked.insert(piece.file);
                postponed = true;
            }
            const AlertState::Cursor& cursor = read_.cursors[piece.file];
            const bool unread = postponed || (cursor.generation <= piece.generation &&
                                              cursor.offset < piece.offset + piece.length);
            if ((growing || unread) && stillOpen == 0) stillOpen = piece.id;
            last = piece.id;
        }
        if (pieces.size() < kPiecesPerQuery) break;
        from = last + 1;
    }
    const std::int64_t scanFrom = stillOpen != 0 ? stillOpen : last + 1;
    if (scanFrom != read_.scanFrom) {
        read_.scanFrom = scanFrom;
        round.batch.scanFrom = scanFrom;
    }
    return true;
}

void AlertEngine::initialize(Round& round) {
    // Alerts start from now: every log known so far is read on from its current end.
    DeviceLogIndex::Query query;
    query.order = DeviceLogIndex::Order::Id;
    query.limit = kPiecesPerQuery;
    std::int64_t next = 1;
    std::map<std::string, DeviceLogIndex::Piece> newest;
    for (std::int64_t from = 1;; from = next) {
        query.fromId = from;
        const std::vector<DeviceLogIndex::Piece> pieces = index_->query(query);
        for (const DeviceLogIndex::Piece& piece : pieces) {
            newest[piece.file] = piece;
            next = piece.id + 1;
        }
        if (pieces.size() < kPiecesPerQuery) break;
    }
    for (const auto& [file, piece] : newest) {
        std::error_code ec;
        const std::uint64_t size = std::filesystem::file_size(options_.logsDir + "/" + file, ec);
        const AlertState::Cursor cursor{piece.generation,
                                        std::max(piece.offset + piece.length, ec ? 0 : size)};
        read_.cursors[file] = cursor;
        round.batch.cursors[file] = cursor;
        const std::string device = DeviceLogNames::deviceOfFile(file);
        AlertState::Device& seen = read_.devices[device];
        seen.name = deviceName(piece);
        seen.lastMs = std::max(seen.lastMs, piece.lastReceivedMs);
        seen.active = seen.lastMs > round.now - kActiveAtStartMs;
        round.batch.devices[device] = seen;
    }
    // The pieces that may still grow are read on from the cursors just set.
    read_.scanFrom = next;
    for (const auto& [file, piece] : newest) {
        if (piece.firstReceivedMs > round.now - kGrowingMs)
            read_.scanFrom = std::min(read_.scanFrom, piece.id);
    }
    read_.initialized = true;
    round.batch.initialized = true;
    round.batch.scanFrom = read_.scanFrom;
}

bool AlertEngine::readPiece(Round& round, const DeviceLogIndex::Piece& piece, bool growing) {
    const auto known = read_.cursors.find(piece.file);
    // A log first seen after alerts started is read from its start.
    AlertState::Cursor cursor = known != read_.cursors.end()
                                    ? known->second
                                    : AlertState::Cursor{piece.generation, piece.offset};
    const std::uint64_t end = piece.offset + piece.length;
    if (piece.generation < cursor.generation) return true;
    if (piece.generation > cursor.generation) cursor = {piece.generation, piece.offset};
    const std::uint64_t start = std::max(cursor.offset, piece.offset);
    const std::string device = DeviceLogNames::deviceOfFile(piece.file);
    AlertState::Device& seen = read_.devices[device];
    if (piece.lastReceivedMs > seen.lastMs || !seen.active) {
        seen.name = deviceName(piece);
        seen.lastMs = std::max(seen.lastMs, piece.lastReceivedMs);
        seen.active = true;
        round.batch.devices[device] = seen;
    }
    if (start >= end) {
        if (known == read_.cursors.end() || known->second.generation != cursor.generation) {
            read_.cursors[piece.file] = cursor;
            round.batch.cursors[piece.file] = cursor;
        }
        return true;
    }
    // The log file and its ".back" are only what the index says while the current file is
    // the one it last committed: a rotation since then renamed them underneath.
    const std::string current = options_.logsDir + "/" + piece.file;
    const bool live =
        piece.path == current || piece.path == current + RotatingLogFile::kBackupSuffix;
    if (live) {
        struct stat info {};
        const std::uint64_t onDisk = ::stat(current.c_str(), &info) == 0 ? logFileIdOf(info) : 0;
        if (piece.currentFileId != 0 && onDisk != piece.currentFileId) return false;
    }
    std::string text;
    if (piece.path.empty() ||
        !LogIndexView::readPath(options_.logsDir, piece.path, start,
                                static_cast<std::size_t>(end - start), text)) {
        // A live file that cannot be read now is being rotated: read it when the index
        // says where it went. History that is gone (retention removed it) holds nothing
        // to alert on.
        if (live) return false;
        cursor.offset = end;
        read_.cursors[piece.file] = cursor;
        round.batch.cursors[piece.file] = cursor;
        return true;
    }
    round.bytes += text.size();
    // A piece that may still grow is read to its last whole line; the rest waits.
    std::size_t usable = text.size();
    if (growing) {
        const std::size_t nl = text.rfind('\n');
        usable = nl == std::string::npos ? 0 : nl + 1;
    }
    if (!piece.header) {
        // A line without a label of its own takes its piece's level only when every line
        // of the piece has that level (a syslog message's priority), never from a labelled
        // line beside it.
        const DeviceLogSeverity::Level sole =
            (piece.severities & DeviceLogSeverity::bit(DeviceLogSeverity::Level::Unknown)) != 0
                ? DeviceLogSeverity::Level::Unknown
                : LogIndexView::soleLevel(piece.severities);
        std::size_t at = 0;
        while (at < usable) {
            std::size_t nl = text.find('\n', at);
            if (nl == std::string::npos || nl >= usable) nl = usable;
            const std::string_view line(text.data() + at, nl - at);
            if (!line.empty()) {
                DeviceLogSeverity::Level level = DeviceLogSeverity::ofLine(line);
                if (level == DeviceLogSeverity::Level::Unknown) level = sole;
                matchLine(round, piece, line, start + at, level);
            }
            at = nl + 1;
        }
    }
    cursor.offset = start + usable;
    read_.cursors[piece.file] = cursor;
    round.batch.cursors[piece.file] = cursor;
    return true;
}

void AlertEngine::matchLine(Round& round, const DeviceLogIndex::Piece& piece, std::string_view line,
                            std::uint64_t offset, DeviceLogSeverity::Level level) {
    for (const std::shared_ptr<Compiled>& compiled : round.rules) {
        const AlertRule& rule = compiled->rule;
        if (!rule.enabled || rule.kind != AlertRule::Kind::Match) continue;
        if (!compiled->wantsPiece(piece) || !compiled->matches(line, level)) continue;
        std::unique_ptr<Runtime>& runtime = runtimes_[rule.id];
        if (!runtime) runtime = std::make_unique<Runtime>();
        Runtime& r = *runtime;
        round.touched.insert(rule.id);
        const AlertState::Place place{piece.file, piece.generation, offset};
        const std::string severity =
            level == DeviceLogSeverity::Level::Unknown ? "" : DeviceLogSeverity::name(level);
        const long long when = piece.lastReceivedMs;
        if (round.now < r.quietUntilMs) {
            if (r.pending == 0) {
                r.pendingPlace = place;
                r.pendingFirstMs = when;
                r.pendingSeverity = severity;
                r.pendingLines.clear();
            }
            ++r.pending;
            r.pendingLastMs = when;
            if (r.pendingLines.size() < kMaxLines) r.pendingLines.push_back(noticeLine(line));
            continue;
        }
        const long long windowStart =
            when - static_cast<long long>(rule.minutes) * options_.minuteMs;
        while (!r.window.empty() && r.window.front() < windowStart) r.window.pop_front();
        if (r.window.empty()) {
            r.windowLines.clear();
            r.windowPlace = place;
            r.windowSeverity = severity;
        }
        r.window.push_back(when);
        if (r.windowLines.size() < kMaxLines) r.windowLines.push_back(noticeLine(line));
        if (static_cast<long long>(r.window.size()) < rule.count) continue;
        AlertState::Fired fired;
        fired.kind = "match";
        fired.matches = static_cast<std::int64_t>(r.window.size());
        fired.title = rule.name + ": " +
                      (rule.count > 1 ? plural(fired.matches, "match") + " within " +
                                            plural(rule.minutes, "minute") + " on "
                                      : "") +
                      noticeLine(deviceName(piece)) + " \u00b7 " + noticeLine(logName(piece.file));
        fired.severity = r.windowSeverity;
        fired.lines = r.windowLines;
        fired.place = r.windowPlace;
        fired.firstMs = r.window.front();
        fired.lastMs = when;
        r.window.clear();
        r.windowLines.clear();
        r.quietUntilMs = round.now + static_cast<long long>(rule.quietMinutes) * options_.minuteMs;
        r.lastFiredMs = round.now;
        fire(round, rule, std::move(fired));
    }
}

void AlertEngine::endQuietPeriods(Round& round) {
    for (const std::shared_ptr<Compiled>& compiled : round.rules) {
        const AlertRule& rule = compiled->rule;
        const auto it = runtimes_.find(rule.id);
        if (it == runtimes_.end()) continue;
        Runtime& r = *it->second;
        if (r.pending == 0 || round.now < r.quietUntilMs) continue;
        AlertState::Fired fired;
        fired.kind = "digest";
        fired.matches = r.pending;
        fired.title = rule.name + ": " + std::to_string(r.pending) + " more " +
                      (r.pending == 1 ? "match" : "matches");
        fired.severity = r.pendingSeverity;
        fired.lines = r.pendingLines;
        fired.place = r.pendingPlace;
        fired.firstMs = r.pendingFirstMs;
        fired.lastMs = r.pendingLastMs;
        r.pending = 0;
        r.pendingLines.clear();
        r.quietUntilMs = round.now + static_cast<long long>(rule.quietMinutes) * options_.minuteMs;
        r.lastFiredMs = round.now;
        round.touched.insert(rule.id);
        fire(round, rule, std::move(fired));
    }
    // The state of rules that are gone goes with them.
    for (auto it = runtimes_.begin(); it != runtimes_.end();) {
        const bool kept = std::any_of(round.rules.begin(), round.rules.end(),
                                      [&](const auto& c) { return c->rule.id == it->first; });
        if (kept || round.rules.empty()) {
            ++it;
        } else {
            round.batch.rulesRemoved.insert(it->first);
            round.touched.erase(it->first);
            it = runtimes_.erase(it);
        }
    }
}

void AlertEngine::watchSilence(Round& round) {
    for (const std::shared_ptr<Compiled>& compiled : round.rules) {
        const AlertRule& rule = compiled->rule;
        if (!rule.enabled || rule.kind != AlertRule::Kind::Silent) continue;
        const long long limitMs = static_cast<long long>(rule.silentMinutes) * options_.minuteMs;
        for (const auto& [device, seen] : read_.devices) {
            if (!rule.device.empty() && rule.device != device && rule.device != seen.name) continue;
            const auto key = std::make_pair(rule.id, device);
            const bool flagged = read_.silent.count(key) != 0;
            const bool quiet = seen.active && round.now - seen.lastMs >= limitMs;
            if (quiet == flagged) continue;
            AlertState::Fired fired;
            fired.place.file = device;
            fired.firstMs = fired.lastMs = seen.lastMs;
            if (quiet) {
                fired.kind = "silent";
                fired.title = rule.name + ": " + noticeLine(seen.name) + " has sent nothing for " +
                              plural((round.now - seen.lastMs) / options_.minuteMs, "minute");
                fired.lines = {"last heard " + clockText(seen.lastMs)};
                read_.silent.insert(key);
                round.batch.silentAdded.insert(key);
            } else {
                fired.kind = "resumed";
                fired.title = rule.name + ": " + noticeLine(seen.name) + " is sending again";
                fired.lines = {"heard again " + clockText(seen.lastMs)};
                read_.silent.erase(key);
                round.batch.silentRemoved.insert(key);
            }
            fire(round, rule, std::move(fired));
        }
    }
}

void AlertEngine::fire(Round& round, const AlertRule& rule, AlertState::Fired fired) {
    fired.rule = rule.id;
    fired.ruleName = rule.name;
    fired.createdMs = round.now;
    for (const std::string& channel : rule.channels) {
        AlertState::Delivery delivery;
        delivery.channel = channel;
        fired.deliveries.push_back(std::move(delivery));
    }
    round.batch.fired.push_back(std::move(fired));
}

AlertEngine::Notice AlertEngine::noticeOf(const AlertState::Fired& fired) const {
    Notice notice;
    notice.rule = fired.rule;
    notice.ruleName = fired.ruleName;
    notice.kind = fired.kind;
    notice.title = fired.title;
    notice.severity = fired.severity;
    notice.matches = fired.matches;
    notice.firstMs = fired.firstMs;
    notice.lastMs = fired.lastMs;
    notice.lines = fired.lines;
    const bool inLog = fired.kind == "match" || fired.kind == "digest";
    if (inLog) notice.link = linkTo(fired.place);
    std::string text;
    if (fired.kind == "digest") {
        text = plural(fired.matches, "more match") + " from " + clockText(fired.firstMs) + " to " +
               clockText(fired.lastMs);
        if (fired.matches == 1) text = "1 more match at " + clockText(fired.firstMs);
        text += fired.matches > static_cast<std::int64_t>(fired.lines.size())
                    ? ", the first " + std::to_string(fired.lines.size()) + ":\n"
                    : ":\n";
    } else if (inLog) {
        text = clockText(fired.lastMs) + ", " + fired.place.file + ":\n";
    }
    for (const std::string& line : fired.lines) text += line + "\n";
    notice.text = text;
    return notice;
}

AlertEngine::Outcome AlertEngine::sendTest(const AlertChannelConfig& channel) {
    Notice notice;
    notice.kind = "test";
    notice.test = true;
    notice.ruleName = "test";
    notice.title = "Test notification from the log console";
    notice.text = "This is a test of the channel \"" + channel.name + "\", sent " +
                  clockText(nowMs()) + ".\n";
    notice.link = options_.consoleUrl + "#/alerts";
    notice.firstMs = notice.lastMs = nowMs();
    notice.lines = {"a test line: nothing is wrong"};
    return sender_(channel, notice);
}

void AlertEngine::deliverLoop() {
    while (true) {
        const long long now = nowMs();
        for (const AlertState::Due& due : state_->due(now, 16)) {
            {
                PMutexLocker lock(mutex_);
                if (stopping_) return;
            }
            deliver(due);
        }
        const long long next = state_->nextDue();
        PMutexLocker lock(mutex_);
        if (stopping_) return;
        if (!deliverWanted_ && (next == 0 || next > nowMs())) {
            const long long waitMs =
                next == 0 ? options_.pollMs * 4 : std::min<long long>(next - nowMs(), 60000);
            mutex_.waitUntil(std::chrono::steady_clock::now() +
                             std::chrono::milliseconds(std::max<long long>(waitMs, 1)));
        }
        deliverWanted_ = false;
        if (stopping_) return;
    }
}

void AlertEngine::deliver(const AlertState::Due& due) {
    const AlertConfig config = this->config();
    const AlertChannelConfig* channel = config.channel(due.channel);
    const long long now = nowMs();
    if (channel == nullptr) {
        state_->delivered(due.fired.id, due.channel, false, "the channel was removed", now, 0);
        return;
    }
    const Outcome outcome = sender_(*channel, noticeOf(due.fired));
    if (outcome.ok) {
        state_->delivered(due.fired.id, due.channel, true, "", nowMs(), 0);
        return;
    }
    const int attempts = due.attempts + 1;
    const long long pause =
        std::min<long long>(options_.retryMs << std::min(attempts - 1, 10), 600000);
    report("\"" + due.fired.title + "\" to \"" + channel->name + "\" failed (" +
           std::to_string(attempts) + " of " + std::to_string(kMaxAttempts) +
           "): " + outcome.error);
    state_->delivered(due.fired.id, due.channel, false, outcome.error, nowMs(),
                      attempts >= kMaxAttempts ? 0 : nowMs() + pause);
}
