// SPDX-License-Identifier: MIT
#include "E2eDevices.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

#include <sys/wait.h>

#include "KibCodec.h"
#include "KibVariant.h"
#include "KibVariantHolder.h"

namespace fs = std::filesystem;

namespace e2e {

namespace {

const std::string kSetSourceSubject = KibSubjects::service("RemoteLogger", "SetLogSource");
constexpr int kFramesPerLog = 8;
constexpr auto kPhaseTimeout = std::chrono::seconds(120);

}  // namespace

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

std::unique_ptr<Device> makeDevice(int index, int sources, int fewestLogs, int mostLogs,
                                   int linesPerRequest, int lineBytes, int port) {
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
        const int logs = logsOf(s, fewestLogs, mostLogs);
        for (int l = 0; l < logs; ++l) {
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

}  // namespace e2e
