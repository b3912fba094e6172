// SPDX-License-Identifier: MIT
// End-to-end ingest benchmark of the collector, run by hand (see docs/operations.md).
//
// Starts its own nats-server on a free loopback port and the real NimbRemoteLogger with
// a private settings home, logs folder and dump folder. Simulated devices (one NATS
// connection each, as a device would have) announce their sources with "SetLogSource"
// and push lines with "AppendLog" round-robin over their logs, keeping a fixed number of
// requests in flight per device; the clock stops when every line is in the log files
// (counted in each file and its ".back"). The same frames are then sent, the same way,
// to a bare NATS echo responder: the floor that the bus transport alone costs, for the
// overhead ratio. Finally a device of its own sends one request at a time (one line
// each, by default) to each, for the latency of a lone request.
//
// The collector rotates a log at 512 KiB and keeps one ".back", so a log that received
// more than twice that would lose lines to a second rotation: each log gets at most
// 960 KiB, and the lines are spread over as many logs as that takes.
//
// Main thread: set-up, phases, report. Each device's replies arrive on its
// subscription's delivery thread (the NATS client's), which sends the device's next
// request; a device's state is guarded by its own mutex.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <nats/nats.h>

#include "E2eProcess.h"
#include "KibCodec.h"
#include "KibVariant.h"
#include "KibVariantHolder.h"
#include "NatsServer.h"
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace e2e;

namespace {

constexpr const char* kAppendSubject = "kib.svc.RemoteLogger.AppendLog";
constexpr const char* kSetSourceSubject = "kib.svc.RemoteLogger.SetLogSource";
constexpr const char* kEchoSubject = "bench.e2e.echo";
constexpr std::size_t kMaxBytesPerLog = 960 * 1024;
constexpr int kDefaultMaxLogSources = 256;  // the collector's, when the setting is absent
constexpr int kFramesPerLog = 8;
constexpr auto kPhaseTimeout = std::chrono::seconds(120);

struct Options {
    int devices = 8;
    int sources = 1;
    int logs = 0;  // per source; 0: as few as the lines need (at least 4 per device)
    int lines = 24000;
    int linesPerRequest = 4;
    int lineBytes = 120;
    int window = 32;
    int loneRequests = 1000;
    int loneLines = 1;
    std::string daemon = NIMB_E2E_DAEMON;
    std::string stdoutFile;
    bool keep = false;
};

void usage() {
    std::printf(
        "usage: e2e_bench [--devices N] [--sources N] [--logs N] [--lines N]\n"
        "                 [--lines-per-request N] [--line-bytes N] [--window N]\n"
        "                 [--lone-requests N] [--lone-lines N] [--daemon PATH] [--stdout FILE]\n"
        "                 [--keep]\n"
        "  --devices N            simulated devices, one bus connection each (8)\n"
        "  --sources N            sources each device announces, each with its own MAC (1)\n"
        "  --logs N               logs per source (chosen: as few as hold the lines, each\n"
        "                         log at most 960 KiB, at least 4 per device)\n"
        "  --lines N              lines each device pushes, spread over its logs (24000)\n"
        "  --lines-per-request N  lines in one AppendLog request (4)\n"
        "  --line-bytes N         bytes of one line, newline included, at least 64 (120)\n"
        "  --window N             requests in flight per device (32)\n"
        "  --lone-requests N      requests sent one at a time, for the latency (1000)\n"
        "  --lone-lines N         lines in each of those requests (1)\n"
        "  --daemon PATH          the collector to run (the one built beside this program)\n"
        "  --stdout FILE          where the collector's standard output goes (/dev/null)\n"
        "  --keep                 keep the run's folder (settings, logs) afterwards\n");
}

bool parseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto number = [&](int& target) {
            if (i + 1 >= argc) return false;
            target = std::atoi(argv[++i]);
            return target > 0;
        };
        auto text = [&](std::string& target) {
            if (i + 1 >= argc) return false;
            target = argv[++i];
            return true;
        };
        bool ok = true;
        if (arg == "--devices")
            ok = number(options.devices);
        else if (arg == "--sources")
            ok = number(options.sources);
        else if (arg == "--logs")
            ok = number(options.logs);
        else if (arg == "--lines")
            ok = number(options.lines);
        else if (arg == "--lines-per-request")
            ok = number(options.linesPerRequest);
        else if (arg == "--line-bytes")
            ok = number(options.lineBytes) && options.lineBytes >= 64;
        else if (arg == "--window")
            ok = number(options.window);
        else if (arg == "--lone-requests")
            ok = number(options.loneRequests);
        else if (arg == "--lone-lines")
            ok = number(options.loneLines);
        else if (arg == "--daemon")
            ok = text(options.daemon);
        else if (arg == "--stdout")
            ok = text(options.stdoutFile);
        else if (arg == "--keep")
            options.keep = true;
        else
            ok = false;
        if (!ok) {
            std::fprintf(stderr, "e2e_bench: bad option %s\n", arg.c_str());
            return false;
        }
    }
    return true;
}

