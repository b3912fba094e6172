// SPDX-License-Identifier: MIT
// nimb-bus-setup end to end: the configuration it writes runs a real nats-server on a
// loopback port, with the collector, nimb-web and devices using the credentials it
// issued. What the server must refuse (bad credentials, wrong CA, plaintext,
// impersonation, reading another account's replies or requests, nimb-web writing logs,
// a revoked account that is still connected) is tried for real.

#include <atomic>
#include <chrono>
#include <thread>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>
#include <nats/nats.h>

#include "BusTestSupport.h"
#include "KibReply.h"
#include "KibVariantHolder.h"
#include "NatsServer.h"
#include "WebTestSupport.h"

namespace {

using namespace nimbtest;
using namespace bustest;

const char* const kMac = "00:11:22:33:44:55";

unsigned modeOf(const fs::path& path) {
    struct stat info {};
    ::stat(path.c_str(), &info);
    return info.st_mode & 0777;
}

// nimb-web as a child process serving on a free loopback port; killed on destruction.
class WebConsole {
public:
    WebConsole(const CollectorHome& home, const fs::path& output) : output_(output) {
        port_ = NatsServer::freePort();
        pid_ = spawnChild({NIMB_WEB, "--listen", "127.0.0.1:" + std::to_string(port_), "--logs-dir",
                           home.logs().string()},
                          home.environment(), output_);
    }
    WebConsole(const WebConsole&) = delete;
    WebConsole& operator=(const WebConsole&) = delete;
    ~WebConsole() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }

    // Waits up to `limit` until /metrics says whether the collector answered, as `up`.
    bool waitForCollectorUp(bool up, std::chrono::seconds limit) {
        const std::string line = std::string("nimb_collector_up ") + (up ? "1" : "0") + "\n";
        return waitUntil(
            [&] {
                metrics_ =
                    webtest::request(port_, "/metrics", {}, "GET", std::chrono::seconds(3)).body;
                return metrics_.find(line) != std::string::npos;
            },
            limit, std::chrono::milliseconds(100));
    }
    const std::string& metrics() const { return metrics_; }
    std::string output() const { return fs::exists(output_) ? readFile(output_) : std::string(); }

private:
    fs::path output_;
    int port_ = 0;
    pid_t pid_ = -1;
    std::string metrics_;
};

class BusSetupTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        root_ = new TempDir;
        port_ = NatsServer::freePort();
        home_ = new CollectorHome(fs::path(root_->path()) / "collector");
        // Where earlier versions named the collector's account; init takes it back.
        home_->setBus("kibDirectory.credsFile", bus("nimb-collector.creds"));
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
    static std::string web() { return bus("nimb-web.creds"); }
    static std::string url() { return "nats://" + host(); }
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
    for (const std::string& file :
         {bus("ca.key"), bus("nimb-collector.creds"), web(), device("kitchen")})
        EXPECT_EQ(modeOf(file), 0600u) << file;
    for (const std::string& file : {bus("server.key"), bus("accounts.conf")})
        EXPECT_EQ(modeOf(file) & 0037u, 0u) << file;  // the server's group may read, no more
    // The bindings are not secret: beside the folder, readable by the collector's user.
    EXPECT_EQ(modeOf(root_->path() + "/bus-bindings.conf"), 0644u);
    for (const std::string& creds : {bus("nimb-collector.creds"), web(), device("kitchen")})
        EXPECT_EQ(outputs_.find(valueOf(creds, "password")), std::string::npos) << outputs_;

    // The collector's account is named under its own setting: the device tools that share
    // these settings (kibDirectory.credsFile) never connect as the collector.
    const std::string settings = readFile(home_->root() / "cfg/pellix/com.pellix.nimb.config.json");
    EXPECT_NE(settings.find("\"CollectorCredsFile\""), std::string::npos) << settings;
    EXPECT_NE(settings.find(bus("nimb-collector.creds")), std::string::npos) << settings;
    EXPECT_EQ(settings.find("kibDirectory.credsFile"), std::string::npos) << settings;
    EXPECT_NE(settings.find(bus("ca.pem")), std::string::npos) << settings;
    // nimb-web shares that home and names its own account under its own key.
    const std::string webSettings = readFile(home_->root() / "cfg/pellix/com.pellix.nimb.web.json");
    EXPECT_NE(webSettings.find(web()), std::string::npos) << webSettings;

    const struct {
        std::vector<std::string> arguments;
        const char* error;
    } refused[] = {
        {{"add-device", "../kitchen"}, "device names are 1 to 63 letters"},
        {{"add-device", ""}, "device names are 1 to 63 letters"},
        {{"add-device", "kitchen"}, "device kitchen exists already"},
        {{"revoke-device", "attic"}, "no device attic"},
        {{"reissue-web", "now"}, "reissue-web takes no argument"},
        {{"frobnicate"}, "unknown command frobnicate"},
        {{"add-device", "porch2", "--mac", "00 11"}, "--mac and --device-id take 1 to 64"},
        {{"add-device", "porch2", "--device-id", "a/b"}, "--mac and --device-id take 1 to 64"},
        {{"list-devices", "--mac", "00:11"}, "--mac and --device-id are for add-device"},
    };
    for (const auto& c : refused) {
        const ChildResult run = setup(c.arguments);
        EXPECT_EQ(run.exitCode(), 1) << c.arguments[0];
        EXPECT_NE(run.output.find(c.error), std::string::npos) << run.output;
    }
    const ChildResult listed = setup({"list-devices"});
    EXPECT_EQ(listed.output, "garage\nkitchen\n");
    // The server started with the configuration is the one its pid file names.
    const ChildResult reloaded = setup({"reload"});
    EXPECT_EQ(reloaded.exitCode(), 0) << reloaded.output;
    EXPECT_NE(reloaded.output.find("reloaded"), std::string::npos) << reloaded.output;
}

