// SPDX-License-Identifier: MIT
// A bus of three nats-servers in one cluster on loopback ports: the collector is given
// all three and uses the first; two devices use the others. The collector's server is
// killed mid-stream: the devices must be served again within 3 s, and every line that
// was acknowledged must be in the log files.

#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "BusTestSupport.h"
#include "NatsServer.h"

namespace {

using namespace nimbtest;
using namespace bustest;
using Clock = std::chrono::steady_clock;

// What one device sent: the numbers acknowledged, and the longest time without an
// acknowledgement after the moment the server was killed.
struct DeviceRun {
    std::set<int> acknowledged;
    int acknowledgedAfterKill = 0;
    Clock::duration longestGap{};
};

void stream(Device& device, const std::string& tag, const std::atomic<bool>& stop,
            const std::atomic<Clock::rep>& killedAt, DeviceRun& run) {
    Clock::time_point lastAck = Clock::now();
    for (int n = 0; !stop && n < 100000; ++n) {
        // A failed line is sent again under the next number; only acknowledged ones count.
        if (device.append(tag + " " + std::to_string(n), 1000) != 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            continue;
        }
        const Clock::time_point now = Clock::now();
        const Clock::time_point killed{Clock::duration(killedAt.load())};
        if (killedAt.load() != 0) {
            run.longestGap = std::max(run.longestGap, now - std::max(lastAck, killed));
            ++run.acknowledgedAfterKill;
        }
        run.acknowledged.insert(n);
        lastAck = now;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
}

TEST(BusClusterTest, ServiceResumesWhenTheCollectorsServerDies) {
    TempDir root;
    std::vector<int> ports;
    std::vector<int> routes;
    for (int i = 0; i < 3; ++i) {
        ports.push_back(NatsServer::freePort());
        routes.push_back(NatsServer::freePort());
    }
    std::vector<std::unique_ptr<NatsServer>> servers;
    for (int i = 0; i < 3; ++i) {
        std::string peers;
        for (int j = 0; j < 3; ++j) {
            if (j == i) continue;
            peers += (peers.empty() ? "" : ",") + std::string("nats://127.0.0.1:") +
                     std::to_string(routes[j]);
        }
        servers.push_back(std::make_unique<NatsServer>(
            ports[i], std::vector<std::string>{"-a", "127.0.0.1", "-p", std::to_string(ports[i]),
                                               "--cluster_name", "nimb", "--cluster",
                                               "nats://127.0.0.1:" + std::to_string(routes[i]),
                                               "--routes", peers}));
        ASSERT_GT(servers.back()->pid(), 0);
    }
    const auto hostOf = [&](int i) { return "127.0.0.1:" + std::to_string(ports[i]); };

    CollectorHome home(fs::path(root.path()) / "collector");
    home.setBus("kibDirectory.host", hostOf(0) + ", " + hostOf(1) + ", " + hostOf(2));
    Collector collector(home);
    ASSERT_TRUE(collector.start()) << home.ownLog();

    Device first("00:00:00:00:00:01", "cluster.log");
    Device second("00:00:00:00:00:02", "cluster.log");
    ASSERT_EQ(first.connect(hostOf(1), {}, "first"), KIB_OK);
    ASSERT_EQ(second.connect(hostOf(2), {}, "second"), KIB_OK);
    // The routes form in the background: announce until the collector answers.
    ASSERT_TRUE(waitUntil([&] { return first.announce(500) == 0; }, std::chrono::seconds(10)));
    ASSERT_TRUE(waitUntil([&] { return second.announce(500) == 0; }, std::chrono::seconds(10)));

    std::atomic<bool> stop{false};
    std::atomic<Clock::rep> killedAt{0};
    DeviceRun firstRun;
    DeviceRun secondRun;
    std::thread a(stream, std::ref(first), "first", std::cref(stop), std::cref(killedAt),
                  std::ref(firstRun));
    std::thread b(stream, std::ref(second), "second", std::cref(stop), std::cref(killedAt),
                  std::ref(secondRun));
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    killedAt = Clock::now().time_since_epoch().count();
    servers[0]->kill();
    std::this_thread::sleep_for(std::chrono::seconds(4));
    stop = true;
    a.join();
    b.join();
    ASSERT_EQ(collector.stop(), 0);

    for (const auto& [device, run, tag] :
         {std::tuple(&first, &firstRun, "first"), std::tuple(&second, &secondRun, "second")}) {
        EXPECT_LT(run->longestGap, std::chrono::seconds(3)) << tag;
        ::testing::Test::RecordProperty(
            std::string(tag) + "_gap_ms",
            static_cast<int>(
                std::chrono::duration_cast<std::chrono::milliseconds>(run->longestGap).count()));
        EXPECT_GT(run->acknowledgedAfterKill, 0) << tag;
        const std::string text = readFile(home.logs() / device->fileName());
        std::set<int> written;
        for (const std::string& line : linesOf(text)) {
            const std::string prefix = std::string(tag) + " ";
            if (line.rfind(prefix, 0) == 0) written.insert(std::stoi(line.substr(prefix.size())));
        }
        int lost = 0;
        for (const int n : run->acknowledged) lost += written.count(n) == 0 ? 1 : 0;
        EXPECT_EQ(lost, 0) << tag << ": " << run->acknowledged.size() << " acknowledged";
    }
}

}  // namespace