// How a device's lines are spread: `logs` logs, each receiving `linesPerLog` lines in
// requests of `linesPerRequest`, round-robin.
struct Spread {
    int logs = 0;
    int linesPerLog = 0;
    int linesPerRequest = 0;

    int requests() const { return linesPerLog / linesPerRequest * logs; }
    std::size_t bytesPerLog(int lineBytes) const {
        return static_cast<std::size_t>(linesPerLog) * static_cast<std::size_t>(lineBytes);
    }
};

// Spreads `lines` over `logs` logs (rounded up to whole requests), or, when `logs` is
// 0, over as few logs (a multiple of `unit`, at least `least`) as keep each log within
// kMaxBytesPerLog.
Spread spread(int lines, int linesPerRequest, int lineBytes, int logs, int unit, int least) {
    auto make = [&](int n) {
        Spread s;
        s.logs = n;
        s.linesPerRequest = linesPerRequest;
        const int requestsPerLog = (lines + n * linesPerRequest - 1) / (n * linesPerRequest);
        s.linesPerLog = requestsPerLog * linesPerRequest;
        return s;
    };
    if (logs > 0) return make(logs);
    int n = std::max(unit, (least + unit - 1) / unit * unit);
    while (make(n).bytesPerLog(lineBytes) > kMaxBytesPerLog &&
           make(n).linesPerLog > linesPerRequest)
        n += unit;
    return make(n);
}

double oleDateNow() { return static_cast<double>(std::time(nullptr)) / 86400.0 + 25569.0; }

VARIANT bstr(const std::string& text) {
    VARIANT v;
    VariantInit(&v);
    v.vt = VT_BSTR;
    v.bstrVal = SysAllocStringLen(text.data(), static_cast<unsigned int>(text.size()));
    return v;
}

KibVariantHolder variantArray(std::vector<VARIANT> elements) {
    SAFEARRAY* array =
        SafeArrayCreateVector(VT_VARIANT, 0, static_cast<std::uint32_t>(elements.size()));
    std::copy(elements.begin(), elements.end(), static_cast<VARIANT*>(array->pvData));
    VARIANT v;
    VariantInit(&v);
    v.vt = VT_ARRAY | VT_VARIANT;
    v.parray = array;
    return KibVariantHolder::adopt(v);
}

std::string encodeRequest(const std::string& caller, const VARIANT& value) {
    std::string frame;
    std::string error;
    if (KibCodec::encodeRequest(caller, value, frame, error) != KIB_OK) {
        std::fprintf(stderr, "e2e_bench: cannot encode a request: %s\n", error.c_str());
        std::exit(1);
    }
    return frame;
}

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
    fs::path file;                    // relative to the logs folder
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

struct Phase {
    std::mutex lock;
    std::condition_variable done;
    int devicesLeft = 0;
};
Phase g_phase;

bool acceptCollectorReply(const char* data, int size) {
    KibReply reply;
    std::string error;
    if (KibCodec::decodeReply(data, static_cast<std::size_t>(size), reply, error) != KIB_OK)
        return false;
    return reply.status == 0 && !reply.failed();
}

bool acceptEcho(const char*, int size) { return size > 0; }

