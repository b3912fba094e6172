// SPDX-License-Identifier: MIT
// AlertState: what the alerts have done, kept in a small SQLite database of their own (not
// the collector's index, which the console only reads), so that a restart of the console
// neither repeats a notification nor loses one: where reading stopped in each log, each
// rule's quiet period and the matches it gathered meanwhile, when each device was last
// heard, and every fired alert with its deliveries to the rule's channels. Reading on and
// firing are committed together in one transaction, so lines read are alerted on exactly
// once; a delivery is marked sent after the receiver took it (a crash between the two
// sends it again: at least once).
// Thread-safe: one mutex around the connection.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "PMutex.h"

class SqliteStatement;
struct sqlite3;

class AlertState {
public:
    // Where reading stopped in a log: its generation (as the index numbers them) and the
    // offset in it.
    struct Cursor {
        std::int64_t generation = 0;
        std::uint64_t offset = 0;
    };
    struct Device {
        std::string name;
        long long lastMs = 0;  // last heard (the collector's receive time)
        bool active = false;   // heard while alerts were running (silence counts then)
    };
    // A place in a log, for a link to the lines.
    struct Place {
        std::string file;
        std::int64_t generation = 0;
        std::uint64_t offset = 0;
    };
    struct Delivery {
        std::string channel;
        std::string status;  // "pending", "sent" or "failed"
        int attempts = 0;
        long long nextMs = 0;
        long long sentMs = 0;
        std::string error;
    };
    struct Fired {
        std::int64_t id = 0;
        std::string rule;
        std::string ruleName;
        std::string kind;  // "match", "digest", "silent", "resumed"
        long long createdMs = 0;
        std::int64_t matches = 0;
        std::string title;
        std::string severity;
        std::vector<std::string> lines;
        Place place;
        long long firstMs = 0, lastMs = 0;
        std::vector<Delivery> deliveries;
    };
    // Everything read back at start.
    struct Snapshot {
        bool initialized = false;
        std::int64_t scanFrom = 0;
        std::map<std::string, Cursor> cursors;
        std::map<std::string, std::string> rules;  // rule id: its state (JSON)
        std::map<std::string, Device> devices;
        std::set<std::pair<std::string, std::string>> silent;  // (rule, device) fired
    };
    // What one round of reading changed, committed at once.
    struct Batch {
        std::optional<bool> initialized;
        std::optional<std::int64_t> scanFrom;
        std::map<std::string, Cursor> cursors;
        std::map<std::string, std::string> rules;
        std::set<std::string> rulesRemoved;
        std::map<std::string, Device> devices;
        std::set<std::pair<std::string, std::string>> silentAdded, silentRemoved;
        std::vector<Fired> fired;  // ids assigned; one pending delivery per listed channel
        bool empty() const;
    };
    // A delivery due, with what it delivers.
    struct Due {
        Fired fired;
        std::string channel;
        int attempts = 0;
    };

    static constexpr std::size_t kKeptFired = 1000;

    // Opens (creating when missing, with its folder) the database at `path`. Null with
    // `error` set when it cannot.
    static std::unique_ptr<AlertState> open(const std::string& path, std::string& error);
    AlertState(const AlertState&) = delete;
    AlertState& operator=(const AlertState&) = delete;
    ~AlertState();

    Snapshot load();
    // Commits `batch` in one transaction; false (and nothing changed) with `error` when the
    // database cannot be written.
    bool commit(Batch& batch, std::string& error);
    // Deliveries pending and due at `nowMs`, oldest first.
    std::vector<Due> due(long long nowMs, std::size_t limit);
    // The earliest time a pending delivery is due; 0 when none is pending.
    long long nextDue();
    // Records a delivery's outcome: sent, or failed with `error`, to be tried again at
    // `retryMs` (0: given up).
    void delivered(std::int64_t fired, const std::string& channel, bool ok,
                   const std::string& error, long long nowMs, long long retryMs);
    // The newest fired alerts, newest first, with their deliveries.
    std::vector<Fired> recent(std::size_t limit);

private:
    explicit AlertState(sqlite3* db);
    bool exec(const char* sql) NIMB_REQUIRES(mutex_);
    // A fired row whose columns start at `first`.
    static Fired readFired(SqliteStatement& select, int first);
    void readDeliveries(Fired& fired) NIMB_REQUIRES(mutex_);

    PMutex mutex_;
    sqlite3* const db_;  // used under mutex_
};
