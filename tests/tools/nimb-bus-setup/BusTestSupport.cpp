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

Device::Device(std::string mac, std::string logName)
    : mac_(std::move(mac)), logName_(std::move(logName)) {}

int Device::connect(const std::string& hosts, const KibConnectOptions& options, const char* name) {
    satellite_.setConnectOptions(options);
    return satellite_.Connect(hosts.c_str(), name);
}

int Device::announce(int timeoutMs) {
    KibReply reply;
    return satellite_.Call("RemoteLogger", "SetLogSource",
                           variants(str(mac_), str("dev"), str("Test device"),
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
    return "dev" + digits + "-" + logName_;
}

}  // namespace bustest