// Sends the device's next request, to its logs in turn; the device's lock is held.
void sendNext(Device& device) {
    const int n = device.sent++;
    const std::size_t logs = device.logs.size();
    const std::vector<std::string>& pool = device.logs[static_cast<std::size_t>(n) % logs].frames;
    const std::string& frame = pool[(static_cast<std::size_t>(n) / logs) % pool.size()];
    const std::string reply = device.inbox + std::to_string(n);
    device.sentAt[static_cast<std::size_t>(n)] = Clock::now();
    natsConnection_PublishRequest(device.connection, device.subject.c_str(), reply.c_str(),
                                  frame.data(), static_cast<int>(frame.size()));
}

void onReply(natsConnection*, natsSubscription*, natsMsg* message, void* closure) {
    Device& device = *static_cast<Device*>(closure);
    const Clock::time_point now = Clock::now();
    const char* subject = natsMsg_GetSubject(message);
    const int n = std::atoi(subject + device.inbox.size());
    bool finished = false;
    {
        std::lock_guard<std::mutex> guard(device.lock);
        if (n >= 0 && n < device.sent) {
            device.latencyMs.push_back(std::chrono::duration<double, std::milli>(
                                           now - device.sentAt[static_cast<std::size_t>(n)])
                                           .count());
            if (!device.accept(natsMsg_GetData(message), natsMsg_GetDataLength(message)))
                ++device.failed;
            ++device.answered;
            if (device.sent < device.total) sendNext(device);
            finished = device.answered == device.total;
        }
    }
    natsMsg_Destroy(message);
    if (finished) {
        std::lock_guard<std::mutex> guard(g_phase.lock);
        if (--g_phase.devicesLeft == 0) g_phase.done.notify_all();
    }
}

natsConnection* connect(int port) {
    natsOptions* options = nullptr;
    natsOptions_Create(&options);
    natsOptions_SetURL(options, ("nats://127.0.0.1:" + std::to_string(port)).c_str());
    natsOptions_SetSendAsap(options, true);
    natsConnection* connection = nullptr;
    const natsStatus status = natsConnection_Connect(&connection, options);
    natsOptions_Destroy(options);
    if (status != NATS_OK) {
        std::fprintf(stderr, "e2e_bench: cannot connect to the bus: %s\n",
                     natsStatus_GetText(status));
        std::exit(1);
    }
    return connection;
}

struct PhaseResult {
    double seconds = 0;  // first request to last reply
    int requests = 0;
    int failed = 0;
    double p50 = 0;
    double p99 = 0;
};

double percentile(std::vector<double>& sorted, double p) {
    if (sorted.empty()) return 0;
    const std::size_t i = std::min(
        sorted.size() - 1, static_cast<std::size_t>(p * static_cast<double>(sorted.size())));
    return sorted[i];
}

// Sends `requests` requests from each device to `subject`, `window` in flight per device.
PhaseResult runPhase(std::vector<std::unique_ptr<Device>>& devices, const std::string& subject,
                     int requests, int window, bool (*accept)(const char*, int)) {
    {
        std::lock_guard<std::mutex> guard(g_phase.lock);
        g_phase.devicesLeft = static_cast<int>(devices.size());
    }
    for (auto& device : devices) {
        std::lock_guard<std::mutex> guard(device->lock);
        device->subject = subject;
        device->total = requests;
        device->sent = device->answered = device->failed = 0;
        device->sentAt.assign(static_cast<std::size_t>(requests), Clock::time_point());
        device->latencyMs.clear();
        device->latencyMs.reserve(static_cast<std::size_t>(requests));
        device->accept = accept;
    }
    const Clock::time_point start = Clock::now();
    for (auto& device : devices) {
        std::lock_guard<std::mutex> guard(device->lock);
        for (int i = 0; i < window && device->sent < device->total; ++i) sendNext(*device);
    }
    {
        std::unique_lock<std::mutex> guard(g_phase.lock);
        if (!g_phase.done.wait_for(guard, kPhaseTimeout, [] { return g_phase.devicesLeft == 0; })) {
            std::fprintf(stderr, "e2e_bench: replies missing after %lld s (requests dropped?)\n",
                         static_cast<long long>(kPhaseTimeout.count()));
            std::exit(1);
        }
    }
    PhaseResult result;
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::vector<double> latencies;
    for (auto& device : devices) {
        std::lock_guard<std::mutex> guard(device->lock);
        result.requests += device->answered;
        result.failed += device->failed;
        latencies.insert(latencies.end(), device->latencyMs.begin(), device->latencyMs.end());
    }
    std::sort(latencies.begin(), latencies.end());
    result.p50 = percentile(latencies, 0.50);
    result.p99 = percentile(latencies, 0.99);
    return result;
}