// Without a running server: add-device says the change waits for its start, reload fails.
// A pid file naming a process that is not the bus server is not signalled.
TEST_F(BusSetupTest, ReloadWithoutARunningServerFailsLoudly) {
    const fs::path other = fs::path(root_->path()) / "idle-bus";
    const std::string tools = fs::path(NIMB_DEFAULTS).parent_path().string();
    const auto run = [&](const std::vector<std::string>& arguments) {
        std::vector<std::string> argv{NIMB_BUS_SETUP, "--dir", other.string()};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return runChild(argv,
                        {{"XDG_CONFIG_HOME", (other / "cfg").string()},
                         {"PATH", tools + ":" + std::getenv("PATH")}},
                        fs::path(root_->path()) / "idle.txt");
    };
    ASSERT_EQ(run({"--port", std::to_string(NatsServer::freePort()), "init"}).exitCode(), 0);
    const ChildResult added = run({"add-device", "shed"});
    EXPECT_EQ(added.exitCode(), 0) << added.output;
    EXPECT_NE(added.output.find("the change applies when it starts"), std::string::npos)
        << added.output;
    for (const std::string& pid : {std::string(), std::to_string(::getpid())}) {
        if (!pid.empty()) writeFile(other / "nats-server.pid", pid + "\n");
        const ChildResult reload = run({"reload"});
        EXPECT_EQ(reload.exitCode(), 1) << reload.output;
        EXPECT_NE(reload.output.find("no running bus server found"), std::string::npos)
            << reload.output;
        EXPECT_NE(reload.output.find("nothing reloaded"), std::string::npos) << reload.output;
    }
}

