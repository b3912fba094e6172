// SPDX-License-Identifier: MIT
// Device identity on a bus that nimb-bus-setup secured, with a real nats-server and the
// collector as a child: a device account may write only the sources bound to it (given
// to add-device, or learned on its first announcement), whatever MAC address, device
// id, caller name, subject or reply inbox it puts into its requests; the per-device
// bounds count per account.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "BusTestSupport.h"
#include "DeviceLogIndex.h"
#include "KibCodec.h"
#include "NatsServer.h"
#include "StatsClient.h"
#include "TestValues.h"
#include "VUtil.h"
#include "WebApi.h"

namespace {

using namespace nimbtest;
using namespace bustest;
using namespace testvalues;
using Clock = std::chrono::steady_clock;

const std::string kMacA = "00:00:00:00:00:a1";     // given to alpha
const std::string kMacB = "00:00:00:00:00:b1";     // learned by beta
const std::string kMacGamma = "00:00:00:00:01:0";  // + digit: ten given to gamma
constexpr int kGammaMacs = 10;
constexpr int kMaxLogsPerDevice = 4;

KibVariantHolder announcement(const std::string& mac, const std::string& id,
                              const std::string& log) {
    return variants(str(mac), str(id), str("Identity test"), r8(VT_DATE, 46348.41667),
                    strings({log.c_str()}));
}

class BusIdentityTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        root_ = new TempDir;
        port_ = NatsServer::freePort();
        home_ = new CollectorHome(fs::path(root_->path()) / "collector");
        std::vector<std::vector<std::string>> commands = {
            {"--listen", "127.0.0.1", "--port", std::to_string(port_), "init"},
            {"add-device", "alpha", "--mac", kMacA, "--device-id", "alpha"},
            {"add-device", "beta"},
            {"add-device", "delta"},
        };
        std::vector<std::string> gamma = {"add-device", "gamma", "--device-id", "gamma"};
        for (int i = 0; i < kGammaMacs; ++i) gamma.insert(gamma.end(), {"--mac", gammaMac(i)});
        commands.push_back(gamma);
        for (const auto& command : commands) {
            const ChildResult run = setup(command);
            ASSERT_EQ(run.exitCode(), 0) << run.output;
        }
        const ScopedEnv settings("XDG_CONFIG_HOME", (home_->root() / "cfg").string());
        ASSERT_EQ(runChild({NIMB_DEFAULTS, "write", "Software\\Pellix\\Nimb\\Config",
                            "MaxLogsPerDevice", "-int", std::to_string(kMaxLogsPerDevice)},
                           {}, fs::path(root_->path()) / "defaults.txt")
                      .exitCode(),
                  0);
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

    static std::string gammaMac(int i) { return kMacGamma + std::to_string(i); }
    static ChildResult setup(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {NIMB_BUS_SETUP, "--dir", bus("")});
        const std::string tools = fs::path(NIMB_DEFAULTS).parent_path().string();
        return runChild(arguments,
                        {{"XDG_CONFIG_HOME", (home_->root() / "cfg").string()},
                         {"PATH", tools + ":" + std::getenv("PATH")}},
                        fs::path(root_->path()) / "setup.txt");
    }
    static std::string bus(const std::string& name) { return root_->path() + "/bus/" + name; }
    static std::string creds(const std::string& device) {
        return bus("devices/" + device + ".creds");
    }
    static std::string host() { return "127.0.0.1:" + std::to_string(port_); }
    static std::string url() { return "nats://" + host(); }

    // A device's satellite, connected with `device`'s credentials as satellite `name`.
    static std::unique_ptr<KibSatellite> connect(const std::string& device,
                                                 const std::string& name) {
        auto satellite = std::make_unique<KibSatellite>();
        satellite->setConnectOptions({bus("ca.pem"), creds(device)});
        EXPECT_EQ(satellite->Connect(host().c_str(), name.c_str()), KIB_OK);
        return satellite;
    }
    static KibReply announce(KibSatellite& s, const std::string& mac, const std::string& id,
                             const std::string& log) {
        KibReply reply;
        s.Call("RemoteLogger", "SetLogSource", announcement(mac, id, log).get(), &reply, 5000);
        return reply;
    }
    static KibReply append(KibSatellite& s, const std::string& mac, const std::string& log,
                           const std::string& text) {
        KibReply reply;
        s.Call("RemoteLogger", "AppendLog", variants(str(mac), str(log), str(text)).get(), &reply,
               5000);
        return reply;
    }
    // GetStats through nimb-web's account: one counter.
    static std::int64_t counter(const std::string& name) {
        KibSatellite web;
        web.setConnectOptions({bus("ca.pem"), bus("nimb-web.creds")});
        if (web.Connect(host().c_str(), "identity-web") != KIB_OK) return -1;
        KibReply reply;
        web.Call("RemoteLogger", "GetStats", str("").get(), &reply, 5000);
        const tagVARIANT& list = reply.value.get();
        for (int i = 0; i < VUtil::GetArrayLength(list); ++i) {
            KibVariantHolder pair, key, value;
            VUtil::GetElement(list, i, pair.edit());
            VUtil::GetElement(pair.get(), 0, key.edit());
            VUtil::GetElement(pair.get(), 1, value.edit());
            if (CStdStr(key.get().bstrVal) == name && value.get().vt == VT_I8)
                return value.get().llVal;
        }
        return -1;
    }

    static TempDir* root_;
    static int port_;
    static CollectorHome* home_;
    static NatsServer* server_;
    static Collector* collector_;
};

