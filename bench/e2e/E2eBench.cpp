// SPDX-License-Identifier: MIT
// End-to-end ingest benchmark of the collector, run by hand (see docs/operations.md).
//
// Starts its own nats-server on a free loopback port and the real NimbRemoteLogger with
// a private settings home, logs folder and dump folder. Simulated devices (one NATS
// connection each, as a device would have) announce their logs with "SetLogSource" and
// push lines with "AppendLog", keeping a fixed number of requests in flight per device;
// the clock stops when every line is in the log files (counted in each file and its
// ".back"). The same frames are then sent, the same way, to a bare NATS echo responder:
// the floor that the bus transport alone costs, for the overhead ratio. Finally one
// request at a time is sent to each, for the latency of a lone request.
//
// The collector rotates a log at 512 KiB and keeps one ".back", so a log that received
// more than twice that would lose lines to a second rotation: the run refuses sizes
// above 960 KiB per log; use more devices or logs for a longer run.
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
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <nats/nats.h>

#include "KibCodec.h"
#include "KibSubjects.h"
#include "KibVariant.h"
#include "KibVariantHolder.h"
#include "NatsServer.h"
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

const std::string kAppendSubject = KibSubjects::service("RemoteLogger", "AppendLog");
const std::string kSetSourceSubject = KibSubjects::service("RemoteLogger", "SetLogSource");
constexpr const char* kEchoSubject = "bench.e2e.echo";
constexpr std::size_t kMaxBytesPerLog = 960 * 1024;
constexpr int kFramesPerLog = 8;
constexpr int kLoneRequests = 1000;
constexpr auto kPhaseTimeout = std::chrono::seconds(120);

struct Options {
    int devices = 8;
    int logs = 4;
    int linesPerLog = 6000;
    int linesPerRequest = 4;
    int lineBytes = 120;
    int window = 32;
    std::string daemon = NIMB_E2E_DAEMON;
    std::string stdoutFile;
    bool keep = false;
};