std::string line(const Log& log, int number, int bytes) {
    char head[160];
    std::snprintf(head, sizeof head, "2026/11/22 10:%02d:%02d %s %s line %06d ", number / 60 % 60,
                  number % 60, log.source->deviceId.c_str(), log.name.c_str(), number);
    std::string text(head);
    text.resize(static_cast<std::size_t>(bytes) - 1, 'x');
    text += '\n';
    return text;
}

// A device with `sources` sources of `logsPerSource` logs each, whose requests carry
// `linesPerRequest` lines; connected and listening for its replies.
std::unique_ptr<Device> makeDevice(int index, int sources, int logsPerSource, int linesPerRequest,
                                   int lineBytes, int port) {
    auto device = std::make_unique<Device>();
    device->index = index;
    device->caller = "bench-d" + std::to_string(index);
    const double now = oleDateNow();
    for (int s = 0; s < sources; ++s) {
        auto source = std::make_unique<Source>();
        char mac[32];  // unique per device and source
        std::snprintf(mac, sizeof mac, "02:00:%02x:%02x:%02x:%02x", index >> 8 & 255, index & 255,
                      s >> 8 & 255, s & 255);
        source->mac = mac;
        source->deviceId = sources == 1 ? device->caller : device->caller + "s" + std::to_string(s);
        std::string macDigits = source->mac;
        macDigits.erase(std::remove(macDigits.begin(), macDigits.end(), ':'), macDigits.end());
        for (int l = 0; l < logsPerSource; ++l) {
            Log log;
            log.source = source.get();
            log.name = "log" + std::to_string(l) + ".log";
            // The collector's file: device id, MAC address without colons, "-", log name.
            log.file = source->deviceId + macDigits + "-" + log.name;
            for (int f = 0; f < kFramesPerLog; ++f) {
                std::string content;
                for (int k = 0; k < linesPerRequest; ++k)
                    content += line(log, f * linesPerRequest + k, lineBytes);
                VARIANT date;
                VariantInit(&date);
                date.vt = VT_DATE;
                date.date = now;
                KibVariantHolder value =
                    variantArray({bstr(source->mac), bstr(log.name), bstr(content), date});
                log.frames.push_back(encodeRequest(device->caller, value.get()));
            }
            source->logNames.push_back(log.name);
            device->logs.push_back(std::move(log));
        }
        device->sources.push_back(std::move(source));
    }

    device->connection = connect(port);
    device->inbox = "_INBOX.e2e." + std::to_string(index) + ".";
    if (natsConnection_Subscribe(&device->replies, device->connection,
                                 (device->inbox + "*").c_str(), &onReply,
                                 device.get()) != NATS_OK ||
        natsSubscription_SetPendingLimits(device->replies, -1, -1) != NATS_OK) {
        std::fprintf(stderr, "e2e_bench: cannot subscribe to replies\n");
        std::exit(1);
    }
    natsConnection_Flush(device->connection);
    return device;
}

void closeDevice(Device& device) {
    natsSubscription_Unsubscribe(device.replies);
    natsSubscription_Destroy(device.replies);
    natsConnection_Destroy(device.connection);
}

