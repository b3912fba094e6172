// SPDX-License-Identifier: MIT
#include "AlertState.h"

#include <filesystem>

#include <sqlite3.h>

#include <QJsonArray>
#include <QJsonDocument>

#include "SqliteStatement.h"

namespace {

const char* const kSchema = R"(
PRAGMA journal_mode=WAL;
PRAGMA synchronous=NORMAL;
CREATE TABLE IF NOT EXISTS meta(name TEXT PRIMARY KEY, value INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS cursors(
    file TEXT PRIMARY KEY, generation INTEGER NOT NULL, offset INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS rules(rule TEXT PRIMARY KEY, state TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS devices(
    device TEXT PRIMARY KEY, name TEXT NOT NULL, last_ms INTEGER NOT NULL,
    active INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS silent(rule TEXT NOT NULL, device TEXT NOT NULL,
    PRIMARY KEY(rule, device));
CREATE TABLE IF NOT EXISTS fired(
    id INTEGER PRIMARY KEY, rule TEXT NOT NULL, rule_name TEXT NOT NULL, kind TEXT NOT NULL,
    created_ms INTEGER NOT NULL, matches INTEGER NOT NULL, title TEXT NOT NULL,
    severity TEXT NOT NULL, lines TEXT NOT NULL, file TEXT NOT NULL,
    generation INTEGER NOT NULL, offset INTEGER NOT NULL,
    first_ms INTEGER NOT NULL, last_ms INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS deliveries(
    fired INTEGER NOT NULL, channel TEXT NOT NULL, status TEXT NOT NULL,
    attempts INTEGER NOT NULL, next_ms INTEGER NOT NULL, sent_ms INTEGER NOT NULL,
    error TEXT NOT NULL, PRIMARY KEY(fired, channel));
CREATE INDEX IF NOT EXISTS deliveries_due ON deliveries(next_ms) WHERE status = 'pending';
)";

constexpr const char* kFiredColumns =
    "id, rule, rule_name, kind, created_ms, matches, title, severity, lines, file, generation, "
    "offset, first_ms, last_ms";

std::string linesJson(const std::vector<std::string>& lines) {
    QJsonArray array;
    for (const std::string& line : lines) array.append(QString::fromStdString(line));
    return QJsonDocument(array).toJson(QJsonDocument::Compact).toStdString();
}

std::vector<std::string> linesOf(const std::string& json) {
    std::vector<std::string> lines;
    for (const QJsonValue line : QJsonDocument::fromJson(QByteArray::fromStdString(json)).array())
        lines.push_back(line.toString().toStdString());
    return lines;
}

}  // namespace

bool AlertState::Batch::empty() const {
    return !initialized && !scanFrom && cursors.empty() && rules.empty() && rulesRemoved.empty() &&
           devices.empty() && silentAdded.empty() && silentRemoved.empty() && fired.empty();
}

std::unique_ptr<AlertState> AlertState::open(const std::string& path, std::string& error) {
    std::error_code ec;
    const std::filesystem::path folder = std::filesystem::path(path).parent_path();
    if (!folder.empty()) std::filesystem::create_directories(folder, ec);
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
        error = "cannot open the alert state " + path + ": " +
                (db != nullptr ? sqlite3_errmsg(db) : "out of memory");
        sqlite3_close(db);
        return nullptr;
    }
    sqlite3_busy_timeout(db, 5000);
    char* message = nullptr;
    if (sqlite3_exec(db, kSchema, nullptr, nullptr, &message) != SQLITE_OK) {
        error = "cannot use the alert state " + path + ": " + (message ? message : "?");
        sqlite3_free(message);
        sqlite3_close(db);
        return nullptr;
    }
    return std::unique_ptr<AlertState>(new AlertState(db));
}

AlertState::AlertState(sqlite3* db) : db_(db) {}

AlertState::~AlertState() { sqlite3_close(db_); }

bool AlertState::exec(const char* sql) {
    return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

AlertState::Snapshot AlertState::load() {
    PMutexLocker lock(mutex_);
    Snapshot snapshot;
    {
        SqliteStatement select(db_, "SELECT name, value FROM meta");
        while (select.step() == SQLITE_ROW) {
            if (select.text(0) == "initialized") snapshot.initialized = select.integer(1) != 0;
            if (select.text(0) == "scan_from") snapshot.scanFrom = select.integer(1);
        }
    }
    {
        SqliteStatement select(db_, "SELECT file, generation, offset FROM cursors");
        while (select.step() == SQLITE_ROW) {
            snapshot.cursors[select.text(0)] = {select.integer(1),
                                                static_cast<std::uint64_t>(select.integer(2))};
        }
    }
    {
        SqliteStatement select(db_, "SELECT rule, state FROM rules");
        while (select.step() == SQLITE_ROW) snapshot.rules[select.text(0)] = select.text(1);
    }
    {
        SqliteStatement select(db_, "SELECT device, name, last_ms, active FROM devices");
        while (select.step() == SQLITE_ROW) {
            snapshot.devices[select.text(0)] = {select.text(1), select.integer(2),
                                                select.integer(3) != 0};
        }
    }
    {
        SqliteStatement select(db_, "SELECT rule, device FROM silent");
        while (select.step() == SQLITE_ROW) snapshot.silent.emplace(select.text(0), select.text(1));
    }
    return snapshot;
}

bool AlertState::commit(Batch& batch, std::string& error) {
    PMutexLocker lock(mutex_);
    if (!exec("BEGIN IMMEDIATE")) {
        error = std::string("the alert state cannot be written: ") + sqlite3_errmsg(db_);
        return false;
    }
    bool ok = true;
    const auto run = [&](SqliteStatement& statement) {
        if (statement.step() != SQLITE_DONE) ok = false;
        statement.reset();
    };
    {
        SqliteStatement meta(db_, "INSERT OR REPLACE INTO meta(name, value) VALUES(?1, ?2)");
        if (batch.initialized) run(meta.bind(1, "initialized").bind(2, *batch.initialized ? 1 : 0));
        if (batch.scanFrom) run(meta.bind(1, "scan_from").bind(2, *batch.scanFrom));
    }
    {
        SqliteStatement upsert(
            db_, "INSERT OR REPLACE INTO cursors(file, generation, offset) VALUES(?1, ?2, ?3)");
        for (const auto& [file, cursor] : batch.cursors) {
            run(upsert.bind(1, file)
                    .bind(2, cursor.generation)
                    .bind(3, static_cast<long long>(cursor.offset)));
        }
    }
    {
        SqliteStatement upsert(db_, "INSERT OR REPLACE INTO rules(rule, state) VALUES(?1, ?2)");
        for (const auto& [rule, state] : batch.rules) run(upsert.bind(1, rule).bind(2, state));
        SqliteStatement remove(db_, "DELETE FROM rules WHERE rule = ?1");
        SqliteStatement unsilence(db_, "DELETE FROM silent WHERE rule = ?1");
        for (const std::string& rule : batch.rulesRemoved) {
            run(remove.bind(1, rule));
            run(unsilence.bind(1, rule));
        }
    }
    {
        SqliteStatement upsert(
            db_,
            "INSERT OR REPLACE INTO devices(device, name, last_ms, active) VALUES(?1, ?2, ?3, ?4)");
        for (const auto& [device, seen] : batch.devices) {
            run(upsert.bind(1, device)
                    .bind(2, seen.name)
                    .bind(3, seen.lastMs)
                    .bind(4, seen.active ? 1 : 0));
        }
        SqliteStatement add(db_, "INSERT OR IGNORE INTO silent(rule, device) VALUES(?1, ?2)");
        for (const auto& [rule, device] : batch.silentAdded) run(add.bind(1, rule).bind(2, device));
        SqliteStatement remove(db_, "DELETE FROM silent WHERE rule = ?1 AND device = ?2");
        for (const auto& [rule, device] : batch.silentRemoved)
            run(remove.bind(1, rule).bind(2, device));
    }
    {
        SqliteStatement insert(
            db_,
            "INSERT INTO fired(rule, rule_name, kind, created_ms, matches, title, severity, "
            "lines, file, generation, offset, first_ms, last_ms) "
            "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13)");
        SqliteStatement deliver(db_,
                                "INSERT OR IGNORE INTO deliveries(fired, channel, status, "
                                "attempts, next_ms, sent_ms, error) "
                                "VALUES(?1, ?2, 'pending', 0, ?3, 0, '')");
        for (Fired& fired : batch.fired) {
            run(insert.bind(1, fired.rule)
                    .bind(2, fired.ruleName)
                    .bind(3, fired.kind)
                    .bind(4, fired.createdMs)
                    .bind(5, static_cast<long long>(fired.matches))
                    .bind(6, fired.title)
                    .bind(7, fired.severity)
                    .bind(8, linesJson(fired.lines))
                    .bind(9, fired.place.file)
                    .bind(10, fired.place.generation)
                    .bind(11, static_cast<long long>(fired.place.offset))
                    .bind(12, fired.firstMs)
                    .bind(13, fired.lastMs));
            fired.id = sqlite3_last_insert_rowid(db_);
            for (Delivery& delivery : fired.deliveries) {
                delivery.status = "pending";
                run(deliver.bind(1, static_cast<long long>(fired.id))
                        .bind(2, delivery.channel)
                        .bind(3, fired.createdMs));
            }
        }
        if (!batch.fired.empty()) {
            // The oldest fired alerts beyond what is kept go, with their deliveries.
            const std::string keep = std::to_string(kKeptFired);
            ok = ok &&
                 exec(("DELETE FROM deliveries WHERE fired IN (SELECT id FROM fired ORDER BY id "
                       "DESC LIMIT -1 OFFSET " +
                       keep + ")")
                          .c_str()) &&
                 exec(("DELETE FROM fired WHERE id IN (SELECT id FROM fired ORDER BY id DESC "
                       "LIMIT -1 OFFSET " +
                       keep + ")")
                          .c_str());
        }
    }
    if (!ok || !exec("COMMIT")) {
        error = std::string("the alert state cannot be written: ") + sqlite3_errmsg(db_);
        exec("ROLLBACK");
        return false;
    }
    return true;
}

AlertState::Fired AlertState::readFired(SqliteStatement& select, int first) {
    Fired fired;
    fired.id = select.integer(first);
    fired.rule = select.text(first + 1);
    fired.ruleName = select.text(first + 2);
    fired.kind = select.text(first + 3);
    fired.createdMs = select.integer(first + 4);
    fired.matches = select.integer(first + 5);
    fired.title = select.text(first + 6);
    fired.severity = select.text(first + 7);
    fired.lines = linesOf(select.text(first + 8));
    fired.place = {select.text(first + 9), select.integer(first + 10),
                   static_cast<std::uint64_t>(select.integer(first + 11))};
    fired.firstMs = select.integer(first + 12);
    fired.lastMs = select.integer(first + 13);
    return fired;
}

void AlertState::readDeliveries(Fired& fired) {
    SqliteStatement select(db_,
                           "SELECT channel, status, attempts, next_ms, sent_ms, error FROM "
                           "deliveries WHERE fired = ?1 ORDER BY channel");
    select.bind(1, static_cast<long long>(fired.id));
    while (select.step() == SQLITE_ROW) {
        fired.deliveries.push_back({select.text(0), select.text(1),
                                    static_cast<int>(select.integer(2)), select.integer(3),
                                    select.integer(4), select.text(5)});
    }
}

std::vector<AlertState::Due> AlertState::due(long long nowMs, std::size_t limit) {
    PMutexLocker lock(mutex_);
    std::vector<Due> due;
    const std::string sql = std::string("SELECT d.channel, d.attempts, ") + kFiredColumns +
                            " FROM deliveries d JOIN fired f ON f.id = d.fired WHERE d.status = "
                            "'pending' AND d.next_ms <= ?1 ORDER BY d.next_ms, d.fired LIMIT ?2";
    // The fired columns follow the delivery's two.
    SqliteStatement select(db_, sql.c_str());
    select.bind(1, nowMs).bind(2, static_cast<long long>(limit));
    while (select.step() == SQLITE_ROW) {
        Due one;
        one.channel = select.text(0);
        one.attempts = static_cast<int>(select.integer(1));
        one.fired = readFired(select, 2);
        due.push_back(std::move(one));
    }
    return due;
}

long long AlertState::nextDue() {
    PMutexLocker lock(mutex_);
    SqliteStatement select(db_, "SELECT MIN(next_ms) FROM deliveries WHERE status = 'pending'");
    return select.step() == SQLITE_ROW && !select.isNull(0) ? select.integer(0) : 0;
}

void AlertState::delivered(std::int64_t fired, const std::string& channel, bool ok,
                           const std::string& error, long long nowMs, long long retryMs) {
    PMutexLocker lock(mutex_);
    SqliteStatement update(db_,
                           "UPDATE deliveries SET status = ?3, attempts = attempts + 1, "
                           "next_ms = ?4, sent_ms = ?5, error = ?6 WHERE fired = ?1 AND "
                           "channel = ?2");
    update.bind(1, static_cast<long long>(fired))
        .bind(2, channel)
        .bind(3, ok             ? "sent"
                 : retryMs != 0 ? "pending"
                                : "failed")
        .bind(4, ok ? 0 : retryMs)
        .bind(5, ok ? nowMs : 0)
        .bind(6, error);
    update.step();
}

std::vector<AlertState::Fired> AlertState::recent(std::size_t limit) {
    PMutexLocker lock(mutex_);
    std::vector<Fired> fired;
    const std::string sql =
        std::string("SELECT ") + kFiredColumns + " FROM fired ORDER BY id DESC LIMIT ?1";
    SqliteStatement select(db_, sql.c_str());
    select.bind(1, static_cast<long long>(limit));
    while (select.step() == SQLITE_ROW) fired.push_back(readFired(select, 0));
    for (Fired& one : fired) readDeliveries(one);
    return fired;
}