void usage() {
    std::printf(
        "usage: e2e_bench [--devices N] [--logs N] [--lines N] [--lines-per-request N]\n"
        "                 [--line-bytes N] [--window N] [--daemon PATH] [--stdout FILE] [--keep]\n"
        "  --devices N            simulated devices, one bus connection each (8)\n"
        "  --logs N               logs per device (4)\n"
        "  --lines N              lines pushed into each log (6000)\n"
        "  --lines-per-request N  lines in one AppendLog request (4)\n"
        "  --line-bytes N         bytes of one line, newline included (120)\n"
        "  --window N             requests in flight per device (32)\n"
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
        bool ok = true;
        if (arg == "--devices")
            ok = number(options.devices);
        else if (arg == "--logs")
            ok = number(options.logs);
        else if (arg == "--lines")
            ok = number(options.linesPerLog);
        else if (arg == "--lines-per-request")
            ok = number(options.linesPerRequest);
        else if (arg == "--line-bytes")
            ok = number(options.lineBytes);
        else if (arg == "--window")
            ok = number(options.window);
        else if (arg == "--daemon" && i + 1 < argc)
            options.daemon = argv[++i];
        else if (arg == "--keep")
            options.keep = true;
        else
            ok = false;
        if (!ok) return false;
    }
    return options.lineBytes >= 64;
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

// One simulated device: its connection, its logs' frames and its in-flight bookkeeping.
struct Device {
    int index = 0;
    std::string caller;
    std::string deviceId;
    std::string mac;
    std::vector<std::string> logNames;
    std::vector<std::vector<std::string>> frames;  // [log][variant], encoded AppendLog

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

// Sends the device's next request; the device's lock is held.
void sendNext(Device& device) {
    const int n = device.sent++;
    const std::size_t logs = device.frames.size();
    const std::vector<std::string>& pool = device.frames[static_cast<std::size_t>(n) % logs];
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

std::string line(const Device& device, int log, int number, int bytes) {
    char head[160];
    std::snprintf(head, sizeof head, "2026/11/22 10:%02d:%02d %s %s line %06d ", number / 60 % 60,
                  number % 60, device.deviceId.c_str(),
                  device.logNames[static_cast<std::size_t>(log)].c_str(), number);
    std::string text(head);
    text.resize(static_cast<std::size_t>(bytes) - 1, 'x');
    text += '\n';
    return text;
}

std::unique_ptr<Device> makeDevice(int index, int logs, const Options& options, int port) {
    auto device = std::make_unique<Device>();
    device->index = index;
    char mac[32];
    std::snprintf(mac, sizeof mac, "02:00:00:00:%02x:%02x", index / 256, index % 256);
    device->mac = mac;
    device->deviceId = "bench-d" + std::to_string(index);
    device->caller = device->deviceId;
    for (int l = 0; l < logs; ++l) device->logNames.push_back("log" + std::to_string(l) + ".log");

    const double now = oleDateNow();
    for (int l = 0; l < logs; ++l) {
        std::vector<std::string> pool;
        for (int f = 0; f < kFramesPerLog; ++f) {
            std::string content;
            for (int k = 0; k < options.linesPerRequest; ++k)
                content += line(*device, l, f * options.linesPerRequest + k, options.lineBytes);
            VARIANT date;
            VariantInit(&date);
            date.vt = VT_DATE;
            date.date = now;
            KibVariantHolder value = variantArray(
                {bstr(device->mac), bstr(device->logNames[static_cast<std::size_t>(l)]),
                 bstr(content), date});
            pool.push_back(encodeRequest(device->caller, value.get()));
        }
        device->frames.push_back(std::move(pool));
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

// Announces the device's logs; retries while the collector's service is not there yet.
bool announce(Device& device, pid_t daemon) {
    SAFEARRAY* names =
        SafeArrayCreateVector(VT_BSTR, 0, static_cast<std::uint32_t>(device.logNames.size()));
    for (std::size_t i = 0; i < device.logNames.size(); ++i)
        static_cast<BSTR*>(names->pvData)[i] = SysAllocString(device.logNames[i].c_str());
    VARIANT list;
    VariantInit(&list);
    list.vt = VT_ARRAY | VT_BSTR;
    list.parray = names;
    VARIANT date;
    VariantInit(&date);
    date.vt = VT_DATE;
    date.date = oleDateNow();
    KibVariantHolder value =
        variantArray({bstr(device.mac), bstr(device.deviceId), bstr("Bench device"), date, list});
    const std::string frame = encodeRequest(device.caller, value.get());
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    while (Clock::now() < deadline) {
        natsMsg* reply = nullptr;
        const natsStatus status =
            natsConnection_Request(&reply, device.connection, kSetSourceSubject.c_str(),
                                   frame.data(), static_cast<int>(frame.size()), 2000);
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

void echo(natsConnection* connection, natsSubscription*, natsMsg* message, void*) {
    natsConnection_Publish(connection, natsMsg_GetReply(message), natsMsg_GetData(message),
                           natsMsg_GetDataLength(message));
    natsMsg_Destroy(message);
}

std::size_t countNewlines(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return 0;
    std::size_t count = 0;
    char buffer[1 << 16];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0)
        count += static_cast<std::size_t>(std::count(buffer, buffer + n, '\n'));
    ::close(fd);
    return count;
}

// The file a device's log is kept in: device id, MAC address without colons, "-", log name.
fs::path logFile(const fs::path& logs, const Device& device, int log) {
    std::string mac = device.mac;
    mac.erase(std::remove(mac.begin(), mac.end(), ':'), mac.end());
    return logs / (device.deviceId + mac + "-" + device.logNames[static_cast<std::size_t>(log)]);
}

// Waits until every log holds its header (two newlines) and `lines` lines, counting
// each file with its ".back". Returns false after `timeout`.
bool waitForLines(const fs::path& logs, const std::vector<std::unique_ptr<Device>>& devices,
                  std::size_t lines, std::chrono::seconds timeout) {
    struct Pending {
        fs::path file;
        bool done = false;
    };
    std::vector<Pending> pending;
    for (const auto& device : devices)
        for (std::size_t l = 0; l < device->logNames.size(); ++l)
            pending.push_back({logFile(logs, *device, static_cast<int>(l))});
    const Clock::time_point deadline = Clock::now() + timeout;
    for (;;) {
        bool all = true;
        for (Pending& p : pending) {
            if (p.done) continue;
            fs::path back = p.file;
            back += ".back";
            const std::size_t found = countNewlines(p.file) + countNewlines(back);
            if (found > lines + 2) {
                std::fprintf(stderr, "e2e_bench: %s holds %zu lines, more than the %zu sent\n",
                             p.file.c_str(), found, lines + 2);
                return false;
            }
            p.done = found == lines + 2;
            all = all && p.done;
        }
        if (all) return true;
        if (Clock::now() > deadline) {
            for (const Pending& p : pending)
                if (!p.done) std::fprintf(stderr, "e2e_bench: %s is incomplete\n", p.file.c_str());
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

struct ProcessUsage {
    double cpuSeconds = 0;
    double userSeconds = 0;
    double systemSeconds = 0;
    long peakKiB = 0;
};

ProcessUsage processUsage(pid_t pid) {
    ProcessUsage result;
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const std::size_t paren = text.rfind(')');
    if (paren != std::string::npos) {
        std::istringstream fields(text.substr(paren + 2));
        std::string field;
        unsigned long long utime = 0;
        unsigned long long stime = 0;
        // Fields after the name start with the state (field 3); utime and stime are 14, 15.
        for (int i = 3; i <= 15 && (fields >> field); ++i) {
            if (i == 14) utime = std::stoull(field);
            if (i == 15) stime = std::stoull(field);
        }
        const double tick = static_cast<double>(::sysconf(_SC_CLK_TCK));
        result.userSeconds = static_cast<double>(utime) / tick;
        result.systemSeconds = static_cast<double>(stime) / tick;
        result.cpuSeconds = result.userSeconds + result.systemSeconds;
    }
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string row;
    while (std::getline(status, row))
        if (row.rfind("VmHWM:", 0) == 0) result.peakKiB = std::atol(row.c_str() + 6);
    return result;
}

// The collector echoes every line it writes (pushed text included) to its standard
// output; like the system service, the run discards it unless `output` names a file.
pid_t startDaemon(const std::string& path, const std::string& output, const fs::path& errors) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int out = ::open(output.empty() ? "/dev/null" : output.c_str(),
                               O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        ::execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    return pid;
}

int stopDaemon(pid_t pid) {
    ::kill(pid, SIGTERM);
    int status = 0;
    for (int i = 0; i < 200; ++i) {
        if (::waitpid(pid, &status, WNOHANG) == pid) return status;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
    return status;
}

void writeFile(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }

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
    options.linesPerLog = (options.linesPerLog + options.linesPerRequest - 1) /
                          options.linesPerRequest * options.linesPerRequest;
    const int requestsPerDevice = options.linesPerLog / options.linesPerRequest * options.logs;
    const std::size_t bytesPerLog =
        static_cast<std::size_t>(options.linesPerLog) * static_cast<std::size_t>(options.lineBytes);
    const std::size_t loneLines =
        static_cast<std::size_t>(kLoneRequests) * static_cast<std::size_t>(options.linesPerRequest);
    if (bytesPerLog > kMaxBytesPerLog ||
        loneLines * static_cast<std::size_t>(options.lineBytes) > kMaxBytesPerLog) {
        std::fprintf(
            stderr,
            "e2e_bench: %zu bytes per log would rotate a log twice and lose lines (at most "
            "%zu); use more devices or logs instead\n",
            bytesPerLog, kMaxBytesPerLog);
        return 64;
    }

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
              "{\"kibDirectory.host\": \"127.0.0.1:" + std::to_string(nats.port()) + "\"}\n");
    ::setenv("XDG_CONFIG_HOME", (folder / "config").c_str(), 1);
    ::setenv("TMPDIR", (folder / "dumps").c_str(), 1);

    const pid_t daemon = startDaemon(options.daemon, options.stdoutFile, folder / "daemon.err");

    std::vector<std::unique_ptr<Device>> devices;
    for (int d = 0; d < options.devices; ++d)
        devices.push_back(makeDevice(d, options.logs, options, nats.port()));
    std::vector<std::unique_ptr<Device>> lone;
    lone.push_back(makeDevice(options.devices, 1, options, nats.port()));
    for (auto& device : devices) {
        if (!announce(*device, daemon)) {
            std::fprintf(stderr, "e2e_bench: SetLogSource failed (see %s)\n",
                         (folder / "daemon.out").c_str());
            return 1;
        }
    }
    if (!announce(*lone.front(), daemon)) return 1;

    // Collector, under load, until every line is in the files.
    const ProcessUsage before = processUsage(daemon);
    const Clock::time_point start = Clock::now();
    const PhaseResult collector =
        runPhase(devices, kAppendSubject, requestsPerDevice, options.window, &acceptCollectorReply);
    const bool complete = waitForLines(logs, devices, static_cast<std::size_t>(options.linesPerLog),
                                       std::chrono::seconds(60));
    const double inFiles = std::chrono::duration<double>(Clock::now() - start).count();
    const ProcessUsage after = processUsage(daemon);
    const PhaseResult collectorLone =
        runPhase(lone, kAppendSubject, kLoneRequests, 1, &acceptCollectorReply);
    const bool loneComplete = waitForLines(logs, lone, loneLines, std::chrono::seconds(30));
    const ProcessUsage peak = processUsage(daemon);

    // The bare transport with the same frames, the same devices and the same window.
    natsConnection* echoConnection = connect(nats.port());
    natsSubscription* echoSubscription = nullptr;
    natsConnection_QueueSubscribe(&echoSubscription, echoConnection, kEchoSubject, "echo", &echo,
                                  nullptr);
    natsSubscription_SetPendingLimits(echoSubscription, -1, -1);
    natsConnection_Flush(echoConnection);
    const PhaseResult bare =
        runPhase(devices, kEchoSubject, requestsPerDevice, options.window, &acceptEcho);
    const PhaseResult bareLone = runPhase(lone, kEchoSubject, kLoneRequests, 1, &acceptEcho);

    for (auto& device : devices) closeDevice(*device);
    closeDevice(*lone.front());
    natsSubscription_Destroy(echoSubscription);
    natsConnection_Destroy(echoConnection);
    const int exitStatus = stopDaemon(daemon);

    const double lines = static_cast<double>(options.linesPerLog) * options.logs * options.devices;
    const double megabytes = lines * options.lineBytes / 1e6;
    const double bareLinesPerSecond = lines / bare.seconds;
    std::printf(
        "e2e ingest: %d devices x %d logs, %d lines of %d bytes per log, %d lines per request, "
        "%d requests in flight per device\n",
        options.devices, options.logs, options.linesPerLog, options.lineBytes,
        options.linesPerRequest, options.window);
    std::printf("%-34s %11s %8s %9s %9s\n", "", "lines/s", "MB/s", "p50 ms", "p99 ms");
    std::printf("%-34s %11.0f %8.1f %9.3f %9.3f\n", "collector, until in the files",
                lines / inFiles, megabytes / inFiles, collector.p50, collector.p99);
    std::printf("%-34s %11.0f %8.1f %9s %9s\n", "collector, until acknowledged",
                lines / collector.seconds, megabytes / collector.seconds, "", "");
    std::printf("%-34s %11.0f %8.1f %9.3f %9.3f\n", "bare NATS echo, same frames",
                bareLinesPerSecond, megabytes / bare.seconds, bare.p50, bare.p99);
    const double loneLineCount = static_cast<double>(loneLines);
    std::printf("%-34s %11.0f %8s %9.3f %9.3f\n", "one request in flight: collector",
                loneLineCount / collectorLone.seconds, "", collectorLone.p50, collectorLone.p99);
    std::printf("%-34s %11.0f %8s %9.3f %9.3f\n", "one request in flight: bare NATS",
                loneLineCount / bareLone.seconds, "", bareLone.p50, bareLone.p99);
    std::printf(
        "overhead: the collector takes %.2fx the bare transport's time for the same requests\n",
        inFiles / bare.seconds);
    const double cpu = after.cpuSeconds - before.cpuSeconds;
    std::printf(
        "collector process: %.2f s CPU (user %.2f, system %.2f) over %.2f s = %.0f%% of one core, "
        "%.1f us CPU per line; peak resident memory (VmHWM) %.1f MiB\n",
        cpu, after.userSeconds - before.userSeconds, after.systemSeconds - before.systemSeconds,
        inFiles, 100.0 * cpu / inFiles, 1e6 * cpu / lines,
        static_cast<double>(peak.peakKiB) / 1024.0);
    const int failures = collector.failed + collectorLone.failed + bare.failed + bareLone.failed;
    const bool exitedCleanly = WIFEXITED(exitStatus) && WEXITSTATUS(exitStatus) == 0;
    std::printf("checks: %s lines in the files, %d failed replies, collector %s\n",
                complete && loneComplete ? "all" : "NOT all", failures,
                exitedCleanly ? "exited with 0" : "did NOT exit cleanly");
    if (options.keep) {
        std::printf("run folder kept: %s\n", folder.c_str());
    } else {
        std::error_code ignored;
        fs::remove_all(folder, ignored);
    }
    return complete && loneComplete && failures == 0 && exitedCleanly ? 0 : 1;
}
