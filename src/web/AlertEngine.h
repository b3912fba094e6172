// SPDX-License-Identifier: MIT
// AlertEngine: the console's alerts. One thread follows every device log through the
// collector's index (pieces in the order they were started, each read from wherever it is
// now: the log file, its ".back" or a history generation), so that rotations, restarts
// of either program and catching up after a pause lose no line and read none twice. Each
// line is tried against the match rules; a rule fires when its count of matches within
// its minutes is reached, then stays quiet for its quiet period, gathering what matches
// meanwhile into one digest sent when the period ends. Devices that were heard and then
// send nothing for a silent rule's minutes fire once, and again ("sending again") when
// they come back. What was read and what fired is committed together (AlertState).
// A second thread delivers the fired alerts through the sender it is given, retrying
// with a growing pause. Both wake at least every poll interval, so a line is notified
// within about a second of the collector indexing it.
// Thread-safe: the public functions may be called from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "AlertRules.h"
#include "AlertState.h"
#include "DeviceLogIndex.h"
#include "DeviceLogSeverity.h"
#include "PCondMutex.h"

class LogIndexView;

class AlertEngine {
public:
    // What one notification says, for the sender to put into its channel's form.
    struct Notice {
        std::string rule;
        std::string ruleName;
        std::string kind;  // "match", "digest", "silent", "resumed", "test"
        std::string title;
        std::string text;
        std::string link;
        std::string severity;
        std::int64_t matches = 0;
        long long firstMs = 0, lastMs = 0;
        std::vector<std::string> lines;
        bool test = false;
    };
    struct Outcome {
        bool ok = false;
        std::string error;
    };
    using Sender = std::function<Outcome(const AlertChannelConfig&, const Notice&)>;

    struct Options {
        std::string logsDir;
        std::string statePath;
        std::string consoleUrl;  // with a trailing "/"
        int pollMs = 500;
        // The length of the rules' minutes; shorter only to test quiet periods and silence.
        long long minuteMs = 60000;
        // The pause before a failed delivery is tried again, doubling up to 10 min.
        long long retryMs = 5000;
    };
    struct RuleStatus {
        long long quietUntilMs = 0;
        std::int64_t pending = 0;
        long long lastFiredMs = 0;
    };
    struct Status {
        bool running = false;
        bool indexAvailable = false;
        long long lastReadMs = 0;
        std::string problem;
        std::map<std::string, RuleStatus> rules;
    };

    // Lines of a notification at most, and bytes of one line.
    static constexpr std::size_t kMaxLines = 10;
    static constexpr std::size_t kMaxLineBytes = 1000;
    // Deliveries are tried this many times.
    static constexpr int kMaxAttempts = 8;

    AlertEngine(Options options, Sender sender);
    AlertEngine(const AlertEngine&) = delete;
    AlertEngine& operator=(const AlertEngine&) = delete;
    // Stops both threads (a delivery under way is finished first).
    ~AlertEngine();

    // Opens the state and starts the threads. False with `error` when the state cannot be
    // opened (the console then runs without alerts).
    bool start(const AlertConfig& config, std::string& error);
    // The rules and channels from now on (read again at the next round).
    void setConfig(const AlertConfig& config);
    AlertConfig config() const;
    Status status() const;
    // The newest fired alerts, newest first.
    std::vector<AlertState::Fired> fired(std::size_t limit) const;
    // Sends a test notification through `channel` now and returns how it went.
    Outcome sendTest(const AlertChannelConfig& channel);
    // The console's link to a place in a log.
    std::string linkTo(const AlertState::Place& place) const;

private:
    struct Compiled;
    struct Runtime;
    struct Round;

    void evaluateLoop();
    void deliverLoop();
    // One round: reads what the logs gained, fires, commits. False when nothing could be
    // read (no index yet).
    bool readRound(Round& round);
    void initialize(Round& round);
    // Reads what `piece` holds past the log's cursor and tries its lines. False when it
    // cannot be read yet (its log rotated since the index's last commit).
    bool readPiece(Round& round, const DeviceLogIndex::Piece& piece, bool growing);
    void matchLine(Round& round, const DeviceLogIndex::Piece& piece, std::string_view line,
                   std::uint64_t offset, DeviceLogSeverity::Level level);
    void endQuietPeriods(Round& round);
    void watchSilence(Round& round);
    void fire(Round& round, const AlertRule& rule, AlertState::Fired fired);
    void deliver(const AlertState::Due& due);
    Notice noticeOf(const AlertState::Fired& fired) const;
    std::vector<std::shared_ptr<Compiled>> compiledRules() const;

    const Options options_;
    const Sender sender_;
    std::unique_ptr<AlertState> state_;  // set by start(), before the threads
    std::unique_ptr<LogIndexView> index_;

    mutable PCondMutex mutex_;
    AlertConfig config_ NIMB_GUARDED_BY(mutex_);
    std::vector<std::shared_ptr<Compiled>> compiled_ NIMB_GUARDED_BY(mutex_);
    Status status_ NIMB_GUARDED_BY(mutex_);
    bool stopping_ NIMB_GUARDED_BY(mutex_) = false;
    bool deliverWanted_ NIMB_GUARDED_BY(mutex_) = false;

    // The evaluating thread's own.
    AlertState::Snapshot read_;
    std::map<std::string, std::unique_ptr<Runtime>> runtimes_;

    std::thread evaluator_;
    std::thread deliverer_;
};
