// SPDX-License-Identifier: MIT
#include "BusTestSupport.h"

#include <chrono>
#include <thread>

#include <signal.h>
#include <sys/wait.h>

#include "TestValues.h"

namespace bustest {

using namespace testvalues;

CollectorHome::CollectorHome(const fs::path& root) : root_(root) {
    fs::create_directories(root_ / "cfg/pellix");
    fs::create_directories(logs());
    nimbtest::writeFile(root_ / "cfg/pellix/com.pellix.nimb.json",
                        R"({"LogLevel": 3, "LogsDir": ")" + logs().string() + "\"}");
}

std::map<std::string, std::string> CollectorHome::environment() const {
    return {{"XDG_CONFIG_HOME", (root_ / "cfg").string()}, {"TMPDIR", root_.string()}};
}

void CollectorHome::setBus(const std::string& name, const std::string& value) const {
    const nimbtest::ScopedEnv home("XDG_CONFIG_HOME", (root_ / "cfg").string());
    const nimbtest::ChildResult run = nimbtest::runChild(
        {NIMB_DEFAULTS, "write", "Software\\Pellix\\Nimb\\Config", name, "-string", value}, {},
        root_ / "defaults.txt");
    EXPECT_EQ(run.exitCode(), 0) << run.output;
}

std::string CollectorHome::ownLog() const {
    const fs::path file = logs() / "NimbRemoteLogger.log";
    return fs::exists(file) ? nimbtest::readFile(file) : std::string();
}

Collector::Collector(const CollectorHome& home) : home_(home) {}

Collector::~Collector() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
}

bool Collector::start() {
    pid_ = nimbtest::spawnChild({NIMB_REMOTE_LOGGER}, home_.environment(),
                                home_.root() / "collector.txt");
    for (int i = 0; i < 500; ++i) {
        if (output().find("connected") != std::string::npos) return true;
        if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

int Collector::waitExit() {
    if (pid_ <= 0) return -1;
    const nimbtest::ChildResult child =
        nimbtest::waitChild(pid_, home_.root() / "collector.txt", std::chrono::seconds(10));
    pid_ = -1;
    return child.exitCode();
}

int Collector::stop() {
    if (pid_ > 0) ::kill(pid_, SIGTERM);
    return waitExit();
}

std::string Collector::output() const {
    const fs::path file = home_.root() / "collector.txt";
    return fs::exists(file) ? nimbtest::readFile(file) : std::string();
}

Device::Device(std::string mac, std::string logName, std::string deviceId)
    : mac_(std::move(mac)), logName_(std::move(logName)), deviceId_(std::move(deviceId)) {}

int Device::connect(const std::string& hosts, const KibConnectOptions& options, const char* name) {
    satellite_.setConnectOptions(options);
    return satellite_.Connect(hosts.c_str(), name);
}

int Device::announce(int timeoutMs) {
    KibReply reply;
    return satellite_.Call("RemoteLogger", "SetLogSource",
                           variants(str(mac_), str(deviceId_), str("Test device"),
                                    r8(VT_DATE, 46348.41667), strings({logName_.c_str()}))
                               .get(),
                           &reply, timeoutMs);
}

int Device::append(const std::string& line, int timeoutMs) {
    KibReply reply;
    return satellite_.Call("RemoteLogger", "AppendLog",
                           variants(str(mac_), str(logName_), str(line + "\n")).get(), &reply,
                           timeoutMs);
}

std::string Device::fileName() const {
    std::string digits;
    for (const char c : mac_) {
        if (c != ':') digits += c;
    }
    return deviceId_ + digits + "-" + logName_;
}

std::string valueOf(const std::string& credsFile, const std::string& key) {
    for (const std::string& line : nimbtest::linesOf(nimbtest::readFile(credsFile))) {
        if (line.rfind(key + "=", 0) == 0) return line.substr(key.size() + 1);
    }
    return {};
}

RawClient::RawClient(const std::string& url, const std::string& caFile,
                     const std::string& credsFile) {
    natsOptions_Create(&options_);
    natsOptions_SetURL(options_, url.c_str());
    natsOptions_SetSecure(options_, true);
    natsOptions_LoadCATrustedCertificates(options_, caFile.c_str());
    natsOptions_SetUserInfo(options_, valueOf(credsFile, "user").c_str(),
                            valueOf(credsFile, "password").c_str());
    natsOptions_SetAllowReconnect(options_, false);
    status_ = natsConnection_Connect(&nc_, options_);
    if (status_ != NATS_OK) error_ = nats_GetLastError(nullptr);
}

RawClient::~RawClient() {
    natsConnection_Destroy(nc_);
    natsOptions_Destroy(options_);
}

bool RawClient::refusesSubscription(const char* subject) {
    natsSubscription* sub = nullptr;
    natsConnection_SubscribeSync(&sub, nc_, subject);
    const bool refused = refusal(std::string("Subscription to \"") + subject + "\"");
    natsSubscription_Destroy(sub);
    return refused;
}

bool RawClient::refusesPublication(const char* subject) {
    natsConnection_PublishString(nc_, subject, "refused");
    return refusal(std::string("Publish to \"") + subject + "\"");
}

std::string RawClient::request(const std::string& subject, const std::string& replyTo,
                               const std::string& frame, std::chrono::milliseconds wait) {
    natsSubscription* sub = nullptr;
    if (natsConnection_SubscribeSync(&sub, nc_, replyTo.c_str()) != NATS_OK) return {};
    natsConnection_PublishRequest(nc_, subject.c_str(), replyTo.c_str(), frame.data(),
                                  static_cast<int>(frame.size()));
    natsMsg* msg = nullptr;
    std::string reply;
    if (natsSubscription_NextMsg(&msg, sub, static_cast<std::int64_t>(wait.count())) == NATS_OK)
        reply.assign(natsMsg_GetData(msg), static_cast<std::size_t>(natsMsg_GetDataLength(msg)));
    natsMsg_Destroy(msg);
    natsSubscription_Destroy(sub);
    return reply;
}

bool RawClient::refusal(const std::string& what) {
    natsConnection_FlushTimeout(nc_, 2000);
    const std::string expected = "Permissions Violation for " + what;
    // The server's refusal arrives asynchronously after the flush's round trip.
    return nimbtest::waitUntil(
        [&] {
            const char* text = nullptr;
            natsConnection_GetLastError(nc_, &text);
            return text != nullptr && std::string(text).find(expected) != std::string::npos;
        },
        std::chrono::seconds(2));
}

}  // namespace bustest
