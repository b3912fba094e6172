// SPDX-License-Identifier: MIT
// nimb-bus-setup end to end: the configuration it writes runs a real nats-server on a
// loopback port, with the collector and devices using the credentials it issued. What
// the server must refuse (bad credentials, wrong CA, plaintext, impersonation, reading
// another device's replies) is tried for real.

#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>
#include <nats/nats.h>

#include "BusTestSupport.h"
#include "NatsServer.h"
#include <sys/stat.h>

namespace {

using namespace nimbtest;
using namespace bustest;

const char* const kMac = "00:11:22:33:44:55";

std::string valueOf(const std::string& credsFile, const std::string& key) {
    for (const std::string& line : linesOf(readFile(credsFile))) {
        if (line.rfind(key + "=", 0) == 0) return line.substr(key.size() + 1);
    }
    return {};
}

unsigned modeOf(const fs::path& path) {
    struct stat info {};
    ::stat(path.c_str(), &info);
    return info.st_mode & 0777;
}

class BusSetupTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        root_ = new TempDir;
        port_ = NatsServer::freePort();
        home_ = new CollectorHome(fs::path(root_->path()) / "collector");
        const ChildResult init = setup({"--listen", "127.0.0.1", "--port", std::to_string(port_),
                                        "--name", "bus.test", "init"});
        ASSERT_EQ(init.exitCode(), 0) << init.output;
        outputs_ += init.output;
        for (const char* device : {"kitchen", "garage"}) {
            const ChildResult added = setup({"add-device", device});
            ASSERT_EQ(added.exitCode(), 0) << added.output;
            outputs_ += added.output;
        }
        server_ = new NatsServer(port_, {"-c", bus("nats-server.conf")});
        collector_ = new Collector(*home_);
        ASSERT_TRUE(collector_->start()) << collector_->output() << home_->ownLog();
    }
    static void TearDownTestSuite() {
        delete collector_;
        delete server_;
        delete home_;
        delete root_;
    }

    // Runs nimb-bus-setup on the suite's folder, with the collector's settings home.
    static ChildResult setup(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {NIMB_BUS_SETUP, "--dir", bus("")});
        const std::string tools = fs::path(NIMB_DEFAULTS).parent_path().string();
        return runChild(arguments,
                        {{"XDG_CONFIG_HOME", (home_->root() / "cfg").string()},
                         {"PATH", tools + ":" + std::getenv("PATH")}},
                        fs::path(root_->path()) / "setup.txt");
    }
    static std::string bus(const std::string& name) { return root_->path() + "/bus/" + name; }
    static std::string device(const std::string& name) { return bus("devices/" + name + ".creds"); }
    static std::string host() { return "127.0.0.1:" + std::to_string(port_); }
    static KibConnectOptions optionsOf(const std::string& creds) { return {bus("ca.pem"), creds}; }

    // nimb-logpush sending `text` as `logName`, with the bus options in `security`.
    static ChildResult push(const std::string& logName, const std::string& text,
                            const std::vector<std::string>& security) {
        writeFile(fs::path(root_->path()) / "input.txt", text);
        std::vector<std::string> argv{NIMB_LOGPUSH, "--host",      host(), "--mac",
                                      kMac,         "--device-id", "dev",  "--log",
                                      logName,      "--retry-for", "600"};
        argv.insert(argv.end(), security.begin(), security.end());
        argv.push_back(root_->path() + "/input.txt");
        return runProgram(argv, *root_);
    }

    static TempDir* root_;
    static int port_;
    static CollectorHome* home_;
    static NatsServer* server_;
    static Collector* collector_;
    static std::string outputs_;  // what the set-up commands printed
};

TempDir* BusSetupTest::root_ = nullptr;
int BusSetupTest::port_ = 0;
CollectorHome* BusSetupTest::home_ = nullptr;
NatsServer* BusSetupTest::server_ = nullptr;
Collector* BusSetupTest::collector_ = nullptr;
std::string BusSetupTest::outputs_;