// On a host without systemd, --systemd init stops before it writes anything.
TEST_F(BusSetupTest, SystemdInitChecksForSystemdFirst) {
    if (fs::exists("/run/systemd/system")) GTEST_SKIP() << "this host runs systemd";
    const fs::path fresh = fs::path(root_->path()) / "systemd-bus";
    const bool dropInBefore = fs::exists("/etc/systemd/system/nats-server.service.d/nimb-bus.conf");
    const ChildResult run =
        runChild({NIMB_BUS_SETUP, "--dir", fresh.string(), "--systemd", "init"},
                 {{"XDG_CONFIG_HOME", (fresh.parent_path() / "systemd-cfg").string()}},
                 fs::path(root_->path()) / "systemd.txt");
    EXPECT_EQ(run.exitCode(), 1) << run.output;
    const bool root = ::geteuid() == 0;
    EXPECT_NE(run.output.find(root ? "needs a host that runs systemd" : "--systemd needs root"),
              std::string::npos)
        << run.output;
    EXPECT_FALSE(fs::exists(fresh));
    EXPECT_FALSE(fs::exists(fresh.parent_path() / "systemd-cfg"));
    EXPECT_EQ(fs::exists("/etc/systemd/system/nats-server.service.d/nimb-bus.conf"), dropInBefore);
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
        bool retried;  // else refused at once: the credentials are not accepted
    } cases[] = {
        {"wrong password",
         {"--ca", ca, "--creds", (scratch / "wrong.creds").string()},
         "refused the credentials in",
         false},
        {"unknown user",
         {"--ca", ca, "--creds", (scratch / "stranger.creds").string()},
         "Authorization Violation",
         false},
        {"revoked device",
         {"--ca", ca, "--creds", (scratch / "leaving.creds").string()},
         "Authorization Violation",
         false},
        {"no credentials", {"--ca", ca}, "requires this device's credentials", false},
        {"wrong CA",
         {"--ca", (scratch / "other.pem").string(), "--creds", device("kitchen")},
         "unable to get local issuer certificate",
         true},
        {"no TLS", {"--creds", device("kitchen")}, "the server requires TLS", true},
        {"no credentials file",
         {"--ca", ca, "--creds", (scratch / "none.creds").string()},
         "cannot read the credentials file",
         true},
    };
    for (const auto& c : cases) {
        const ChildResult run = push("refused.log", "never\n", c.security);
        EXPECT_EQ(run.exitCode(), c.retried ? 3 : 4) << c.what << ": " << run.errors;
        EXPECT_NE(run.errors.find(c.error), std::string::npos) << c.what << ": " << run.errors;
        // Retried with back-off for the budget given (600 ms), then reported with the
        // reason; refused credentials are reported at once, without retrying.
        EXPECT_EQ(run.errors.find("gave up after") != std::string::npos, c.retried)
            << c.what << ": " << run.errors;
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

    // Its own source: kMac and "dev" are bound to kitchen, which announced them first.
    Device garage("00:11:22:33:44:77", "garage.log", "garage");
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
    RawClient kitchen(url(), bus("ca.pem"), device("kitchen"));
    ASSERT_TRUE(kitchen.connected()) << kitchen.error();
    for (const char* subject : {"_INBOX_device-garage.>", "_INBOX_nimb-web.>",
                                "kib.svc.RemoteLogger.AppendLog", "kib.svc.>", "_INBOX.>", ">"})
        EXPECT_TRUE(kitchen.refusesSubscription(subject)) << subject;
}

// nimb-web, started with the settings home the collector reads (as the packaged services
// share one), connects with its own account and shows the collector's counters; that
// account may not write logs, serve or watch requests, or read anyone else's replies.
TEST_F(BusSetupTest, WebAccountReadsTheCountersAndNothingElse) {
    WebConsole console(*home_, fs::path(root_->path()) / "web.txt");
    EXPECT_TRUE(console.waitForCollectorUp(true, std::chrono::seconds(15)))
        << console.metrics() << console.output();
    EXPECT_NE(console.metrics().find("nimb_collector_bus_connected 1\n"), std::string::npos)
        << console.metrics();
    EXPECT_EQ(console.output().find(valueOf(web(), "password")), std::string::npos);

    RawClient monitor(url(), bus("ca.pem"), web());
    ASSERT_TRUE(monitor.connected()) << monitor.error();
    for (const char* subject :
         {"kib.svc.RemoteLogger.SetLogSource", "kib.svc.RemoteLogger.AppendLog",
          "kib.avail.RemoteLogger", "kib.ping.RemoteLogger", "kib.discover"})
        EXPECT_TRUE(monitor.refusesPublication(subject)) << subject;
    for (const char* subject :
         {"kib.svc.RemoteLogger.GetStats", "kib.svc.>", "_INBOX_nimb-collector.>",
          "_INBOX_device-kitchen.>", "kib.avail.>", "kib.ping.RemoteLogger", "_INBOX.>", ">"})
        EXPECT_TRUE(monitor.refusesSubscription(subject)) << subject;

    // Through the bus library as well: a log announced with this account never arrives,
    // and the call is refused as soon as the server says so (the timeout is far off).
    Device intruder("66:55:44:33:22:11", "forged.log");
    ASSERT_EQ(intruder.connect(host(), optionsOf(web()), "nimb-web"), KIB_OK);
    EXPECT_EQ(intruder.announce(60000), KIB_E_NOT_PERMITTED);
    EXPECT_EQ(intruder.append("forged", 60000), KIB_E_NOT_PERMITTED);
    EXPECT_FALSE(fs::exists(home_->logs() / intruder.fileName()));
}