// Announces one source; retries while the collector's service is not there yet.
bool announce(Device& device, const Source& source, pid_t daemon) {
    SAFEARRAY* names =
        SafeArrayCreateVector(VT_BSTR, 0, static_cast<std::uint32_t>(source.logNames.size()));
    for (std::size_t i = 0; i < source.logNames.size(); ++i)
        static_cast<BSTR*>(names->pvData)[i] = SysAllocString(source.logNames[i].c_str());
    VARIANT list;
    VariantInit(&list);
    list.vt = VT_ARRAY | VT_BSTR;
    list.parray = names;
    VARIANT date;
    VariantInit(&date);
    date.vt = VT_DATE;
    date.date = oleDateNow();
    KibVariantHolder value =
        variantArray({bstr(source.mac), bstr(source.deviceId), bstr("Bench device"), date, list});
    const std::string frame = encodeRequest(device.caller, value.get());
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    while (Clock::now() < deadline) {
        natsMsg* reply = nullptr;
        const natsStatus status =
            natsConnection_Request(&reply, device.connection, kSetSourceSubject, frame.data(),
                                   static_cast<int>(frame.size()), 2000);
        if (status == NATS_OK) {
            const bool ok =
                acceptCollectorReply(natsMsg_GetData(reply), natsMsg_GetDataLength(reply));
            natsMsg_Destroy(reply);
            return ok;
        }
        if (::waitpid(daemon, nullptr, WNOHANG) == daemon) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

bool announceAll(std::vector<std::unique_ptr<Device>>& devices, pid_t daemon) {
    for (auto& device : devices) {
        for (const auto& source : device->sources) {
            if (!announce(*device, *source, daemon)) return false;
        }
    }
    return true;
}

void echo(natsConnection* connection, natsSubscription*, natsMsg* message, void*) {
    natsConnection_Publish(connection, natsMsg_GetReply(message), natsMsg_GetData(message),
                           natsMsg_GetDataLength(message));
    natsMsg_Destroy(message);
}

std::vector<fs::path> filesOf(const fs::path& logs,
                              const std::vector<std::unique_ptr<Device>>& devices) {
    std::vector<fs::path> files;
    for (const auto& device : devices)
        for (const Log& log : device->logs) files.push_back(logs / log.file);
    return files;
}

void writeFile(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }

double mib(long kib) { return static_cast<double>(kib) / 1024.0; }

void printUsage(const char* when, const ProcessUsage& usage) {
    std::printf("  %-30s %6d threads %7d open files %8.1f MiB resident (peak %.1f)\n", when,
                usage.threads, usage.openFiles, mib(usage.residentKiB), mib(usage.peakResidentKiB));
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        usage();
        return 0;
    }
    if (!parseOptions(argc, argv, options)) {
        usage();
        return 64;
    }
    const Spread load = spread(options.lines, options.linesPerRequest, options.lineBytes,
                               options.logs * options.sources, options.sources, 4);
    if (load.bytesPerLog(options.lineBytes) > kMaxBytesPerLog) {
        std::fprintf(stderr,
                     "e2e_bench: each log would get %zu bytes (%d lines of %d bytes), more than "
                     "the %zu bytes per log that rotation keeps; give more --logs (or leave it "
                     "out) or fewer --lines\n",
                     load.bytesPerLog(options.lineBytes), load.linesPerLog, options.lineBytes,
                     kMaxBytesPerLog);
        return 64;
    }
    const Spread lone = spread(options.loneRequests * options.loneLines, options.loneLines,
                               options.lineBytes, 0, 1, 1);
    if (lone.bytesPerLog(options.lineBytes) > kMaxBytesPerLog) {
        std::fprintf(stderr,
                     "e2e_bench: one lone request of %d lines of %d bytes is more than the %zu "
                     "bytes per log that rotation keeps; give fewer --lone-lines\n",
                     options.loneLines, options.lineBytes, kMaxBytesPerLog);
        return 64;
    }
    const int logsPerSource = load.logs / options.sources;
    const int totalLogs = options.devices * load.logs + lone.logs;
    const int maxLogSources = std::max(kDefaultMaxLogSources, totalLogs);

    char folderTemplate[] = "/tmp/nimb-e2e-XXXXXX";
    if (!::mkdtemp(folderTemplate)) {
        std::perror("e2e_bench: mkdtemp");
        return 1;
    }
    const fs::path folder = folderTemplate;
    const fs::path logs = folder / "logs";
    fs::create_directories(folder / "config" / "pellix");
    fs::create_directories(logs);
    fs::create_directories(folder / "dumps");

    NatsServer nats;
    writeFile(folder / "config/pellix/com.pellix.nimb.json",
              "{\"LogsDir\": \"" + logs.string() + "\", \"LogLevel\": 1}\n");
    writeFile(folder / "config/pellix/com.pellix.nimb.config.json",
              "{\"kibDirectory.host\": \"127.0.0.1:" + std::to_string(nats.port()) +
                  "\", \"MaxLogSources\": " + std::to_string(maxLogSources) + "}\n");
    ::setenv("XDG_CONFIG_HOME", (folder / "config").c_str(), 1);
    ::setenv("TMPDIR", (folder / "dumps").c_str(), 1);

    // Start-up: from the fork to the "connected" line in the collector's own log.
    const Clock::time_point launched = Clock::now();
    const pid_t daemon = startDaemon(options.daemon, options.stdoutFile, folder / "daemon.err");
    const bool connected =
        waitForText(logs / "NimbRemoteLogger.log", "connected", daemon, std::chrono::seconds(30));
    const double startupMs =
        std::chrono::duration<double, std::milli>(Clock::now() - launched).count();
    if (!connected) {
        std::fprintf(stderr, "e2e_bench: the collector did not connect (see %s)\n",
                     (folder / "daemon.err").c_str());
        return 1;
    }
    const ProcessUsage atRest = processUsage(daemon);

    std::vector<std::unique_ptr<Device>> devices;
    for (int d = 0; d < options.devices; ++d) {
        devices.push_back(makeDevice(d, options.sources, logsPerSource, options.linesPerRequest,
                                     options.lineBytes, nats.port()));
    }
    std::vector<std::unique_ptr<Device>> loneDevice;
    loneDevice.push_back(makeDevice(options.devices, 1, lone.logs, options.loneLines,
                                    options.lineBytes, nats.port()));
    const Clock::time_point announceStart = Clock::now();
    if (!announceAll(devices, daemon) || !announceAll(loneDevice, daemon)) {
        std::fprintf(stderr, "e2e_bench: SetLogSource failed (see %s)\n",
                     (folder / "daemon.err").c_str());
        return 1;
    }
    const double announceSeconds =
        std::chrono::duration<double>(Clock::now() - announceStart).count();

    // Collector, under load, until every line is in the files.
    const ProcessUsage before = processUsage(daemon);
    const Clock::time_point start = Clock::now();
    const PhaseResult collector =
        runPhase(devices, kAppendSubject, load.requests(), options.window, &acceptCollectorReply);
    const bool complete =
        waitForLines(filesOf(logs, devices), static_cast<std::size_t>(load.linesPerLog) + 2,
                     std::chrono::seconds(60));
    const double inFiles = std::chrono::duration<double>(Clock::now() - start).count();
    const ProcessUsage after = processUsage(daemon);
    const PhaseResult collectorLone =
        runPhase(loneDevice, kAppendSubject, lone.requests(), 1, &acceptCollectorReply);
    const bool loneComplete =
        waitForLines(filesOf(logs, loneDevice), static_cast<std::size_t>(lone.linesPerLog) + 2,
                     std::chrono::seconds(30));
    const ProcessUsage peak = processUsage(daemon);

    // The bare transport with the same frames, the same devices and the same window.
    natsConnection* echoConnection = connect(nats.port());
    natsSubscription* echoSubscription = nullptr;
    natsConnection_QueueSubscribe(&echoSubscription, echoConnection, kEchoSubject, "echo", &echo,
                                  nullptr);
    natsSubscription_SetPendingLimits(echoSubscription, -1, -1);
    natsConnection_Flush(echoConnection);
    const PhaseResult bare =
        runPhase(devices, kEchoSubject, load.requests(), options.window, &acceptEcho);
    const PhaseResult bareLone =
        runPhase(loneDevice, kEchoSubject, lone.requests(), 1, &acceptEcho);

    for (auto& device : devices) closeDevice(*device);
    closeDevice(*loneDevice.front());
    natsSubscription_Destroy(echoSubscription);
    natsConnection_Destroy(echoConnection);
    const int exitStatus = stopDaemon(daemon);

    const double lines = static_cast<double>(load.linesPerLog) * load.logs * options.devices;
    const double requests = static_cast<double>(load.requests()) * options.devices;
    const double megabytes = lines * options.lineBytes / 1e6;
    const double bareLinesPerSecond = lines / bare.seconds;
    std::printf(
        "e2e ingest: %d devices x %d sources x %d logs, %d lines of %d bytes per log, %d lines "
        "per request, %d requests in flight per device; lone requests: %d of %d lines over %d "
        "logs\n",
        options.devices, options.sources, logsPerSource, load.linesPerLog, options.lineBytes,
        options.linesPerRequest, options.window, lone.requests(), options.loneLines, lone.logs);
    std::printf("%-34s %11s %8s %9s %9s\n", "", "lines/s", "MB/s", "p50 ms", "p99 ms");
    std::printf("%-34s %11.0f %8.1f %9.3f %9.3f\n", "collector, until in the files",
                lines / inFiles, megabytes / inFiles, collector.p50, collector.p99);
    std::printf("%-34s %11.0f %8.1f %9s %9s\n", "collector, until acknowledged",
                lines / collector.seconds, megabytes / collector.seconds, "", "");
    std::printf("%-34s %11.0f %8.1f %9.3f %9.3f\n", "bare NATS echo, same frames",
                bareLinesPerSecond, megabytes / bare.seconds, bare.p50, bare.p99);
    const double loneLineCount = static_cast<double>(lone.requests()) * options.loneLines;
    std::printf("%-34s %11.0f %8s %9.3f %9.3f\n", "one request in flight: collector",
                loneLineCount / collectorLone.seconds, "", collectorLone.p50, collectorLone.p99);
    std::printf("%-34s %11.0f %8s %9.3f %9.3f\n", "one request in flight: bare NATS",
                loneLineCount / bareLone.seconds, "", bareLone.p50, bareLone.p99);
    std::printf(
        "ratios: collector / bare NATS: time for the same requests %.2fx, lone request p50 "
        "%.2fx\n",
        inFiles / bare.seconds, collectorLone.p50 / bareLone.p50);
    const double cpu = after.cpuSeconds() - before.cpuSeconds();
    const double switches = static_cast<double>(after.contextSwitches - before.contextSwitches);
    std::printf(
        "collector process under load: %.2f s CPU (user %.2f, system %.2f) over %.2f s = %.0f%% "
        "of one core; %.2f us CPU per line, %.1f us per request; %.2f context switches per "
        "request\n",
        cpu, after.userSeconds - before.userSeconds, after.systemSeconds - before.systemSeconds,
        inFiles, 100.0 * cpu / inFiles, 1e6 * cpu / lines, 1e6 * cpu / requests,
        switches / requests);
    std::printf("collector start-up to \"connected\": %.1f ms; %d logs announced in %.2f s\n",
                startupMs, totalLogs, announceSeconds);
    printUsage("after start-up:", atRest);
    printUsage("after announcing:", before);
    printUsage("after the load:", after);
    printUsage("after the lone requests:", peak);
    const int failures = collector.failed + collectorLone.failed + bare.failed + bareLone.failed;
    const bool exitedCleanly = WIFEXITED(exitStatus) && WEXITSTATUS(exitStatus) == 0;
    std::printf("checks: %s lines in the files, %d failed replies, collector %s\n",
                complete && loneComplete ? "all" : "NOT all", failures,
                exitedCleanly ? "exited with 0" : "did NOT exit cleanly");
    // One line for scripts.
    std::printf(
        "summary: lines=%.0f collector_lines_per_s=%.0f collector_cpu_us_per_line=%.3f "
        "collector_cpu_us_per_request=%.2f context_switches_per_request=%.2f "
        "echo_lines_per_s=%.0f lone_p50_ms=%.3f echo_lone_p50_ms=%.3f startup_ms=%.1f "
        "peak_rss_mib=%.1f threads=%d open_files=%d\n",
        lines, lines / inFiles, 1e6 * cpu / lines, 1e6 * cpu / requests, switches / requests,
        bareLinesPerSecond, collectorLone.p50, bareLone.p50, startupMs, mib(peak.peakResidentKiB),
        after.threads, after.openFiles);
    if (options.keep) {
        std::printf("run folder kept: %s\n", folder.c_str());
    } else {
        std::error_code ignored;
        fs::remove_all(folder, ignored);
    }
    return complete && loneComplete && failures == 0 && exitedCleanly ? 0 : 1;
}
