// SPDX-License-Identifier: MIT
// SyslogStore: where received syslog messages go. One file per sender and application
// in the logs folder, named as the bus devices' files are (the sender in the device
// id's place, the application in the log name's), each with the header line on
// creation and whenever the sender's clock estimate moves; stamps rewritten into server
// time when the sender's clock is off. A sender that showed a client certificate is
// filed under the certificate's name, and the names of the allowed certificate holders
// are theirs alone. Lines are gathered per file and handed to the file's logger in one
// piece by flush(). Owned by the server; listener thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "SyslogClock.h"
#include "SyslogCounters.h"
#include "SyslogMessage.h"
#include "SyslogSettings.h"
#include "SyslogThrottledLog.h"

class CBBLog;
class DeviceLogWriter;
class SyslogClientList;

class SyslogStore {
public:
    // `counters` is borrowed and must outlive the store; `writer` (shared; not null)
    // writes the files. `clients` (borrowed, may be null) lists the senders with client
    // certificates: a sender without one may not use their names.
    SyslogStore(const SyslogSettings& settings, SyslogCounters& counters,
                std::shared_ptr<DeviceLogWriter> writer, SyslogClientList* clients = nullptr);
    SyslogStore(const SyslogStore&) = delete;
    SyslogStore& operator=(const SyslogStore&) = delete;
    // Flushes, then releases the loggers (each writes everything queued before closing).
    ~SyslogStore();

    // Parses one message from `address` that arrived at `arrivalMs` (ms since 1970 UTC)
    // and gathers its line for its file; `cutBytes` were cut from it already. With a
    // `certName` (the name of the client certificate the connection verified) the
    // message is filed under that name, whatever host name it carries. Never fails: a
    // message that cannot be placed is counted and logged (rate-limited).
    void add(std::string_view bytes, std::size_t cutBytes, const std::string& address,
             long long arrivalMs, const std::string& certName = std::string());
    // Hands every gathered line to its file's logger.
    void flush();
    // Whether lines are waiting for flush().
    bool hasPending() const { return !dirty_.empty(); }

    // The name a sender is filed under: its host name when that makes a plain file name
    // (printable ASCII, no "/" or "\", not starting with ".", short enough), else its
    // address. Sets `reason`
    // when a non-empty host name was refused.
    static std::string senderName(const std::string& hostname, const std::string& address,
                                  std::string& reason);
    // The file of an application's messages from `sender`; the application is taken as
    // "syslog" when it is empty, not printable ASCII, or makes the name too long.
    static std::string fileName(const std::string& sender, const std::string& appName);

private:
    struct Sender {
        explicit Sender(int clockThreshold) : clock(clockThreshold) {}
        SyslogClock clock;
        int apps = 0;
    };
    struct Log {
        boost::shared_ptr<CBBLog> logger;  // null: the file was refused
        std::string file;
        std::string pending;
        // What the index is told of the pending lines.
        long long pendingArrivalMs = 0;  // the first one's arrival
        long long pendingOffset = 0;     // server minus sender, as stamps were moved
        std::uint16_t pendingSeverities = 0;
        bool pendingAllPrioritized = true;  // every line had a priority
        bool inFlush = false;               // listed in dirty_
        bool headerWritten = false;
        bool headerKnown = false;  // the last header carried a clock estimate
        long long headerOffset = 0;
    };

    // Where a message from `address` goes, by its host name and application as sent:
    // the sender, its file and the name it is filed under. Null past the sender cap.
    struct Route {
        Sender* sender = nullptr;
        Log* log = nullptr;
        std::string name;
        std::string refusal;     // why the host name was not used, "" when it was
        bool certified = false;  // the name is a client certificate's
    };
    static constexpr std::size_t kMaxRoutes = 4096;

    const Route* findRoute(const SyslogMessage& message, const std::string& address,
                           const std::string& certName);
    // The name a sender without certificate is filed under (see senderName()), its
    // address when it claims the name of a certificate holder.
    std::string uncertifiedName(const std::string& hostname, const std::string& address,
                                std::string& reason) const;
    Sender* findSender(const std::string& name, const std::string& address);
    Log* findLog(Sender& sender, const std::string& name, const SyslogMessage& message);
    Log* openLog(const std::string& fileName);
    void appendHeader(Log& log, Sender& sender, const Route& route, const std::string& address,
                      long long arrivalSeconds);
    void appendLine(Log& log, Sender& sender, SyslogMessage& message, long long arrivalSeconds);
    // Hands the header line `header` to the log's logger as a text of its own, with the
    // sender's identity before it, so that the index knows it for a real header.
    void writeHeader(Log& log, const Route& route, const std::string& address, std::string header,
                     bool clockKnown, long long offset);
    void flushLog(Log& log);
    // Gathers `arrivalMs`, the stamp offset and the message's severity for the index.
    void notePending(Log& log, const SyslogMessage& message, long long arrivalMs, long long offset);

    // Immutable after construction.
    SyslogSettings settings_;
    std::string logsDir_;
    SyslogCounters& counters_;
    const std::shared_ptr<DeviceLogWriter> writer_;
    SyslogClientList* const clients_;
    std::uint64_t clientsGeneration_ = 0;  // the list's, when routes_ was last cleared

    std::unordered_map<std::string, Sender> senders_;
    std::unordered_map<std::string, std::unique_ptr<Log>> logs_;  // by file name
    std::vector<Log*> dirty_;
    // Address, host name and application as sent -> route; saves building names per line.
    std::unordered_map<std::string, Route> routes_;
    std::string routeKey_;
    SyslogMessage message_;    // reused for every message
    long long arrivalMs_ = 0;  // of the message being filed
    SyslogThrottledLog nameLog_;
    SyslogThrottledLog fileLog_;
    SyslogThrottledLog senderCapLog_;
};
