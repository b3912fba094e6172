// SPDX-License-Identifier: MIT
// One device floods the collector with large appends over several connections while an
// ordinary device keeps sending single lines: the ordinary device's requests must stay
// fast (p99 under 1 s) because the flooding device is answered busy past its own share.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "BusTestSupport.h"
#include "NatsServer.h"

namespace {

using namespace nimbtest;
using namespace bustest;
using Clock = std::chrono::steady_clock;

TEST(BusFloodTest, FloodingDeviceDoesNotStarveAnother) {
    TempDir root;
    NatsServer server;
    CollectorHome home(fs::path(root.path()) / "collector");
    home.setBus("kibDirectory.host", server.host());
    Collector collector(home);
    ASSERT_TRUE(collector.start()) << home.ownLog();

    constexpr int kFloodConnections = 6;
    const std::string chunk(256 * 1024, 'x');
    std::vector<std::unique_ptr<Device>> flood;
    for (int i = 0; i < kFloodConnections; ++i) {
        flood.push_back(std::make_unique<Device>("00:00:00:00:00:0f", "flood.log"));
        ASSERT_EQ(flood.back()->connect(server.host(), {}, ("flood" + std::to_string(i)).c_str()),
                  KIB_OK);
    }
    ASSERT_EQ(flood.front()->announce(), 0);
    Device ordinary("00:00:00:00:00:01", "ordinary.log");
    ASSERT_EQ(ordinary.connect(server.host(), {}, "ordinary"), KIB_OK);
    ASSERT_EQ(ordinary.announce(), 0);

    std::atomic<bool> stop{false};
    std::atomic<int> accepted{0};
    std::atomic<int> refused{0};
    std::vector<std::thread> flooders;
    for (auto& device : flood) {
        flooders.emplace_back([&, d = device.get()] {
            for (int n = 0; !stop && n < 20000; ++n) {
                (d->append(chunk, 5000) == 0 ? accepted : refused)++;
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::vector<Clock::duration> latencies;
    for (int i = 0; i < 200; ++i) {
        const Clock::time_point start = Clock::now();
        EXPECT_EQ(ordinary.append("line " + std::to_string(i), 5000), 0);
        latencies.push_back(Clock::now() - start);
    }
    stop = true;
    for (std::thread& t : flooders) t.join();
    EXPECT_EQ(collector.stop(), 0);

    std::sort(latencies.begin(), latencies.end());
    const auto p99 = std::chrono::duration_cast<std::chrono::milliseconds>(
        latencies[latencies.size() * 99 / 100]);
    ::testing::Test::RecordProperty("ordinary_p99_ms", static_cast<int>(p99.count()));
    ::testing::Test::RecordProperty("flood_accepted", accepted.load());
    ::testing::Test::RecordProperty("flood_busy", refused.load());
    EXPECT_LT(p99, std::chrono::seconds(1)) << accepted << " accepted, " << refused << " busy";
    EXPECT_GT(accepted.load(), 0);
}

}  // namespace