TempDir* BusIdentityTest::root_ = nullptr;
int BusIdentityTest::port_ = 0;
CollectorHome* BusIdentityTest::home_ = nullptr;
NatsServer* BusIdentityTest::server_ = nullptr;
Collector* BusIdentityTest::collector_ = nullptr;

// alpha tries beta's MAC address (spelled two ways), beta's device id, a MAC address
// bound to nobody, and beta's log, under the satellite name beta uses: each refused with
// its code and exact text, nothing of it written; its own source works.
TEST_F(BusIdentityTest, ForgedSourcesAreRefused) {
    const auto beta = connect("beta", "beta");
    ASSERT_EQ(announce(*beta, kMacB, "beta", "b.log").status, 0);
    ASSERT_EQ(append(*beta, kMacB, "b.log", "from beta\n").status, 0);
    const std::int64_t refusedBefore = counter("refused.identity");

    const auto alpha = connect("alpha", "beta");  // the caller name proves nothing
    const struct {
        KibReply reply;
        std::int32_t code;
        std::string text;
    } cases[] = {
        {announce(*alpha, kMacB, "alpha", "b.log"), 5,
         "SetLogSource: source " + kMacB + " belongs to another device account"},
        {announce(*alpha, "0000000000b1", "alpha", "b.log"), 5,
         "SetLogSource: source 0000000000b1 belongs to another device account"},
        {announce(*alpha, kMacA, "beta", "b.log"), 5,
         "SetLogSource: source beta belongs to another device account"},
        {announce(*alpha, "00:00:00:00:00:c1", "alpha", "c.log"), 5,
         "SetLogSource: source 00:00:00:00:00:c1 is not bound to this device account"},
        {announce(*alpha, kMacA, "other", "c.log"), 5,
         "SetLogSource: source other is not bound to this device account"},
        {append(*alpha, kMacB, "b.log", "forged\n"), 6,
         "AppendLog: source " + kMacB + " belongs to another device account"},
        {append(*alpha, "evil\x01<b>", "b.log", "forged\n"), 6,
         "AppendLog: source evil?<b> is not bound to this device account"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.reply.status, KIB_E_SERVICE_EXCEPTION) << c.text;
        EXPECT_EQ(c.reply.errorCode, c.code) << c.text;
        EXPECT_EQ(c.reply.errorText, c.text);
    }
    EXPECT_EQ(announce(*alpha, kMacA, "alpha", "a.log").status, 0);
    EXPECT_EQ(append(*alpha, kMacA, "a.log", "from alpha\n").status, 0);
    EXPECT_EQ(append(*beta, kMacB, "b.log", "beta again\n").status, 0);

    const fs::path betaFile = home_->logs() / "beta0000000000b1-b.log";
    ASSERT_TRUE(waitUntil([&] {
        return fs::exists(betaFile) && readFile(betaFile).find("beta again") != std::string::npos;
    }));
    EXPECT_EQ(readFile(betaFile).find("forged"), std::string::npos);
    EXPECT_FALSE(fs::exists(home_->logs() / "alpha0000000000b1-b.log"));
    EXPECT_EQ(counter("refused.identity"), refusedBefore + 7);
    EXPECT_EQ(counter("errors.other"), 0);
    const std::string ownLog = home_->ownLog();
    EXPECT_NE(ownLog.find("Refused SetLogSource of account \"device-alpha\" for source \"" + kMacB +
                          "\": belongs to another device account"),
              std::string::npos)
        << ownLog;

    // The index records the account that announced each log.
    EXPECT_TRUE(waitUntil([&] {
        std::string error;
        const auto index = DeviceLogIndex::openForReading(home_->logs().string(), error);
        if (!index) return false;
        for (const DeviceLogIndex::LogInfo& log : index->logs(false)) {
            if (log.file == betaFile.filename().string())
                return log.source.account == "device-beta";
        }
        return false;
    }));

    // The console's view of the refusals: account, source and request, the device's text
    // as sent (the page shows it as text).
    NimbBusSettings web;
    web.host = host();
    web.connection = {bus("ca.pem"), bus("nimb-web.creds")};
    StatsClient client(web);
    const StatsClient::Stats stats = client.fetch();
    ASSERT_TRUE(stats.reachable) << stats.error.toStdString();
    ASSERT_GE(stats.refusals.size(), 7u);
    const StatsClient::Stats::Refusal& last = stats.refusals.back();
    EXPECT_EQ(last.account, "device-alpha");
    EXPECT_EQ(last.source, "evil\x01<b>");
    EXPECT_EQ(last.request, "AppendLog");
    EXPECT_EQ(last.reason, "is not bound to this device account");
    const QByteArray json = WebApi::stats(stats, 0).body;
    EXPECT_TRUE(json.contains(R"("source":"evil\u0001<b>")")) << json.toStdString();

    // list-devices shows what each account was given and what the collector learned.
    const std::string listed = setup({"list-devices"}).output;
    EXPECT_NE(listed.find("alpha  given: mac=" + kMacA + " id=alpha\n"), std::string::npos)
        << listed;
    EXPECT_NE(listed.find("beta  learned: mac=" + kMacB + " id=beta\n"), std::string::npos)
        << listed;
    EXPECT_NE(listed.find("delta\n"), std::string::npos) << listed;
}