// A device account calling a service it may not use is refused with the reason, by the
// library and by kib-call, instead of waiting for its timeout.
TEST_F(BusSetupTest, DeviceCallToAForbiddenServiceIsRefused) {
    Device kitchen(kMac, "stats.log");
    ASSERT_EQ(kitchen.connect(host(), optionsOf(device("kitchen")), "kitchen"), KIB_OK);
    KibVariantHolder nothing;
    KibReply reply;
    kitchen.satellite().Call("RemoteLogger", "GetStats", nothing.get(), &reply, 60000);
    EXPECT_EQ(reply.status, KIB_E_NOT_PERMITTED);
    EXPECT_NE(reply.errorText.find("RemoteLogger.GetStats"), std::string::npos) << reply.errorText;
    // Allowed services still answer on the same connection.
    EXPECT_EQ(kitchen.announce(), 0);

    // kib-call, with a copy of the file that its group may read: warned about once.
    const fs::path copy = fs::path(root_->path()) / "kitchen-shared.creds";
    fs::copy_file(device("kitchen"), copy, fs::copy_options::overwrite_existing);
    fs::permissions(copy, fs::perms::group_read, fs::perm_options::add);
    const ChildResult call =
        runProgram({KIB_CALL, "--host", host(), "--ca", bus("ca.pem"), "--creds", copy.string(),
                    "--timeout", "60000", "RemoteLogger", "GetStats"},
                   *root_);
    EXPECT_EQ(call.exitCode(), 4) << call.errors;
    EXPECT_NE(call.errors.find("not permitted"), std::string::npos) << call.errors;
    const std::string warning =
        "kib-call: warning: credentials file " + copy.string() + " is readable by group or others";
    EXPECT_NE(call.errors.find(warning), std::string::npos) << call.errors;
    EXPECT_EQ(call.errors.find(warning), call.errors.rfind(warning)) << call.errors;
    const ChildResult anonymous = runProgram(
        {KIB_CALL, "--host", host(), "--ca", bus("ca.pem"), "RemoteLogger", "GetStats"}, *root_);
    EXPECT_EQ(anonymous.exitCode(), 4) << anonymous.errors;
    EXPECT_NE(anonymous.errors.find("--creds FILE"), std::string::npos) << anonymous.errors;
}

// The push command of the README, run with the collector's settings home: those settings
// name no credentials a device tool would use, so it says which to pass.
TEST_F(BusSetupTest, ToolsWithTheCollectorsSettingsAskForDeviceCredentials) {
    writeFile(fs::path(root_->path()) / "readme.txt", "from the README\n");
    const ChildResult run = runChild(
        {NIMB_LOGPUSH, "--log", "demo", "--retry-for", "600", root_->path() + "/readme.txt"},
        {{"XDG_CONFIG_HOME", (home_->root() / "cfg").string()}},
        fs::path(root_->path()) / "readme-push.txt");
    EXPECT_EQ(run.exitCode(), 4) << run.output;
    EXPECT_NE(run.output.find("requires this device's credentials"), std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("--creds FILE"), std::string::npos) << run.output;

    const fs::path copy = fs::path(root_->path()) / "shared.creds";
    fs::copy_file(device("kitchen"), copy, fs::copy_options::overwrite_existing);
    fs::permissions(copy, fs::perms::group_read, fs::perm_options::add);
    const ChildResult shared =
        runChild({NIMB_LOGPUSH, "--log", "demo", "--mac", kMac, "--device-id", "dev", "--creds",
                  copy.string(), root_->path() + "/readme.txt"},
                 {{"XDG_CONFIG_HOME", (home_->root() / "cfg").string()}},
                 fs::path(root_->path()) / "shared-push.txt");
    EXPECT_EQ(shared.exitCode(), 0) << shared.output;
    const std::string warning = "nimb-logpush: warning: credentials file " + copy.string() +
                                " is readable by group or others";
    EXPECT_NE(shared.output.find(warning), std::string::npos) << shared.output;
    EXPECT_EQ(shared.output.find(warning), shared.output.rfind(warning)) << shared.output;
}