TEST_F(BusSetupTest, SecretsArePrivateAndNamesChecked) {
    for (const std::string& file : {bus("ca.key"), bus("nimb-collector.creds"), device("kitchen")})
        EXPECT_EQ(modeOf(file), 0600u) << file;
    for (const std::string& file : {bus("server.key"), bus("accounts.conf")})
        EXPECT_EQ(modeOf(file) & 0037u, 0u) << file;  // the server's group may read, no more
    for (const std::string& creds : {bus("nimb-collector.creds"), device("kitchen")})
        EXPECT_EQ(outputs_.find(valueOf(creds, "password")), std::string::npos) << outputs_;

    const std::string settings = readFile(home_->root() / "cfg/pellix/com.pellix.nimb.config.json");
    EXPECT_NE(settings.find(bus("nimb-collector.creds")), std::string::npos) << settings;
    EXPECT_NE(settings.find(bus("ca.pem")), std::string::npos) << settings;

    const struct {
        std::vector<std::string> arguments;
        const char* error;
    } refused[] = {
        {{"add-device", "../kitchen"}, "device names are 1 to 63 letters"},
        {{"add-device", ""}, "device names are 1 to 63 letters"},
        {{"add-device", "kitchen"}, "device kitchen exists already"},
        {{"revoke-device", "attic"}, "no device attic"},
        {{"frobnicate"}, "unknown command frobnicate"},
    };
    for (const auto& c : refused) {
        const ChildResult run = setup(c.arguments);
        EXPECT_EQ(run.exitCode(), 1) << c.arguments[0];
        EXPECT_NE(run.output.find(c.error), std::string::npos) << run.output;
    }
    const ChildResult listed = setup({"list-devices"});
    EXPECT_EQ(listed.output, "garage\nkitchen\n");
}

TEST_F(BusSetupTest, DevicePushesOverTlsWithItsCredentials) {
    const ChildResult run =
        push("tls.log", "over TLS\n", {"--ca", bus("ca.pem"), "--creds", device("kitchen")});
    ASSERT_EQ(run.exitCode(), 0) << run.errors;
    const fs::path file = home_->logs() / "dev001122334455-tls.log";
    EXPECT_TRUE(waitUntil([&] {
        return fs::exists(file) && readFile(file).find("over TLS\n") != std::string::npos;
    }));
}