// The account is the last token of the subject, and the server lets each account publish
// only on its own: another account's token, the plain subject or a longer one are refused.
TEST_F(BusIdentityTest, ServerPinsTheAccountOfEverySubject) {
    RawClient alpha(url(), bus("ca.pem"), creds("alpha"));
    ASSERT_TRUE(alpha.connected()) << alpha.error();
    for (const char* subject :
         {"kib.svc.RemoteLogger.AppendLog.device-beta",
          "kib.svc.RemoteLogger.SetLogSource.device-beta", "kib.svc.RemoteLogger.AppendLog",
          "kib.svc.RemoteLogger.SetLogSource", "kib.svc.RemoteLogger.AppendLog.device-alpha.more",
          "kib.svc.RemoteLogger.AppendLog.*", "kib.svc.RemoteLogger.GetStats.nimb-web"})
        EXPECT_TRUE(alpha.refusesPublication(subject)) << subject;
    RawClient web(url(), bus("ca.pem"), bus("nimb-web.creds"));
    ASSERT_TRUE(web.connected()) << web.error();
    for (const char* subject :
         {"kib.svc.RemoteLogger.GetStats", "kib.svc.RemoteLogger.SetLogSource.nimb-web",
          "kib.svc.RemoteLogger.AppendLog.device-alpha"})
        EXPECT_TRUE(web.refusesPublication(subject)) << subject;
}

