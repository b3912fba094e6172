// SPDX-License-Identifier: MIT
// The simulated devices of the ingest benchmark: their sources, logs and encoded
// requests, their bus connections, and the phases that keep a number of requests in
// flight per device and time the replies. Set-up and phases run on the benchmark's
// main thread; each device's replies arrive on its subscription's delivery thread (the
// NATS client's), which sends the device's next request under the device's own mutex.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <sys/types.h>

#include <nats/nats.h>

#include "KibSubjects.h"

namespace e2e {

using Clock = std::chrono::steady_clock;

const std::string kAppendSubject = KibSubjects::service("RemoteLogger", "AppendLog");
constexpr const char* kEchoSubject = "bench.e2e.echo";

// One announced source: its MAC address, device id and log names.
struct Source {
    std::string mac;
    std::string deviceId;
    std::vector<std::string> logNames;
};

// One log a device pushes into, and the file the collector keeps it in.
struct Log {
    const Source* source = nullptr;
    std::string name;
    std::filesystem::path file;       // relative to the logs folder
    std::vector<std::string> frames;  // encoded AppendLog requests, used in turn
};

// One simulated device: its connection, its sources and logs, and its in-flight
// bookkeeping.
struct Device {
    int index = 0;
    std::string caller;
    std::vector<std::unique_ptr<Source>> sources;
    std::vector<Log> logs;

    natsConnection* connection = nullptr;
    natsSubscription* replies = nullptr;
    std::string inbox;  // reply subjects are inbox + request number

    std::mutex lock;
    std::string subject;
    int total = 0;  // requests of this phase
    int sent = 0;
    int answered = 0;
    int failed = 0;
    std::vector<Clock::time_point> sentAt;
    std::vector<double> latencyMs;
    bool (*accept)(const char*, int) = nullptr;
};

struct PhaseResult {
    double seconds = 0;  // first request to last reply
    int requests = 0;
    int failed = 0;
    double p50 = 0;
    double p99 = 0;
};

bool acceptCollectorReply(const char* data, int size);
bool acceptEcho(const char* data, int size);

// A bus connection to the nats-server on the loopback `port`; exits the program when
// there is none.
natsConnection* connect(int port);

// Sends `requests` requests from each device to `subject`, `window` in flight per
// device, and waits for every reply (exits the program after two minutes without).
PhaseResult runPhase(std::vector<std::unique_ptr<Device>>& devices, const std::string& subject,
                     int requests, int window, bool (*accept)(const char*, int));

// A device with `sources` sources, source s with logsOf(s, fewest, most) logs, whose
// requests carry `linesPerRequest` lines of `lineBytes` bytes; connected and listening
// for its replies.
std::unique_ptr<Device> makeDevice(int index, int sources, int fewestLogs, int mostLogs,
                                   int linesPerRequest, int lineBytes, int port);

// How many logs source `s` has when sources have `fewest` to `most` logs: each count
// in turn, so that any `most - fewest + 1` consecutive sources hold them all once.
inline int logsOf(int s, int fewest, int most) { return fewest + s % (most - fewest + 1); }
void closeDevice(Device& device);

// Announces every source of every device; retries while the collector's service is not
// there yet. False when one is refused, or `daemon` ended.
bool announceAll(std::vector<std::unique_ptr<Device>>& devices, pid_t daemon);

// The bare echo responder: sends every request back as its reply.
void echo(natsConnection* connection, natsSubscription*, natsMsg* message, void*);

// The collector's files of the devices' logs, in the logs folder `logs`.
std::vector<std::filesystem::path> filesOf(const std::filesystem::path& logs,
                                           const std::vector<std::unique_ptr<Device>>& devices);

}  // namespace e2e
