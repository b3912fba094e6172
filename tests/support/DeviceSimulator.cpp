// SPDX-License-Identifier: MIT
#include "DeviceSimulator.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "KibReply.h"
#include "KibSatellite.h"
#include "KibVariantHolder.h"
#include "NimbTestSupport.h"
#include "StdString.h"
#include "VUtil.h"

namespace nimbtest {

namespace {

constexpr int kUnknownSourceStatus = 2;
constexpr auto kRetryPause = std::chrono::milliseconds(20);

std::string macAddress(int device) {
    char text[18];
    std::snprintf(text, sizeof text, "02:00:00:00:%02x:%02x", device / 256, device % 256);
    return text;
}

std::string deviceId(int device) { return "sim" + std::to_string(device) + "-"; }

std::string logName(int log) { return "log" + std::to_string(log) + ".log"; }

// A line's tag: "#<device>.<log>.<number> ".
std::string tagOf(int device, int log, int number) {
    return "#" + std::to_string(device) + "." + std::to_string(log) + "." + std::to_string(number) +
           " ";
}

}  // namespace

// Everything one log's sender and the check need; the ledger is written by the sender
// and read by check() after stop().
struct DeviceSimulator::Log {
    int device = 0;
    int index = 0;
    std::vector<unsigned char> attempts;  // per line: attempts until the success reply
    std::vector<bool> acknowledged;
};

struct DeviceSimulator::Device {
    int index = 0;
    KibSatellite bus;
    std::mutex announceMutex;
    int announcedGeneration = 0;  // guarded by announceMutex
    std::atomic<int> generation{1};
    std::vector<std::unique_ptr<Log>> logs;
};

DeviceSimulator::DeviceSimulator(Options options) : options_(std::move(options)) {}

DeviceSimulator::~DeviceSimulator() { stop(); }

std::string DeviceSimulator::fileName(int device, int log) {
    std::string mac = macAddress(device);
    mac.erase(std::remove(mac.begin(), mac.end(), ':'), mac.end());
    return deviceId(device) + mac + "-" + logName(log);
}

std::string DeviceSimulator::line(int device, int log, int number) {
    const std::string tag = tagOf(device, log, number);
    return tag + std::string(static_cast<std::size_t>(8 + number % 53), 'a' + number % 26) + "\n";
}

long DeviceSimulator::total() const {
    return static_cast<long>(options_.devices) * options_.logsPerDevice * options_.linesPerLog;
}

bool DeviceSimulator::start() {
    for (int d = 0; d < options_.devices; ++d) {
        auto device = std::make_unique<Device>();
        device->index = d;
        device->bus.setRequestTimeout(options_.timeoutMs);
        device->bus.setReconnectWait(50);
        if (device->bus.Connect(options_.host.c_str(), ("sim" + std::to_string(d)).c_str()) != 0)
            return false;
        for (int l = 0; l < options_.logsPerDevice; ++l) {
            auto log = std::make_unique<Log>();
            log->device = d;
            log->index = l;
            log->attempts.assign(static_cast<std::size_t>(options_.linesPerLog), 0);
            log->acknowledged.assign(static_cast<std::size_t>(options_.linesPerLog), false);
            device->logs.push_back(std::move(log));
        }
        devices_.push_back(std::move(device));
    }
    for (auto& device : devices_) {
        for (auto& log : device->logs) {
            senders_.emplace_back([this, &device, &log] { sendAll(*device, *log); });
        }
    }
    return true;
}

void DeviceSimulator::stop() {
    stopping_ = true;
    for (std::thread& sender : senders_) sender.join();
    senders_.clear();
}

// [MAC address, device id, name, device time, [every log of the device]]. Once per
// generation: a sender that met "unknown source" starts a new one.
bool DeviceSimulator::announce(Device& device) {
    const std::lock_guard<std::mutex> lock(device.announceMutex);
    const int generation = device.generation.load();
    if (device.announcedGeneration == generation) return true;
    KibVariantHolder names;
    VUtil::CreateArray(names.edit(), VT_BSTR, static_cast<unsigned long>(options_.logsPerDevice));
    for (int l = 0; l < options_.logsPerDevice; ++l)
        VUtil::PutElement(names.edit(), l, CStdStr(logName(l)));
    KibVariantHolder request;
    VUtil::CreateArray(request.edit(), VT_VARIANT, 5);
    VUtil::PutElement(request.edit(), 0, CStdStr(macAddress(device.index)));
    VUtil::PutElement(request.edit(), 1, CStdStr(deviceId(device.index)));
    VUtil::PutElement(request.edit(), 2, CStdStr("simulated device"));
    VUtil::PutDateElement(request.edit(), 3, static_cast<long>(std::time(nullptr)));
    VUtil::PutElement(request.edit(), 4, names.get());
    KibReply reply;
    device.bus.Call("RemoteLogger", "SetLogSource", request.get(), &reply, options_.timeoutMs);
    if (reply.failed() || reply.status != 0) return false;
    device.announcedGeneration = generation;
    return true;
}

void DeviceSimulator::sendAll(Device& device, Log& log) {
    for (int n = 0; n < options_.linesPerLog && !stopping_; ++n) {
        const std::string text = line(log.device, log.index, n);
        KibVariantHolder request;
        VUtil::CreateArray(request.edit(), VT_VARIANT, 3);
        VUtil::PutElement(request.edit(), 0, CStdStr(macAddress(device.index)));
        VUtil::PutElement(request.edit(), 1, CStdStr(logName(log.index)));
        VUtil::PutElement(request.edit(), 2, CStdStr(text));
        const auto index = static_cast<std::size_t>(n);
        while (!stopping_) {
            if (!announce(device)) {
                std::this_thread::sleep_for(kRetryPause);
                continue;
            }
            const int generation = device.generation.load();
            KibReply reply;
            log.attempts[index] = static_cast<unsigned char>(
                std::min(255, static_cast<int>(log.attempts[index]) + 1));
            device.bus.Call("RemoteLogger", "AppendLog", request.get(), &reply, options_.timeoutMs);
            if (!reply.failed() && reply.status == 0) {
                log.acknowledged[index] = true;
                ++acknowledged_;
                break;
            }
            if (reply.errorKind == KibErrorKind::KibException) {
                const std::lock_guard<std::mutex> lock(errorMutex_);
                if (errorReplies_++ == 0) firstError_ = reply.errorText;
            }
            if (!reply.failed() && reply.status == kUnknownSourceStatus) {
                int expected = generation;
                device.generation.compare_exchange_strong(expected, generation + 1);
                continue;
            }
            std::this_thread::sleep_for(kRetryPause);
        }
    }
}

std::string DeviceSimulator::firstError() const {
    const std::lock_guard<std::mutex> lock(errorMutex_);
    return firstError_;
}

bool DeviceSimulator::waitForAcknowledged(long count, std::chrono::milliseconds limit) const {
    return waitUntil([&] { return acknowledged_.load() >= count; }, limit);
}

bool DeviceSimulator::waitUntilDone(std::chrono::milliseconds limit) const {
    return waitForAcknowledged(total(), limit);
}

DeviceSimulator::Report DeviceSimulator::check(const std::filesystem::path& logsDir) const {
    Report report;
    for (const auto& device : devices_) {
        for (const auto& log : device->logs) {
            const std::string file = (logsDir / fileName(log->device, log->index)).string();
            checkLog(*log, readFile(file + ".back") + readFile(file), report);
        }
    }
    return report;
}

// Cuts the text into pieces that each start at a '#' or a line start and end before the
// next '#' or after a newline: whole lines are pieces equal to line(), everything else
// (a line cut short by a failed or interrupted write, stray bytes) is torn. The
// collector's own header lines of an announcement are skipped.
void DeviceSimulator::checkLog(const Log& log, const std::string& text, Report& report) const {
    const std::string prefix =
        "#" + std::to_string(log.device) + "." + std::to_string(log.index) + ".";
    std::vector<bool> seen(log.acknowledged.size(), false);
    int lastNew = -1;
    auto problem = [&](const std::string& what) {
        if (report.problems.size() < 8)
            report.problems.push_back(fileName(log.device, log.index) + ": " + what);
    };
    std::size_t at = 0;
    while (at < text.size()) {
        if (text[at] == '\n') {
            ++at;
            continue;
        }
        if (text.compare(at, 6, "===== ") == 0) {
            const std::size_t end = text.find('\n', at);
            at = end == std::string::npos ? text.size() : end + 1;
            continue;
        }
        std::size_t end = text.find_first_of("#\n", at + 1);
        end = end == std::string::npos ? text.size() : (text[end] == '\n' ? end + 1 : end);
        const std::string piece = text.substr(at, end - at);
        at = end;
        int number = -1;
        if (piece.compare(0, prefix.size(), prefix) == 0)
            number = std::atoi(piece.c_str() + prefix.size());
        if (number < 0 || number >= static_cast<int>(seen.size()) ||
            piece != line(log.device, log.index, number)) {
            ++report.torn;
            problem("torn or foreign text \"" + piece.substr(0, 40) + "\"");
            continue;
        }
        const auto index = static_cast<std::size_t>(number);
        if (seen[index]) {
            // Only a line sent again (its earlier attempt got no reply) may come twice.
            if (log.attempts[index] < 2) {
                ++report.duplicated;
                problem("line " + std::to_string(number) + " twice");
            }
            continue;
        }
        seen[index] = true;
        if (number < lastNew) {
            ++report.outOfOrder;
            problem("line " + std::to_string(number) + " after " + std::to_string(lastNew));
        }
        lastNew = std::max(lastNew, number);
    }
    for (std::size_t i = 0; i < seen.size(); ++i) {
        if (!log.acknowledged[i]) continue;
        ++report.acknowledged;
        if (!seen[i]) {
            ++report.lost;
            problem("acknowledged line " + std::to_string(i) + " missing");
        }
    }
}

}  // namespace nimbtest
