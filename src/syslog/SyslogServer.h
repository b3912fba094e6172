// SPDX-License-Identifier: MIT
// SyslogServer: the collector's syslog listeners (UDP, TCP, TLS) on one thread of their
// own, "nimb-syslog", which reads, parses and files every message, so the bus path
// never waits for it. Fairness: each round of the thread's loop reads at most one chunk
// (64 KiB) from every ready connection and 64 datagrams from the UDP socket; gathered
// lines go to their loggers when nothing more is ready to read, and at the latest
// kFlushDelayMs after they were read. A flooding sender therefore delays another's lines
// by at most that and one round, and its own rate bound holds it back beyond that.
// Connection slots: one address holds at most MaxConnectionsPerAddress of them (always
// fewer than all), so that another sender always finds one; a TLS connection must finish its
// handshake within the settings' handshakeTimeoutMs, and while every slot is taken a new connection
// takes the slot of the connection idle longest, once that has been idle for idleTimeoutMs.
// A TLS sender whose client certificate the handshake verified is filed under the
// certificate's name.
// Created, started and stopped by the collector on its main thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "SyslogCounters.h"
#include "SyslogFramer.h"
#include "SyslogRateBucket.h"
#include "SyslogSettings.h"
#include "SyslogThrottledLog.h"
#include "SyslogTlsContext.h"

class DeviceLogWriter;
class PThread;
class SyslogStore;

class SyslogServer {
public:
    static constexpr std::size_t kReadChunk = 65536;
    static constexpr int kDatagramsPerRound = 64;
    // Longest time a line read waits before it is handed to its file's logger.
    static constexpr long long kFlushDelayMs = 20;

    // `counters` is borrowed and must outlive the server; any thread may read it. The
    // lines are written by `writer` (shared; not null).
    SyslogServer(const SyslogSettings& settings, SyslogCounters& counters,
                 std::shared_ptr<DeviceLogWriter> writer);
    SyslogServer(const SyslogServer&) = delete;
    SyslogServer& operator=(const SyslogServer&) = delete;
    // Stops (see stop()).
    ~SyslogServer();

    // Opens every enabled listener and starts the thread. False, with the reason logged,
    // when a listener cannot be opened or the TLS files cannot be used; nothing runs then.
    // Main thread; call once.
    bool start();
    // Stops reading, files every message already read (a last line without newline
    // included), hands everything to the loggers and joins the thread. The loggers then
    // write what they hold when the server is destroyed. Harmless twice. Main thread.
    void stop();
    const SyslogCounters& counters() const { return counters_; }

private:
    enum class Kind { kUdp, kTcp, kTls, kWake };
    struct Connection {
        explicit Connection(std::size_t maxSize) : framer(maxSize) {}
        int fd = -1;
        std::uint64_t serial = 0;  // tells a connection from a later one on the same fd
        std::string address;
        long long lastReadMs = 0;  // steady ms it was accepted or last ready to read
        SyslogFramer framer;
        struct ssl_st* ssl = nullptr;
        bool handshakeDone = false;
        // The verified client certificate's name, which the sender is filed under ("" when
        // it showed none), and why a certificate was refused.
        std::string certName;
        std::string certRefusal;
        bool paused = false;
    };

    bool openListener(int port, Kind kind);
    bool loadTls();
    void* run(void*);
    void runRound(int timeoutMs);
    void readDatagrams(int fd);
    void acceptConnections(int fd, Kind kind);
    void readConnection(Connection& connection);
    bool readTls(Connection& connection);
    void deliver(Connection& connection, std::string_view data);
    void closeConnection(Connection& connection, const char* reason);
    bool closeIdlest();
    // The connections one address may hold: MaxConnectionsPerAddress, and always fewer
    // than MaxConnections.
    int perAddressCap() const;
    // True when `address` may open one more connection; otherwise closes `client`,
    // counts and logs it, and returns false.
    bool refuseFromBusyAddress(int client, const std::string& address);
    void expireHandshakes();
    int waitMs() const;
    void resumePaused();
    SyslogRateBucket* bucketFor(const std::string& address);
    void watch(int fd, unsigned events, bool add);
    static long long nowMs();
    static long long steadyMs();

    // Immutable after construction.
    SyslogSettings settings_;
    SyslogCounters& counters_;
    SyslogTlsContext tls_;
    int epoll_ = -1;
    int wake_ = -1;  // eventfd: stop() writes, the thread wakes and ends

    // Listener thread only (and the main thread before start / after join).
    std::unique_ptr<SyslogStore> store_;
    std::shared_ptr<DeviceLogWriter> writer_;  // immutable after construction
    std::unordered_map<int, Kind> listeners_;
    std::unordered_map<int, std::unique_ptr<Connection>> connections_;
    std::unordered_map<std::string, SyslogRateBucket> buckets_;
    std::unordered_map<std::string, int> perAddress_;  // open connections by address
    std::vector<int> paused_;
    std::vector<int> again_;  // TLS connections with decrypted bytes still buffered
    std::vector<char> buffer_;
    // TLS connections in their handshake, by deadline (steady ms); in accept order, which
    // is deadline order. Entries of connections gone or done are dropped at the front.
    struct HandshakeDue {
        long long dueMs;
        int fd;
        std::uint64_t serial;
    };
    std::deque<HandshakeDue> handshakes_;
    std::uint64_t serials_ = 0;
    long long roundMs_ = 0;     // steady ms the current round started
    long long flushDueMs_ = 0;  // steady ms by which gathered lines are handed on; 0: none
    bool stopping_ = false;
    SyslogThrottledLog rateDropLog_;
    SyslogThrottledLog ratePauseLog_;
    SyslogThrottledLog connectionLog_;
    SyslogThrottledLog frameLog_;
    SyslogThrottledLog handshakeLog_;
    SyslogThrottledLog certLog_;
    SyslogThrottledLog idleLog_;

    std::unique_ptr<PThread> thread_;
};
