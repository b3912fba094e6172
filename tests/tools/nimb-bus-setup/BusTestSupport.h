// SPDX-License-Identifier: MIT
// Shared by the bus security and cluster tests: a collector program running as a child
// with its own settings home and logs folder, and a device played by a satellite in
// this process that announces one log and appends numbered lines to it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <nats/nats.h>

#include "KibSatellite.h"
#include "NimbTestSupport.h"

namespace bustest {

namespace fs = std::filesystem;

// A folder with the settings home ("cfg") and logs folder ("logs") of one collector.
class CollectorHome {
public:
    explicit CollectorHome(const fs::path& root);

    const fs::path& root() const { return root_; }
    fs::path logs() const { return root_ / "logs"; }
    std::map<std::string, std::string> environment() const;
    // Writes one bus setting (string) into the settings home.
    void setBus(const std::string& name, const std::string& value) const;
    // The collector's own log so far.
    std::string ownLog() const;

private:
    fs::path root_;
};

// NimbRemoteLogger as a child process; killed on destruction if still running.
class Collector {
public:
    explicit Collector(const CollectorHome& home);
    Collector(const Collector&) = delete;
    Collector& operator=(const Collector&) = delete;
    ~Collector();

    // Starts it and waits up to 10 s until it says "connected" (true), or until it
    // exits (false).
    bool start();
    // Waits up to 10 s for it to exit on its own; its exit code, or -1.
    int waitExit();
    // SIGTERM and the exit code (it writes out everything acknowledged first).
    int stop();
    std::string output() const;

private:
    const CollectorHome& home_;
    pid_t pid_ = -1;
};

// One device: announces "MAC" / `logName` (as device id `deviceId`) and appends lines.
class Device {
public:
    Device(std::string mac, std::string logName, std::string deviceId = "dev");

    KibSatellite& satellite() { return satellite_; }
    // Connects as satellite `name` with `options` to `hosts`; KIB_ status.
    int connect(const std::string& hosts, const KibConnectOptions& options, const char* name);
    // SetLogSource for the log; the call's status.
    int announce(int timeoutMs = 2000);
    // AppendLog of one line; the call's status.
    int append(const std::string& line, int timeoutMs = 2000);
    // The file name the collector gives the log (device id + MAC digits + "-" + log name).
    std::string fileName() const;

private:
    KibSatellite satellite_;
    std::string mac_;
    std::string logName_;
    std::string deviceId_;
};

// The value of a "key=value" line of a credentials file.
std::string valueOf(const std::string& credsFile, const std::string& key);

// A raw client of the bus with one account's user name and password, to try what the
// server lets that account do. Does not reconnect.
class RawClient {
public:
    RawClient(const std::string& url, const std::string& caFile, const std::string& credsFile);
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;
    ~RawClient();

    bool connected() const { return status_ == NATS_OK; }
    // Why the connection was refused.
    const std::string& error() const { return error_; }
    bool closed() const { return nc_ == nullptr || natsConnection_IsClosed(nc_); }
    natsConnection* connection() const { return nc_; }

    // Whether the server answers a subscription to `subject` with its refusal within 2 s.
    bool refusesSubscription(const char* subject);
    // The same for a publication to `subject`.
    bool refusesPublication(const char* subject);
    // Publishes the request frame `frame` on `subject` asking for the reply on `replyTo`,
    // which this client listens to; the reply frame, or "" when none came within `wait`.
    std::string request(const std::string& subject, const std::string& replyTo,
                        const std::string& frame,
                        std::chrono::milliseconds wait = std::chrono::milliseconds(2000));

private:
    bool refusal(const std::string& what);

    natsOptions* options_ = nullptr;
    natsConnection* nc_ = nullptr;
    natsStatus status_ = NATS_ERR;
    std::string error_;
};

}  // namespace bustest