// A request on the caller's own subject is answered only into the caller's own inbox:
// not into another device's (which listens), nor into the shared "_INBOX." prefix.
TEST_F(BusIdentityTest, RepliesGoOnlyToTheCallersOwnInbox) {
    RawClient beta(url(), bus("ca.pem"), creds("beta"));
    RawClient alpha(url(), bus("ca.pem"), creds("alpha"));
    ASSERT_TRUE(beta.connected() && alpha.connected());
    natsSubscription* spy = nullptr;
    ASSERT_EQ(natsConnection_SubscribeSync(&spy, beta.connection(), "_INBOX_device-beta.>"),
              NATS_OK);
    ASSERT_EQ(natsConnection_Flush(beta.connection()), NATS_OK);
    std::string frame;
    std::string error;
    ASSERT_EQ(KibCodec::encodeRequest("alpha", announcement(kMacA, "alpha", "raw.log").get(), frame,
                                      error),
              KIB_OK);
    const std::int64_t before = counter("refused.inbox");
    const std::string subject = "kib.svc.RemoteLogger.SetLogSource.device-alpha";
    EXPECT_EQ(alpha.request(subject, "_INBOX_device-beta.x", frame, std::chrono::milliseconds(500)),
              "");
    EXPECT_EQ(alpha.request(subject, "_INBOX.x", frame, std::chrono::milliseconds(500)), "");
    EXPECT_EQ(
        alpha.request(subject, "_INBOX_device-alphax.y", frame, std::chrono::milliseconds(500)),
        "");
    // The control: its own inbox is answered, with success.
    const std::string answer = alpha.request(subject, "_INBOX_device-alpha.ok", frame);
    KibReply reply;
    ASSERT_EQ(KibCodec::decodeReply(answer.data(), answer.size(), reply, error), KIB_OK) << error;
    EXPECT_EQ(reply.status, 0) << reply.errorText;

    natsMsg* leaked = nullptr;
    EXPECT_EQ(natsSubscription_NextMsg(&leaked, spy, 500), NATS_TIMEOUT);
    natsMsg_Destroy(leaked);
    natsSubscription_Destroy(spy);
    EXPECT_EQ(counter("refused.inbox"), before + 3);
}

// A device's learned source is freed when it is revoked: the collector re-reads the
// bindings file that revoke-device rewrote, and another account may then take it.
TEST_F(BusIdentityTest, RevokingADeviceFreesWhatItLearned) {
    ASSERT_EQ(setup({"add-device", "epsilon"}).exitCode(), 0);
    ASSERT_EQ(setup({"add-device", "zeta"}).exitCode(), 0);
    const std::string mac = "00:00:00:00:00:e1";
    // The server applies new accounts at its reload: the first requests may still fail.
    std::unique_ptr<KibSatellite> epsilon;
    ASSERT_TRUE(waitUntil(
        [&] {
            epsilon = connect("epsilon", "epsilon");
            return announce(*epsilon, mac, "eps", "e.log").status == 0;
        },
        std::chrono::seconds(10), std::chrono::milliseconds(200)));
    const auto zeta = connect("zeta", "zeta");
    EXPECT_EQ(announce(*zeta, mac, "zeta", "e.log").errorText,
              "SetLogSource: source " + mac + " belongs to another device account");

    ASSERT_EQ(setup({"revoke-device", "epsilon"}).exitCode(), 0);
    EXPECT_TRUE(waitUntil([&] { return announce(*zeta, mac, "zeta", "e.log").status == 0; },
                          std::chrono::seconds(10), std::chrono::milliseconds(200)));
    EXPECT_NE(setup({"list-devices"}).output.find("zeta  learned: mac=" + mac + " id=zeta\n"),
              std::string::npos);
}

// gamma has ten MAC addresses; the bound on logs per device counts them together, so its
// fifth log closes its first, while another account's log stays open.
TEST_F(BusIdentityTest, LogBoundCountsPerAccount) {
    const auto delta = connect("delta", "delta");
    ASSERT_EQ(announce(*delta, "00:00:00:00:00:d1", "delta", "d.log").status, 0);
    const auto gamma = connect("gamma", "gamma");
    for (int i = 0; i < kGammaMacs; ++i)
        ASSERT_EQ(announce(*gamma, gammaMac(i), "gamma", "g.log").status, 0) << i;
    const KibReply closed = append(*gamma, gammaMac(0), "g.log", "late\n");
    EXPECT_EQ(closed.errorCode, 4) << closed.errorText;
    EXPECT_EQ(append(*gamma, gammaMac(kGammaMacs - 1), "g.log", "open\n").status, 0);
    EXPECT_EQ(append(*delta, "00:00:00:00:00:d1", "d.log", "still open\n").status, 0);
}

