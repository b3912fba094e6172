// SPDX-License-Identifier: MIT
// DeviceSimulator: devices pushing numbered lines to the collector, and the check of what
// reached the files. Each device has its own bus connection and logs; each log has a
// sender thread that sends its lines one request after the other (so the collector has
// one request in flight per log, devices x logs in all), resends a line until it gets
// a success reply (announcing the device again when the collector does not know it),
// and records in a ledger every line that was acknowledged and how many attempts each
// took. check() then reads each log with its ".back" and says what is missing, out of
// order, duplicated or torn. Controlled from the test's thread; the ledger is guarded.
#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace nimbtest {

class DeviceSimulator {
public:
    struct Options {
        std::string host;  // the bus directory
        int devices = 8;
        int logsPerDevice = 5;
        int linesPerLog = 2000;  // a log stays far below the collector's rotation size
        int timeoutMs = 1000;    // reply timeout of one request
    };

    // What check() found; `problems` names the first few.
    struct Report {
        long acknowledged = 0;  // lines the collector acknowledged
        long lost = 0;          // acknowledged lines missing from the files
        long outOfOrder = 0;    // lines found before an earlier line of their log
        long duplicated = 0;    // lines found twice although their first attempt succeeded
        long torn = 0;          // pieces of lines (or other bytes) that are no whole line
        std::vector<std::string> problems;
        bool clean(bool tornAllowed = false) const {
            return lost == 0 && outOfOrder == 0 && duplicated == 0 && (tornAllowed || torn == 0);
        }
        // The counts and the problems, one per line, for a failure message.
        std::string text() const {
            std::string result = std::to_string(acknowledged) + " acknowledged, " +
                                 std::to_string(lost) + " lost, " + std::to_string(outOfOrder) +
                                 " out of order, " + std::to_string(duplicated) + " duplicated, " +
                                 std::to_string(torn) + " torn";
            for (const std::string& problem : problems) result += "\n  " + problem;
            return result;
        }
    };

    explicit DeviceSimulator(Options options);
    DeviceSimulator(const DeviceSimulator&) = delete;
    DeviceSimulator& operator=(const DeviceSimulator&) = delete;
    // Stops the senders (each ends within a reply timeout).
    ~DeviceSimulator();

    // Connects the devices and starts the senders. False when a device cannot connect.
    bool start();
    // Lets every sender end after its current request and waits for them.
    void stop();
    // Waits at most `limit` until `count` lines in all were acknowledged.
    bool waitForAcknowledged(long count, std::chrono::milliseconds limit) const;
    // Waits at most `limit` until every line was acknowledged.
    bool waitUntilDone(std::chrono::milliseconds limit) const;
    long acknowledged() const { return acknowledged_.load(); }
    // Error replies of the collector's own (it could not write a text), and the text of
    // the first one.
    long errorReplies() const { return errorReplies_.load(); }
    std::string firstError() const;
    long total() const;

    // Reads every log of every device from `logsDir` and compares it with the ledger.
    Report check(const std::filesystem::path& logsDir) const;

    // The file name the collector gives a device's log.
    static std::string fileName(int device, int log);
    // Line `number` of a device's log, as sent (with its newline).
    static std::string line(int device, int log, int number);

private:
    struct Device;
    struct Log;

    void sendAll(Device& device, Log& log);
    bool announce(Device& device);
    void checkLog(const Log& log, const std::string& text, Report& report) const;

    // Immutable after construction.
    const Options options_;

    std::vector<std::unique_ptr<Device>> devices_;  // built by start()
    std::vector<std::thread> senders_;
    std::atomic<bool> stopping_{false};
    std::atomic<long> acknowledged_{0};
    std::atomic<long> errorReplies_{0};
    mutable std::mutex errorMutex_;
    std::string firstError_;  // guarded by errorMutex_
};

}  // namespace nimbtest