// Credentials do not expire; revoking them is the way to withdraw them, and a client
// connected with them at that moment is cut off when the server reloads its accounts.
TEST_F(BusSetupTest, RevokedAccountsAreCutOffAtTheReload) {
    ASSERT_EQ(setup({"add-device", "porch"}).exitCode(), 0);
    Device porch("00:11:22:33:44:66", "porch.log", "porch");
    ASSERT_EQ(porch.connect(host(), optionsOf(device("porch")), "porch"), KIB_OK);
    ASSERT_EQ(porch.announce(), 0);
    ASSERT_EQ(porch.append("before"), 0);
    RawClient oldWeb(url(), bus("ca.pem"), web());
    ASSERT_TRUE(oldWeb.connected()) << oldWeb.error();
    const std::string oldWebFile = root_->path() + "/old-web.creds";
    fs::copy_file(web(), oldWebFile, fs::copy_options::overwrite_existing);

    // A follower with the same credentials (and so the same source), pushing a growing file.
    const fs::path followed = fs::path(root_->path()) / "porch-follow.txt";
    writeFile(followed, "followed before\n");
    const fs::path followOutput = fs::path(root_->path()) / "porch-follow-output.txt";
    const pid_t follower = spawnChild(
        {NIMB_LOGPUSH, "--host", host(), "--ca", bus("ca.pem"), "--creds", device("porch"), "--mac",
         "00:11:22:33:44:66", "--device-id", "porch", "-f", followed.string()},
        {}, followOutput);
    const fs::path followedFile = home_->logs() / "porch001122334466-porch-follow.txt";
    EXPECT_TRUE(waitUntil([&] {
        return fs::exists(followedFile) &&
               readFile(followedFile).find("followed before\n") != std::string::npos;
    }));

    const ChildResult revoked = setup({"revoke-device", "porch"});
    ASSERT_EQ(revoked.exitCode(), 0) << revoked.output;
    EXPECT_NE(revoked.output.find("reloaded"), std::string::npos) << revoked.output;
    // The reload is asynchronous: the device's requests fail within a few seconds, and
    // what it sends from then on is not written.
    EXPECT_TRUE(waitUntil([&] { return porch.append("probe") != 0; }, std::chrono::seconds(10),
                          std::chrono::milliseconds(100)));
    // The client gives up once the server refuses the credentials again, and says so.
    EXPECT_TRUE(waitUntil([&] { return !porch.satellite().credentialsRefusal().empty(); },
                          std::chrono::seconds(10), std::chrono::milliseconds(50)));
    EXPECT_EQ(porch.append("after revocation", 60000), KIB_E_NOT_PERMITTED);
    // The follower stops with the reason instead of retrying without end.
    writeFile(followed, "followed before\nfollowed after\n");
    const ChildResult followerEnd = waitChild(follower, followOutput, std::chrono::seconds(30));
    EXPECT_TRUE(followerEnd.finished);
    EXPECT_EQ(followerEnd.exitCode(), 4) << followerEnd.output;
    EXPECT_NE(followerEnd.output.find("no longer accepts the credentials in " + device("porch")),
              std::string::npos)
        << followerEnd.output;
    EXPECT_EQ(readFile(followedFile).find("followed after"), std::string::npos);

    const ChildResult reissued = setup({"reissue-web"});
    ASSERT_EQ(reissued.exitCode(), 0) << reissued.output;
    EXPECT_EQ(reissued.output.find(valueOf(web(), "password")), std::string::npos);
    EXPECT_EQ(modeOf(web()), 0600u);
    EXPECT_TRUE(waitUntil([&] { return oldWeb.closed(); }, std::chrono::seconds(5)));
    RawClient again(url(), bus("ca.pem"), oldWebFile);
    EXPECT_FALSE(again.connected());
    EXPECT_NE(again.error().find("Authorization Violation"), std::string::npos) << again.error();
    RawClient renewed(url(), bus("ca.pem"), web());
    EXPECT_TRUE(renewed.connected()) << renewed.error();

    const fs::path file = home_->logs() / porch.fileName();
    EXPECT_TRUE(waitUntil(
        [&] { return fs::exists(file) && readFile(file).find("before\n") != std::string::npos; }));
    EXPECT_EQ(readFile(file).find("after revocation"), std::string::npos);
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