TEST_F(BusSetupTest, RefusedConnectionsSayWhyAndShowNoSecret) {
    const fs::path scratch = root_->path();
    const std::string password = valueOf(device("kitchen"), "password");
    writeFile(scratch / "wrong.creds", "user=device-kitchen\npassword=not-" + password + "\n");
    writeFile(scratch / "stranger.creds", "user=device-stranger\npassword=" + password + "\n");
    ASSERT_EQ(setup({"add-device", "leaving"}).exitCode(), 0);
    const std::string leaving = valueOf(device("leaving"), "password");
    fs::copy_file(device("leaving"), scratch / "leaving.creds");
    ASSERT_EQ(setup({"revoke-device", "leaving"}).exitCode(), 0);
    // A certificate authority that did not sign the server's certificate.
    const ChildResult other = runProgram(
        {"/usr/bin/env", "openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
         "ec_paramgen_curve:P-256", "-nodes", "-keyout", (scratch / "other.key").string(), "-out",
         (scratch / "other.pem").string(), "-days", "2", "-subj", "/CN=Other"},
        *root_);
    ASSERT_EQ(other.exitCode(), 0) << other.errors;

    const std::string ca = bus("ca.pem");
    const struct {
        const char* what;
        std::vector<std::string> security;
        const char* error;
    } cases[] = {
        {"wrong password",
         {"--ca", ca, "--creds", (scratch / "wrong.creds").string()},
         "Authorization Violation"},
        {"unknown user",
         {"--ca", ca, "--creds", (scratch / "stranger.creds").string()},
         "Authorization Violation"},
        {"revoked device",
         {"--ca", ca, "--creds", (scratch / "leaving.creds").string()},
         "Authorization Violation"},
        {"wrong CA",
         {"--ca", (scratch / "other.pem").string(), "--creds", device("kitchen")},
         "unable to get local issuer certificate"},
        {"no TLS", {"--creds", device("kitchen")}, "the server requires TLS"},
        {"no credentials file",
         {"--ca", ca, "--creds", (scratch / "none.creds").string()},
         "cannot read the credentials file"},
    };
    for (const auto& c : cases) {
        const ChildResult run = push("refused.log", "never\n", c.security);
        EXPECT_EQ(run.exitCode(), 3) << c.what;
        // Retried with back-off for the budget given, then reported with the reason.
        EXPECT_NE(run.errors.find(c.error), std::string::npos) << c.what << ": " << run.errors;
        EXPECT_NE(run.errors.find("gave up after"), std::string::npos) << c.what;
        for (const std::string& secret : {password, leaving})
            EXPECT_EQ(run.errors.find(secret), std::string::npos) << c.what;
    }
    EXPECT_FALSE(fs::exists(home_->logs() / "dev001122334455-refused.log"));

    // The collector started with a wrong password says so in its log, without the password.
    CollectorHome refusedHome(scratch / "refused-collector");
    refusedHome.setBus("kibDirectory.host", host());
    refusedHome.setBus("kibDirectory.caFile", ca);
    refusedHome.setBus("kibDirectory.credsFile", (scratch / "wrong.creds").string());
    Collector refused(refusedHome);
    EXPECT_FALSE(refused.start());
    const std::string log = refusedHome.ownLog();
    EXPECT_NE(log.find("Cannot connect to the bus directory nats://127.0.0.1:" +
                       std::to_string(port_) + ": Authentication Violation"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find(password), std::string::npos) << log;
}

// Counts the requests that reach an impostor of the collector.
class Impostor : public KibSatellite {
public:
    static int count(const char*, const tagVARIANT&, tagVARIANT*) {
        ++served;
        return 0;
    }
    int CreateServices() override {
        AddService("SetLogSource", "", &Impostor::count);
        return AddService("AppendLog", "", &Impostor::count);
    }
    static std::atomic<int> served;
};
std::atomic<int> Impostor::served{0};

TEST_F(BusSetupTest, DeviceCannotImpersonateTheCollector) {
    Impostor impostor;
    impostor.setConnectOptions(optionsOf(device("kitchen")));
    ASSERT_EQ(impostor.Connect(host().c_str(), "RemoteLogger"), KIB_OK);

    Device garage(kMac, "garage.log");
    ASSERT_EQ(garage.connect(host(), optionsOf(device("garage")), "garage"), KIB_OK);
    ASSERT_EQ(garage.announce(), 0);
    constexpr int kLines = 40;
    for (int i = 0; i < kLines; ++i) ASSERT_EQ(garage.append("line " + std::to_string(i)), 0);
    EXPECT_EQ(Impostor::served.load(), 0);
    KIBSTATUS status = KIBSTATUS_DISCONNECTED;
    EXPECT_EQ(garage.satellite().DirectoryPingSatellite(nullptr, "RemoteLogger", 0, 2000, &status),
              KIB_OK);
    impostor.Disconnect();

    const fs::path file = home_->logs() / garage.fileName();
    EXPECT_TRUE(waitUntil(
        [&] { return fs::exists(file) && readFile(file).find("line 39\n") != std::string::npos; }));
}

// A raw client with a device's account: what it may not subscribe to is refused.
TEST_F(BusSetupTest, DeviceCannotReadServiceRequestsOrOtherDevicesReplies) {
    natsOptions* options = nullptr;
    ASSERT_EQ(natsOptions_Create(&options), NATS_OK);
    const std::string url = "nats://" + host();
    natsOptions_SetURL(options, url.c_str());
    natsOptions_SetSecure(options, true);
    natsOptions_LoadCATrustedCertificates(options, bus("ca.pem").c_str());
    natsOptions_SetUserInfo(options, "device-kitchen",
                            valueOf(device("kitchen"), "password").c_str());
    natsOptions_SetAllowReconnect(options, false);
    natsConnection* nc = nullptr;
    ASSERT_EQ(natsConnection_Connect(&nc, options), NATS_OK) << nats_GetLastError(nullptr);

    for (const char* subject : {"_INBOX_device-garage.>", "kib.svc.RemoteLogger.AppendLog",
                                "kib.svc.>", "_INBOX.>", ">"}) {
        natsSubscription* sub = nullptr;
        ASSERT_EQ(natsConnection_SubscribeSync(&sub, nc, subject), NATS_OK);
        natsConnection_FlushTimeout(nc, 2000);
        const char* text = nullptr;
        // The server's refusal arrives asynchronously after the flush's round trip.
        EXPECT_TRUE(waitUntil(
            [&] {
                natsConnection_GetLastError(nc, &text);
                return text != nullptr && std::string(text).find(std::string("Subscription to \"") +
                                                                 subject) != std::string::npos;
            },
            std::chrono::seconds(2)))
            << subject << ": " << (text != nullptr ? text : "");
        natsSubscription_Destroy(sub);
    }
    natsConnection_Destroy(nc);
    natsOptions_Destroy(options);
}

TEST_F(BusSetupTest, SecondCollectorRefusesToStart) {
    CollectorHome second(fs::path(root_->path()) / "second-collector");
    second.setBus("kibDirectory.host", host());
    second.setBus("kibDirectory.caFile", bus("ca.pem"));
    second.setBus("kibDirectory.credsFile", bus("nimb-collector.creds"));
    Collector refused(second);
    EXPECT_FALSE(refused.start());
    EXPECT_NE(second.ownLog().find("Another collector already serves RemoteLogger on " + host() +
                                   "; this one does not start"),
              std::string::npos)
        << second.ownLog();

    Device kitchen(kMac, "still.log");
    ASSERT_EQ(kitchen.connect(host(), optionsOf(device("kitchen")), "kitchen"), KIB_OK);
    EXPECT_EQ(kitchen.announce(), 0);
}

}  // namespace