// gamma floods without waiting for answers, spread over four MAC addresses, bursts of
// announcements and of 32 KiB texts in turn, while alpha sends single lines: what gamma
// has waiting is counted for the account, so it is answered busy (on any one MAC address
// it stays below the bound of 64). alpha's p99 is recorded, not asserted.
TEST_F(BusIdentityTest, FloodSpreadOverMacsIsAnsweredBusy) {
    const auto gamma = connect("gamma", "gamma");
    for (int i = kGammaMacs - kMaxLogsPerDevice; i < kGammaMacs; ++i)
        ASSERT_EQ(announce(*gamma, gammaMac(i), "gamma", "flood.log").status, 0);
    const auto alpha = connect("alpha", "alpha");
    ASSERT_EQ(announce(*alpha, kMacA, "alpha", "quiet.log").status, 0);

    RawClient flood(url(), bus("ca.pem"), creds("gamma"));
    ASSERT_TRUE(flood.connected()) << flood.error();
    natsSubscription* replies = nullptr;
    ASSERT_EQ(natsConnection_SubscribeSync(&replies, flood.connection(), "_INBOX_device-gamma.>"),
              NATS_OK);
    constexpr int kRounds = 4;
    constexpr int kPerRound = 160;  // 40 per MAC address: under its own bound of 64
    // Each text is 32 KiB of short stamped lines, which cost the collector far more to take
    // in than a sender to publish; every frame is encoded before the flood starts, so that a
    // burst is publishing only and outpaces the collector even in a slow (sanitized) build.
    std::string chunk;
    for (int line = 0; chunk.size() < 32 * 1024 - 64; ++line)
        chunk += "2026-01-01 00:00:0" + std::to_string(line % 10) + " E flood " +
                 std::to_string(line) + "\n";
    std::vector<std::string> frames(kRounds * kPerRound);
    for (int round = 0; round < kRounds; ++round) {
        for (int n = 0; n < kPerRound; ++n) {
            const std::string mac = gammaMac(kGammaMacs - 1 - n % kMaxLogsPerDevice);
            std::string error;
            ASSERT_EQ(KibCodec::encodeRequest(
                          "gamma",
                          round % 2 == 1 ? variants(str(mac), str("flood.log"), str(chunk)).get()
                                         : announcement(mac, "gamma", "flood.log").get(),
                          frames[round * kPerRound + n], error),
                      KIB_OK)
                << error;
        }
    }
    std::atomic<bool> flooding{true};
    std::thread flooder([&] {
        for (int round = 0; round < kRounds; ++round) {
            const bool texts = round % 2 == 1;
            for (int n = 0; n < kPerRound; ++n) {
                const std::string& frame = frames[round * kPerRound + n];
                natsConnection_PublishRequest(
                    flood.connection(),
                    texts ? "kib.svc.RemoteLogger.AppendLog.device-gamma"
                          : "kib.svc.RemoteLogger.SetLogSource.device-gamma",
                    ("_INBOX_device-gamma." + std::to_string(round * kPerRound + n)).c_str(),
                    frame.data(), static_cast<int>(frame.size()));
            }
            natsConnection_FlushTimeout(flood.connection(), 5000);
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
        flooding = false;
    });
    std::vector<Clock::duration> latencies;
    for (int i = 0; i < 2000 && (flooding || i < 100); ++i) {
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(append(*alpha, kMacA, "quiet.log", "line " + std::to_string(i) + "\n").status, 0);
        latencies.push_back(Clock::now() - start);
    }
    flooder.join();
    int busy = 0;
    int written = 0;
    for (int i = 0; i < kRounds * kPerRound; ++i) {
        natsMsg* msg = nullptr;
        if (natsSubscription_NextMsg(&msg, replies, 10000) != NATS_OK) break;
        KibReply reply;
        std::string error;
        KibCodec::decodeReply(natsMsg_GetData(msg),
                              static_cast<std::size_t>(natsMsg_GetDataLength(msg)), reply, error);
        natsMsg_Destroy(msg);
        (reply.errorCode == 2 ? busy : written) += 1;
    }
    natsSubscription_Destroy(replies);
    std::sort(latencies.begin(), latencies.end());
    const auto p99 = std::chrono::duration_cast<std::chrono::microseconds>(
        latencies[latencies.size() * 99 / 100]);
    ::testing::Test::RecordProperty("quiet_p99_us", static_cast<int>(p99.count()));
    ::testing::Test::RecordProperty("quiet_requests", static_cast<int>(latencies.size()));
    ::testing::Test::RecordProperty("flood_busy", busy);
    ::testing::Test::RecordProperty("flood_written", written);
    std::printf("identity flood: quiet device p99 %lld us; flood %d written, %d busy\n",
                static_cast<long long>(p99.count()), written, busy);
    EXPECT_GT(busy, 0);
    EXPECT_GT(written, 0);
}

}  // namespace
