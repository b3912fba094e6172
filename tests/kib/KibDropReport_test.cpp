// SPDX-License-Identifier: MIT
// Messages the bus client drops from a full queue are logged: the first drops at once,
// later ones at most once per interval with the count since the last line, the rest
// when the subscription ends.

#include "KibDropReport.h"

#include <condition_variable>
#include <mutex>
#include <regex>
#include <string>

#include <boost/make_shared.hpp>

#include <gtest/gtest.h>

#include "CBBLog.h"
#include "KibSatellite.h"
#include "NatsServer.h"
#include "NimbTestSupport.h"
#include "TestValues.h"

using namespace std::chrono_literals;

TEST(KibDropReportTest, FirstDropsAtOnceLaterOnesOncePerIntervalAndTheRestAtTheEnd) {
    KibDropReport report(10s);
    const auto t0 = KibDropReport::Clock::time_point() + 1h;
    EXPECT_EQ(report.take(0, t0), 0);
    EXPECT_EQ(report.take(3, t0), 3);
    EXPECT_EQ(report.take(3, t0 + 20s), 0);  // nothing new
    EXPECT_EQ(report.take(5, t0 + 9s), 0);   // within the interval: held back
    EXPECT_EQ(report.take(8, t0 + 10s), 5);  // counted into the next line
    EXPECT_EQ(report.take(9, t0 + 11s), 0);
    EXPECT_EQ(report.take(9, t0 + 11s, true), 1);  // the last look ignores the interval
    EXPECT_EQ(report.take(9, t0 + 11s, true), 0);
}

namespace {

// A satellite whose "Gate" service holds its caller while the gate is closed.
class GatedSatellite : public KibSatellite {
public:
    ~GatedSatellite() override {
        setOpen(true);
        Disconnect();
    }

    int CreateServices() override {
        using Member = KibSatelliteDelegateMember<GatedSatellite>;
        AddService("Echo", "", new Member(this, &GatedSatellite::echo));
        return AddService("Gate", "", new Member(this, &GatedSatellite::gate));
    }

    void setOpen(bool open) {
        const std::lock_guard<std::mutex> lock(mutex_);
        open_ = open;
        changed_.notify_all();
    }

    // Waits (boundedly) until the handler was entered `count` times in all.
    bool waitEntered(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, 15s, [&] { return entered_ >= count; });
    }

private:
    int echo(const char*, const tagVARIANT&, tagVARIANT*) { return 0; }

    int gate(const char*, const tagVARIANT&, tagVARIANT*) {
        std::unique_lock<std::mutex> lock(mutex_);
        ++entered_;
        changed_.notify_all();
        changed_.wait_for(lock, 15s, [&] { return open_; });
        return 0;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = true;
    int entered_ = 0;
};

class EmptySatellite : public KibSatellite {
public:
    int CreateServices() override { return 0; }
};

// Holds the gate's handler on one request, sends `burst` more one-way requests and
// waits until the server has taken them all in (a reply from another of its services
// comes after them), then lets the queue run empty.
void overflow(GatedSatellite& server, KibSatellite& client, int before, int burst) {
    server.setOpen(false);
    const auto one = testvalues::i4(1);
    ASSERT_EQ(client.Request("Server", "Gate", one.get(), nullptr, KIBFLAG_NO_REPLY, nullptr),
              KIB_OK);
    ASSERT_TRUE(server.waitEntered(before + 1));
    for (int i = 0; i < burst; ++i) {
        ASSERT_EQ(client.Request("Server", "Gate", one.get(), nullptr, KIBFLAG_NO_REPLY, nullptr),
                  KIB_OK);
    }
    KibReply reply;
    ASSERT_EQ(client.Call("Server", "Echo", one.get(), &reply, 5000), 0);
    server.setOpen(true);
    ASSERT_TRUE(server.waitEntered(before + 1 + 1024));
}

using KibDropLogTest = nimbtest::ConfigHomeTest;

}  // namespace

TEST_F(KibDropLogTest, RequestsDroppedFromAFullQueueAreCountedInTheLog) {
    setSuiteSetting("LogsDir", dir_ / "logs");
    auto log = boost::make_shared<CBBLog>("KibTest.log", false, 524288);
    KibSatellite::setLogger(log);
    NatsServer nats;
    {
        GatedSatellite server;
        EmptySatellite client;
        ASSERT_EQ(server.Connect(nats.host().c_str(), "Server"), KIB_OK);
        ASSERT_EQ(client.Connect(nats.host().c_str(), "Client"), KIB_OK);
        // 1,024 wait, the rest of each burst is dropped. The second burst falls within the
        // interval, so its count is logged when the service leaves the bus.
        overflow(server, client, 0, 1100);
        overflow(server, client, 1025, 1030);
    }
    KibSatellite::setLogger(boost::shared_ptr<CBBLog>());
    log.reset();  // drains the queue into the file
    const std::string text = nimbtest::readFile(dir_ / "logs/KibTest.log");
    const std::regex line(
        R"(\[ERROR\] - Dropped (\d+) messages to (\S+): more than 1024 were waiting)");
    std::vector<std::string> counts;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), line);
         it != std::sregex_iterator(); ++it) {
        counts.push_back((*it)[1]);
        EXPECT_EQ((*it)[2], "kib.svc.Server.Gate");
    }
    EXPECT_EQ(counts, (std::vector<std::string>{"76", "6"})) << text;
}
